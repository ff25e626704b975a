#include "Common/Platform/Src/StringUtil.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(StringCase, ToUpperUTF8ChangesOnlySingleByteLetters)
{
    std::string text = "abc-\xC3\xA9-xyz09";
    ToUpperUTF8(text);
    EXPECT_EQ("ABC-\xC3\xA9-XYZ09", text);
}

TEST(StringCase, ToLowerUTF8ChangesOnlySingleByteLetters)
{
    std::string text = "ABC-\xC3\x89-XYZ09";
    ToLowerUTF8(text);
    EXPECT_EQ("abc-\xC3\x89-xyz09", text);
}

TEST(StringCase, MultiByteCharacterIsNotTreatedAsOne)
{
    // U+0101 (latin small a with macron) and U+1F600 stay as they are.
    std::string text = "\xC4\x81\xF0\x9F\x98\x80q";
    ToUpperUTF8(text);
    EXPECT_EQ("\xC4\x81\xF0\x9F\x98\x80Q", text);
}

TEST(StringCase, WideToUpperChangesElementsToupperChanges)
{
    std::wstring text = {
        L'a', L'z', wchar_t(0x00E9), wchar_t(0x0101), wchar_t(0xD83D), wchar_t(0xDE00), L'1'};
    ToUpper(text);
    EXPECT_EQ((std::wstring{L'A', L'Z', wchar_t(0x00E9), wchar_t(0x0101), wchar_t(0xD83D),
                            wchar_t(0xDE00), L'1'}),
              text);
}

TEST(StringCase, WideToLowerChangesElementsTolowerChanges)
{
    std::wstring text = {L'A', L'Z', wchar_t(0x00C9), wchar_t(0x0100), L'!'};
    ToLower(text);
    EXPECT_EQ((std::wstring{L'a', L'z', wchar_t(0x00C9), wchar_t(0x0100), L'!'}), text);
}

TEST(StringTrim, TrimLeftRemovesLeadingSpace)
{
    std::string text = " \t\n a b \r\n";
    TrimLeftInplace(text);
    EXPECT_EQ("a b \r\n", text);
}

TEST(StringTrim, TrimRightRemovesTrailingSpace)
{
    std::string text = " \t a b \v\f\r\n";
    TrimRightInplace(text);
    EXPECT_EQ(" \t a b", text);
}

TEST(StringTrim, TrimRemovesBothEnds)
{
    std::string text = "  a  b  ";
    TrimInplace(text);
    EXPECT_EQ("a  b", text);
}

TEST(StringTrim, AllSpaceAndEmptyBecomeEmpty)
{
    std::string spaces = " \t\n ";
    TrimInplace(spaces);
    EXPECT_EQ("", spaces);
    std::string left = "   ";
    TrimLeftInplace(left);
    EXPECT_EQ("", left);
    std::string right = "   ";
    TrimRightInplace(right);
    EXPECT_EQ("", right);
    std::string empty;
    TrimInplace(empty);
    EXPECT_EQ("", empty);
}

TEST(StringTrim, WideTrimLeftRemovesAnyOfChars)
{
    std::wstring text = L"xyxabxyx";
    TrimLeftInplace(text, L"xy");
    EXPECT_EQ(L"abxyx", text);
}

TEST(StringTrim, WideTrimRightRemovesAnyOfChars)
{
    std::wstring text = L"xyxabxyx";
    TrimRightInplace(text, L"xy");
    EXPECT_EQ(L"xyxab", text);
}

TEST(StringTrim, WideTrimRemovesBothEnds)
{
    std::wstring text = L"..,a.b,..";
    TrimInplace(text, L".,");
    EXPECT_EQ(L"a.b", text);
}

TEST(StringTrim, WideTrimWithEmptyCharsRemovesNothing)
{
    std::wstring text = L"  a  ";
    TrimInplace(text, L"");
    EXPECT_EQ(L"  a  ", text);
    TrimLeftInplace(text, L"");
    EXPECT_EQ(L"  a  ", text);
    TrimRightInplace(text, L"");
    EXPECT_EQ(L"  a  ", text);
}

TEST(StringTrim, WideTrimOfOnlyCharsBecomesEmpty)
{
    std::wstring both = L"xyyx";
    TrimInplace(both, L"xy");
    EXPECT_EQ(L"", both);
    std::wstring left = L"xx";
    TrimLeftInplace(left, L"x");
    EXPECT_EQ(L"", left);
    std::wstring right = L"xx";
    TrimRightInplace(right, L"x");
    EXPECT_EQ(L"", right);
}

} // namespace
