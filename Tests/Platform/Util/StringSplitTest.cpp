#include "Common/Platform/Src/StringUtil.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using Pieces = std::vector<std::string>;

namespace {

TEST(Split, KeepsEmptyPiecesBetweenSeparators)
{
    EXPECT_EQ((Pieces{"a", "b", "", "c"}), Split("a,b,,c", ","));
    EXPECT_EQ((Pieces{"", "a"}), Split(",a", ","));
}

TEST(Split, SeparatorAtTheEndGivesNoEmptyLastPiece)
{
    EXPECT_EQ((Pieces{"a", "b"}), Split("a,b,", ","));
    EXPECT_EQ((Pieces{""}), Split(",", ","));
}

TEST(Split, EmptyStringGivesOneEmptyPiece)
{
    EXPECT_EQ((Pieces{""}), Split("", ","));
}

TEST(Split, EmptySeparatorGivesTheWholeString)
{
    EXPECT_EQ((Pieces{"a,b"}), Split("a,b", ""));
}

TEST(Split, MultiCharacterSeparator)
{
    EXPECT_EQ((Pieces{"a", "b", "c"}), Split("a::b::c", "::"));
    EXPECT_EQ((Pieces{"abc"}), Split("abc", "::"));
}

TEST(Split2, SplitsAtTheFirstOccurrence)
{
    EXPECT_EQ(std::make_pair(std::string("k"), std::string("v=w")), Split2("k=v=w", "="));
}

TEST(Split2, TwoCharacterSeparatorLeavesItsSecondCharacterInTheRest)
{
    EXPECT_EQ(std::make_pair(std::string("key"), std::string(":value")),
              Split2("key::value", "::"));
}

TEST(Split2, AbsentOrEmptySeparatorGivesTheWholeString)
{
    EXPECT_EQ(std::make_pair(std::string("abc"), std::string()), Split2("abc", "="));
    EXPECT_EQ(std::make_pair(std::string("abc"), std::string()), Split2("abc", ""));
}

TEST(UrlDecode, PlusAndPercent20BecomeBlanks)
{
    EXPECT_EQ("a b c", UrlDecode("a+b%20c"));
}

TEST(UrlDecode, HexDigitsOfEitherCase)
{
    EXPECT_EQ("AJJ/", UrlDecode("%41%4a%4A%2F"));
}

TEST(UrlDecode, PercentAtTheEndStays)
{
    EXPECT_EQ("100%", UrlDecode("100%"));
    EXPECT_EQ("x%4", UrlDecode("x%4"));
    EXPECT_EQ("%4", UrlDecode("%4"));
}

TEST(UrlDecode, PercentWithoutTwoHexDigitsStays)
{
    EXPECT_EQ("%zz%4g", UrlDecode("%zz%4g"));
    EXPECT_EQ("%A", UrlDecode("%%41"));
}

TEST(UrlDecode, PercentThreeFromTheEndIsDecoded)
{
    EXPECT_EQ("A", UrlDecode("%41"));
}

TEST(Utf8Replace, ReplacesAllOccurrencesLeftToRight)
{
    EXPECT_EQ("a::b::c", quorvan::utf8::replace("a.b.c", ".", "::"));
    EXPECT_EQ("yx", quorvan::utf8::replace("xxx", "xx", "y"));
}

TEST(Utf8Replace, OneCharacterByTwoCopiesOfItselfTerminates)
{
    EXPECT_EQ("aaaaaa", quorvan::utf8::replace("aaa", "a", "aa"));
    EXPECT_EQ("baab", quorvan::utf8::replace("bab", "a", "aa"));
}

TEST(Utf8Replace, LastInsertedCharacterCanBeginAFurtherMatch)
{
    // "abb" -> "xab": the "a" just inserted and the following "b" match.
    EXPECT_EQ("xxa", quorvan::utf8::replace("abb", "ab", "xa"));
}

TEST(Utf8Replace, EmptyReplacementGoesOnFromTheSamePosition)
{
    EXPECT_EQ("a", quorvan::utf8::replace("abcbc", "bc", ""));
    EXPECT_EQ("ab", quorvan::utf8::replace("a--b--", "-", ""));
}

TEST(Utf8Replace, EmptyOrIdenticalFromGivesAPlainCopy)
{
    EXPECT_EQ("abc", quorvan::utf8::replace("abc", "", "x"));
    EXPECT_EQ("abc", quorvan::utf8::replace("abc", "b", "b"));
    EXPECT_EQ("abc", quorvan::utf8::replace("abc", "z", "y"));
}

TEST(Utf16Replace, ReplacesLikeTheByteVersion)
{
    EXPECT_EQ(L"a::b::c", quorvan::utf16::replace(L"a.b.c", L".", L"::"));
    EXPECT_EQ(L"aaaaaa", quorvan::utf16::replace(L"aaa", L"a", L"aa"));
    EXPECT_EQ(L"xxa", quorvan::utf16::replace(L"abb", L"ab", L"xa"));
    EXPECT_EQ(L"a", quorvan::utf16::replace(L"abcbc", L"bc", L""));
    EXPECT_EQ(L"abc", quorvan::utf16::replace(L"abc", L"", L"x"));
}

TEST(WidenNarrow, OneElementPerByte)
{
    EXPECT_EQ(L"abc 123", quorvan::utf8::widen("abc 123"));
    EXPECT_EQ("abc 123", quorvan::utf16::narrow(L"abc 123"));
    // Two bytes of one UTF-8 character stay two elements.
    EXPECT_EQ(2u, quorvan::utf8::widen("\xC3\xA9").size());
}

TEST(WidenNarrow, ElementWithoutNarrowFormBecomesNul)
{
    const std::string narrowed = quorvan::utf16::narrow(std::wstring{L'a', wchar_t(0x20AC)});
    EXPECT_EQ(std::string("a\0", 2), narrowed);
}

TEST(Utf8Split, SplitsLikeLineReading)
{
    EXPECT_EQ((Pieces{"a", "b", "", "c"}), quorvan::utf8::split("a,b,,c", ','));
    EXPECT_EQ((Pieces{"a", "b"}), quorvan::utf8::split("a,b,", ','));
    EXPECT_EQ((Pieces{""}), quorvan::utf8::split(",", ','));
    EXPECT_EQ((Pieces{"abc"}), quorvan::utf8::split("abc", ','));
}

TEST(Utf8Split, EmptyStringGivesNoPieces)
{
    EXPECT_TRUE(quorvan::utf8::split("", ',').empty());
}

TEST(Utf8Split, KeepTrailingAddsAnEmptyLastPiece)
{
    EXPECT_EQ((Pieces{"a", "b", ""}), quorvan::utf8::split("a,b,", ',', true));
    EXPECT_EQ((Pieces{"a", "b"}), quorvan::utf8::split("a,b", ',', true));
    EXPECT_EQ((Pieces{"", ""}), quorvan::utf8::split(",", ',', true));
    EXPECT_TRUE(quorvan::utf8::split("", ',', true).empty());
}

TEST(Utf8Split, KeepTrailingFalseIsTheShortForm)
{
    EXPECT_EQ((Pieces{"a", "b"}), quorvan::utf8::split("a,b,", ',', false));
    EXPECT_EQ((Pieces{"a", "", "b"}), quorvan::utf8::split("a,,b", ',', false));
}

TEST(Utf8Join, PutsTheDelimiterBetweenPieces)
{
    EXPECT_EQ("a, b, c", quorvan::utf8::join({"a", "b", "c"}, ", "));
    EXPECT_EQ("a", quorvan::utf8::join({"a"}, "-"));
    EXPECT_EQ("+", quorvan::utf8::join({"", ""}, "+"));
    EXPECT_EQ("ab", quorvan::utf8::join({"a", "b"}, ""));
}

TEST(Utf8Join, EmptyListGivesEmptyString)
{
    EXPECT_EQ("", quorvan::utf8::join({}, ","));
}

TEST(Utf8Substr, CountsCodePoints)
{
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"
                             "b";
    EXPECT_EQ("", quorvan::utf8::substr(text, 0));
    EXPECT_EQ("a", quorvan::utf8::substr(text, 1));
    EXPECT_EQ("a\xC3\xA9", quorvan::utf8::substr(text, 2));
    EXPECT_EQ("a\xC3\xA9\xE2\x82\xAC", quorvan::utf8::substr(text, 3));
    EXPECT_EQ("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", quorvan::utf8::substr(text, 4));
}

TEST(Utf8Substr, NeverCutsInsideAMultiByteCharacter)
{
    const std::string text = "\xC3\xA9\xC3\xA9\xF0\x9F\x98\x80";
    EXPECT_EQ("\xC3\xA9", quorvan::utf8::substr(text, 1));
    EXPECT_EQ("\xC3\xA9\xC3\xA9", quorvan::utf8::substr(text, 2));
    EXPECT_EQ(text, quorvan::utf8::substr(text, 3));
}

TEST(Utf8Substr, ShorterStringIsReturnedWhole)
{
    EXPECT_EQ("ab", quorvan::utf8::substr("ab", 10));
    EXPECT_EQ("", quorvan::utf8::substr("", 3));
}

TEST(Utf8Tokenize, OneStringPerCharacter)
{
    EXPECT_EQ((Pieces{"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}),
              quorvan::utf8::tokenize("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_TRUE(quorvan::utf8::tokenize("").empty());
}

TEST(Utf8Tokenize, LeadByteAtTheEndIsDropped)
{
    EXPECT_EQ((Pieces{"a", "b"}), quorvan::utf8::tokenize("ab\xE2"));
    EXPECT_EQ((Pieces{"a", "b"}), quorvan::utf8::tokenize("ab\xE2\x82"));
    EXPECT_EQ((Pieces{"a"}), quorvan::utf8::tokenize("a\xF0\x9F\x98"));
}

TEST(Utf8Tokenize, BytesThatAreNoLeadAreSkipped)
{
    EXPECT_EQ((Pieces{"a", "b"}), quorvan::utf8::tokenize("\x80"
                                                          "a\xBF\xF8"
                                                          "b"));
}

TEST(Utf8Tokenize, ContinuationBytesAreNotChecked)
{
    EXPECT_EQ((Pieces{"\xC3"
                      "A",
                      "b"}),
              quorvan::utf8::tokenize("\xC3"
                                      "Ab"));
}

} // namespace
