#include "Common/Platform/Src/StringUtil.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

namespace {

std::string CallFormatV(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string result = quorvan::utf8::formatV(format, args);
    va_end(args);
    return result;
}

// Hands the same list to formatV twice: formatV walks only copies of it.
std::string CallFormatVTwice(std::string* first, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    *first = quorvan::utf8::formatV(format, args);
    std::string second = quorvan::utf8::formatV(format, args);
    va_end(args);
    return second;
}

std::wstring CallWideFormatV(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    std::wstring result = quorvan::utf16::formatV(format, args);
    va_end(args);
    return result;
}

void CallFormatStringV(std::wstring& out, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    FormatStringV(out, format, args);
    va_end(args);
}

TEST(Utf8Format, FormatsLikePrintf)
{
    EXPECT_EQ("42-abc-003.1-ff", quorvan::utf8::format("%d-%s-%05.1f-%x", 42, "abc", 3.14159, 255));
}

TEST(Utf8Format, OutputOfAnyLength)
{
    const std::string longText(100000, 'x');
    const std::string result = quorvan::utf8::format("<%s>", longText.c_str());
    EXPECT_EQ("<" + longText + ">", result);
}

TEST(Utf8Format, ZeroLengthGivesEmptyString)
{
    EXPECT_EQ("", quorvan::utf8::format("%s", ""));
}

TEST(Utf8Format, NullFormatGivesEmptyString)
{
    EXPECT_EQ("", CallFormatV(nullptr));
}

TEST(Utf8Format, FormatVFormatsTheList)
{
    EXPECT_EQ("7 of 9", CallFormatV("%d of %u", 7, 9u));
}

TEST(Utf8Format, FormatVLeavesTheCallersListUnwalked)
{
    std::string first;
    const std::string second = CallFormatVTwice(&first, "%s=%d", "key", 12);
    EXPECT_EQ("key=12", first);
    EXPECT_EQ("key=12", second);
}

TEST(FormatStringA, ReplacesTheContentOfTheString)
{
    std::string out = "previous";
    FormatStringA(out, "%s:%03d", "id", 5);
    EXPECT_EQ("id:005", out);
}

TEST(FormatStringA, ZeroLengthEmptiesTheString)
{
    std::string out = "previous";
    FormatStringA(out, "%s", "");
    EXPECT_EQ("", out);
}

TEST(Utf16Format, FormatsWideText)
{
    EXPECT_EQ(L"7:ab:x", quorvan::utf16::format(L"%d:%ls:%c", 7, L"ab", 'x'));
}

TEST(Utf16Format, GrowsPastTheFirstScratchBuffer)
{
    const std::wstring longText(5000, L'w');
    EXPECT_EQ(L"[" + longText + L"]", quorvan::utf16::format(L"[%ls]", longText.c_str()));
    // Exactly ten elements need an eleventh for the terminator.
    EXPECT_EQ(L"0123456789", quorvan::utf16::format(L"%ls", L"0123456789"));
}

TEST(Utf16Format, FormatVFormatsTheList)
{
    EXPECT_EQ(L"3-4", CallWideFormatV(L"%d-%d", 3, 4));
}

TEST(Utf16Format, EmptyResultIsEmptyString)
{
    EXPECT_EQ(L"", quorvan::utf16::format(L"%ls", L""));
}

TEST(Utf16Format, FailureGivesEmptyString)
{
    // A byte that is no character in the C locale can't be widened.
    EXPECT_EQ(L"", quorvan::utf16::format(L"abc%s", "\xFF"));
    EXPECT_EQ(L"", CallWideFormatV(nullptr));
}

TEST(FormatString, AssignsTheFormattedText)
{
    std::wstring out = L"previous";
    FormatString(out, L"%ls/%d", L"dir", 2);
    EXPECT_EQ(L"dir/2", out);
}

TEST(FormatString, FailureAssignsTheEmptyString)
{
    std::wstring out = L"previous";
    FormatString(out, L"%s", "\xFF");
    EXPECT_EQ(L"", out);
}

TEST(FormatString, FormatStringVAssignsTheFormattedText)
{
    std::wstring out = L"previous";
    CallFormatStringV(out, L"%x", 0xABC);
    EXPECT_EQ(L"abc", out);
}

TEST(FormatString, AppendFormatAppends)
{
    std::wstring out = L"head ";
    AppendFormat(out, L"%d", 1);
    AppendFormat(out, L"+%ls", L"tail");
    EXPECT_EQ(L"head 1+tail", out);
}

TEST(FormatString, AppendFormatFailureAppendsNothing)
{
    std::wstring out = L"head";
    AppendFormat(out, L"%s", "\xFF");
    EXPECT_EQ(L"head", out);
}

} // namespace
