#include "Common/Platform/Src/StringUtil.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// "a", U+00E9, U+20AC, U+1F600 in UTF-8 and as UTF-16 units.
const std::string kMixedUtf8 = "a"
                               "\xC3\xA9"
                               "\xE2\x82\xAC"
                               "\xF0\x9F\x98\x80";
const std::wstring kMixedUtf16 = {L'a', wchar_t(0x00E9), wchar_t(0x20AC), wchar_t(0xD83D),
                                  wchar_t(0xDE00)};

bool Legal(std::initializer_list<unsigned char> bytes)
{
    return IsLegalUTF8(bytes.begin(), static_cast<int>(bytes.size()));
}

TEST(Convert16toUTF8, ConvertsEveryLength)
{
    std::string out;
    EXPECT_TRUE(Convert16toUTF8(kMixedUtf16, out, false));
    EXPECT_EQ(kMixedUtf8, out);
}

TEST(Convert16toUTF8, EmptyInputGivesEmptyOutput)
{
    std::string out = "old";
    EXPECT_TRUE(Convert16toUTF8(L"", out, false));
    EXPECT_EQ("", out);
}

TEST(Convert16toUTF8, StrictStopsAtUnpairedHighSurrogate)
{
    std::string out;
    const std::wstring in = {L'a', wchar_t(0xD800), L'b'};
    EXPECT_FALSE(Convert16toUTF8(in, out, false));
    EXPECT_EQ("a", out);
}

TEST(Convert16toUTF8, StrictStopsAtHighSurrogateAtTheEnd)
{
    std::string out;
    const std::wstring in = {L'a', L'b', wchar_t(0xDBFF)};
    EXPECT_FALSE(Convert16toUTF8(in, out, false));
    EXPECT_EQ("ab", out);
}

TEST(Convert16toUTF8, StrictStopsAtLoneLowSurrogate)
{
    std::string out;
    const std::wstring in = {L'x', wchar_t(0xDC00), L'y'};
    EXPECT_FALSE(Convert16toUTF8(in, out, false));
    EXPECT_EQ("x", out);
}

TEST(Convert16toUTF8, LenientEncodesUnpairedSurrogatesAsCharacters)
{
    std::string out;
    const std::wstring in = {L'a', wchar_t(0xD800), L'b', wchar_t(0xDC00), wchar_t(0xDBFF)};
    EXPECT_TRUE(Convert16toUTF8(in, out, true));
    EXPECT_EQ("a"
              "\xED\xA0\x80"
              "b"
              "\xED\xB0\x80"
              "\xED\xAF\xBF",
              out);
}

TEST(Convert16toUTF8, LenientStillJoinsPairs)
{
    std::string out;
    EXPECT_TRUE(Convert16toUTF8(kMixedUtf16, out, true));
    EXPECT_EQ(kMixedUtf8, out);
}

TEST(Convert8toUTF16, ConvertsEveryLengthAndMakesSurrogatePairs)
{
    std::wstring out;
    EXPECT_TRUE(Convert8toUTF16(kMixedUtf8, out, false));
    EXPECT_EQ(kMixedUtf16, out);
}

TEST(Convert8toUTF16, LargestCodePoint)
{
    std::wstring out;
    EXPECT_TRUE(Convert8toUTF16("\xF4\x8F\xBF\xBF", out, false));
    EXPECT_EQ((std::wstring{wchar_t(0xDBFF), wchar_t(0xDFFF)}), out);
}

TEST(Convert8toUTF16, IllegalSequenceStopsWithWhatCameBefore)
{
    std::wstring out;
    EXPECT_FALSE(Convert8toUTF16("ab\xC0\x80"
                                 "cd",
                                 out, false));
    EXPECT_EQ(L"ab", out);
    EXPECT_FALSE(Convert8toUTF16("ab\xC0\x80"
                                 "cd",
                                 out, true));
    EXPECT_EQ(L"ab", out);
}

TEST(Convert8toUTF16, StrayContinuationByteIsIllegal)
{
    std::wstring out;
    EXPECT_FALSE(Convert8toUTF16("a\x80", out, true));
    EXPECT_EQ(L"a", out);
}

TEST(Convert8toUTF16, TruncatedSequenceStopsWithWhatCameBefore)
{
    std::wstring out;
    EXPECT_FALSE(Convert8toUTF16("ab\xE2\x82", out, false));
    EXPECT_EQ(L"ab", out);
    EXPECT_FALSE(Convert8toUTF16("\xF0\x9F\x98", out, true));
    EXPECT_EQ(L"", out);
}

TEST(Convert8toUTF16, StrictRejectsSurrogateCodePoints)
{
    std::wstring out;
    EXPECT_FALSE(Convert8toUTF16("a\xED\xA0\x80", out, false));
    EXPECT_EQ(L"a", out);
}

TEST(Convert8toUTF16, LenientPassesSurrogateCodePointsThrough)
{
    std::wstring out;
    EXPECT_TRUE(Convert8toUTF16("a\xED\xA0\x80"
                                "b",
                                out, true));
    EXPECT_EQ((std::wstring{L'a', wchar_t(0xD800), L'b'}), out);
}

TEST(Convert8toUTF16, AboveLastCodePointIsIllegalInBothModes)
{
    std::wstring out;
    EXPECT_FALSE(Convert8toUTF16("a\xF4\x90\x80\x80", out, false));
    EXPECT_EQ(L"a", out);
    EXPECT_FALSE(Convert8toUTF16("a\xF4\x90\x80\x80", out, true));
    EXPECT_EQ(L"a", out);
}

TEST(Convert8toUTF16Method2, DecodesWellFormedText)
{
    std::wstring out;
    EXPECT_TRUE(Convert8toUTF16_Method2(kMixedUtf8, out));
    EXPECT_EQ(kMixedUtf16, out);
}

TEST(Convert8toUTF16Method2, DropsSurrogateAndOutOfRangeValues)
{
    std::wstring out;
    EXPECT_TRUE(Convert8toUTF16_Method2("a\xED\xA0\x80"
                                        "b\xF4\x90\x80\x80"
                                        "c",
                                        out));
    EXPECT_EQ(L"abc", out);
}

TEST(Convert8toUTF16Method2, ContinuationBytesExtendTheCurrentValue)
{
    std::wstring out;
    // "a" is followed by a continuation byte, so it is not emitted; the
    // continuation adds six bits: 0x61 << 6 = 0x1840.
    EXPECT_TRUE(Convert8toUTF16_Method2("a\x80", out));
    EXPECT_EQ(std::wstring(1, wchar_t(0x1840)), out);
}

TEST(Convert8toUTF16Method2, TruncatedSequenceIsEmittedAsFar)
{
    std::wstring out;
    // 0xE2 starts with 0x2, 0x82 adds 0x02: 0x82.
    EXPECT_TRUE(Convert8toUTF16_Method2("\xE2\x82", out));
    EXPECT_EQ(std::wstring(1, wchar_t(0x82)), out);
}

TEST(Convert8toUTF16Method2, EmptyInput)
{
    std::wstring out = L"old";
    EXPECT_TRUE(Convert8toUTF16_Method2("", out));
    EXPECT_EQ(L"", out);
}

TEST(IsLegalUTF8, SingleBytes)
{
    EXPECT_TRUE(Legal({0x00}));
    EXPECT_TRUE(Legal({0x7F}));
    EXPECT_FALSE(Legal({0x80}));
    EXPECT_FALSE(Legal({0xC1}));
}

TEST(IsLegalUTF8, TwoByteLeadBounds)
{
    EXPECT_FALSE(Legal({0xC0, 0x80}));
    EXPECT_FALSE(Legal({0xC1, 0xBF}));
    EXPECT_TRUE(Legal({0xC2, 0x80}));
    EXPECT_TRUE(Legal({0xDF, 0xBF}));
    EXPECT_FALSE(Legal({0xC2, 0x7F}));
    EXPECT_FALSE(Legal({0xC2, 0xC0}));
}

TEST(IsLegalUTF8, SecondByteAfterE0)
{
    EXPECT_FALSE(Legal({0xE0, 0x9F, 0x80}));
    EXPECT_TRUE(Legal({0xE0, 0xA0, 0x80}));
    EXPECT_TRUE(Legal({0xE1, 0x80, 0x80}));
    EXPECT_FALSE(Legal({0xE1, 0x80, 0xC0}));
}

TEST(IsLegalUTF8, SurrogateRangeAfterEDIsNotRejected)
{
    // Only the leads E0, F0 and F4 narrow the second byte; surrogates are
    // left to the converters.
    EXPECT_TRUE(Legal({0xED, 0xA0, 0x80}));
}

TEST(IsLegalUTF8, SecondByteAfterF0AndF4)
{
    EXPECT_FALSE(Legal({0xF0, 0x8F, 0xBF, 0xBF}));
    EXPECT_TRUE(Legal({0xF0, 0x90, 0x80, 0x80}));
    EXPECT_TRUE(Legal({0xF4, 0x8F, 0xBF, 0xBF}));
    EXPECT_FALSE(Legal({0xF4, 0x90, 0x80, 0x80}));
    EXPECT_FALSE(Legal({0xF5, 0x80, 0x80, 0x80}));
    EXPECT_FALSE(Legal({0xF1, 0x80, 0x80, 0x7F}));
}

TEST(IsLegalUTF8, LengthOutsideOneToFour)
{
    const unsigned char bytes[] = {0x41, 0x41, 0x41, 0x41, 0x41};
    EXPECT_FALSE(IsLegalUTF8(bytes, 0));
    EXPECT_FALSE(IsLegalUTF8(bytes, 5));
    EXPECT_FALSE(IsLegalUTF8(bytes, -1));
    EXPECT_FALSE(IsLegalUTF8(nullptr, 1));
}

TEST(IsLegalUTF8Sequence, TakesTheLengthFromTheLeadByte)
{
    const unsigned char text[] = {0xC3, 0xA9, 0x41};
    EXPECT_TRUE(IsLegalUTF8Sequence(text, text + 3));
    EXPECT_TRUE(IsLegalUTF8Sequence(text, text + 2));
    EXPECT_TRUE(IsLegalUTF8Sequence(text + 2, text + 3));
}

TEST(IsLegalUTF8Sequence, SequenceRunningPastTheEndIsNotLegal)
{
    const unsigned char text[] = {0xE2, 0x82, 0xAC};
    EXPECT_TRUE(IsLegalUTF8Sequence(text, text + 3));
    EXPECT_FALSE(IsLegalUTF8Sequence(text, text + 2));
    EXPECT_FALSE(IsLegalUTF8Sequence(text, text));
}

TEST(IsLegalUTF8Sequence, IllegalSequence)
{
    const unsigned char text[] = {0xE0, 0x9F, 0x80};
    EXPECT_FALSE(IsLegalUTF8Sequence(text, text + 3));
    const unsigned char fiveByteLead[] = {0xF8, 0x80, 0x80, 0x80, 0x80};
    EXPECT_FALSE(IsLegalUTF8Sequence(fiveByteLead, fiveByteLead + 5));
}

TEST(Utf8StringContainsSurrogateCharacters, TrueOnlyAboveTheBasicPlane)
{
    EXPECT_FALSE(quorvan::utf8::Utf8StringContainsSurrogateCharacters(""));
    EXPECT_FALSE(quorvan::utf8::Utf8StringContainsSurrogateCharacters("abc\xE2\x82\xAC"));
    EXPECT_TRUE(quorvan::utf8::Utf8StringContainsSurrogateCharacters("a\xF0\x9F\x98\x80"));
    // An encoded surrogate is dropped by the decoder, so it doesn't count.
    EXPECT_FALSE(quorvan::utf8::Utf8StringContainsSurrogateCharacters("\xED\xA0\x80"));
}

} // namespace
