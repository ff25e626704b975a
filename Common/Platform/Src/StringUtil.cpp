#include "Common/Platform/Src/StringUtil.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <locale>

namespace {

// Wide formatting can't measure its output, so it tries ever larger scratch
// buffers. Past this many elements the format is taken to be hopeless (a
// conversion the C library keeps refusing) rather than exhausting memory.
constexpr size_t kWideScratchFirst = 10;
constexpr size_t kWideScratchLimit = size_t{16} * 1024 * 1024;

bool FormatWide(std::wstring& out, const wchar_t* format, va_list args)
{
    if (format == nullptr) {
        return false;
    }
    try {
        std::wstring scratch(kWideScratchFirst, L'\0');
        for (;;) {
            va_list attempt;
            va_copy(attempt, args);
            errno = 0;
            const int written = std::vswprintf(&scratch[0], scratch.size(), format, attempt);
            va_end(attempt);
            if (written >= 0) {
                out.assign(scratch, 0, static_cast<size_t>(written));
                return true;
            }
            // An argument that can't be converted fails at every size.
            if (errno == EILSEQ || scratch.size() >= kWideScratchLimit) {
                return false;
            }
            scratch.assign(scratch.size() * 2, L'\0');
        }
    } catch (...) {
        return false;
    }
}

// Measures, allocates, then writes. False only when formatting failed
// part-way (no memory); a text that measures 0 or less is the empty string.
bool FormatNarrow(std::string& out, const char* format, va_list args)
{
    out.clear();
    if (format == nullptr) {
        return true;
    }
    // The list is walked twice, to measure and to write, so each walk gets
    // its own copy.
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length <= 0) {
        return true;
    }
    try {
        std::string buffer(static_cast<size_t>(length) + 1, '\0');
        va_list write;
        va_copy(write, args);
        const int written = std::vsnprintf(&buffer[0], buffer.size(), format, write);
        va_end(write);
        if (written != length) {
            return false;
        }
        buffer.resize(static_cast<size_t>(length));
        out.swap(buffer);
        return true;
    } catch (...) {
        return false;
    }
}

template <typename Text> Text ReplaceAll(const Text& str, const Text& from, const Text& to)
{
    Text result(str);
    if (from.empty() || from == to) {
        return result;
    }
    size_t pos = 0;
    while ((pos = result.find(from, pos)) != Text::npos) {
        result.replace(pos, from.size(), to);
        if (!to.empty()) {
            // Go on from the last element of the inserted text, so that it
            // can begin a further match with what follows. A match of one
            // element there would lie wholly inside the inserted text and
            // never end (replacing "a" by "aa"), so that one steps past.
            pos += to.size() - 1;
            if (from.size() == 1) {
                ++pos;
            }
        }
    }
    return result;
}

int HexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

} // namespace

namespace quorvan {
namespace utf8 {

std::string format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string result = formatV(format, args);
    va_end(args);
    return result;
}

std::string formatV(const char* format, va_list args)
{
    std::string result;
    FormatNarrow(result, format, args);
    return result;
}

std::string replace(const std::string& str, const std::string& from, const std::string& to)
{
    return ReplaceAll(str, from, to);
}

std::wstring widen(const std::string& str)
{
    const auto& facet = std::use_facet<std::ctype<wchar_t>>(std::locale());
    std::wstring out;
    out.reserve(str.size());
    for (const char c : str) {
        out += facet.widen(c);
    }
    return out;
}

std::vector<std::string> split(const std::string& str, char delimiter)
{
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start < str.size()) {
        const size_t found = str.find(delimiter, start);
        if (found == std::string::npos) {
            pieces.push_back(str.substr(start));
            break;
        }
        pieces.push_back(str.substr(start, found - start));
        start = found + 1;
    }
    return pieces;
}

std::vector<std::string> split(const std::string& str, char delimiter, bool keepTrailing)
{
    std::vector<std::string> pieces = split(str, delimiter);
    if (keepTrailing && !str.empty() && str.back() == delimiter) {
        pieces.emplace_back();
    }
    return pieces;
}

std::string join(const std::vector<std::string>& pieces, const std::string& delimiter)
{
    std::string result;
    if (pieces.empty()) {
        return result;
    }
    for (const std::string& piece : pieces) {
        result += piece;
        result += delimiter;
    }
    result.erase(result.size() - delimiter.size());
    return result;
}

std::string substr(const std::string& str, size_t count)
{
    size_t seen = 0;
    for (size_t i = 0; i < str.size(); ++i) {
        if ((static_cast<unsigned char>(str[i]) & 0xC0) != 0x80) {
            if (seen == count) {
                return str.substr(0, i);
            }
            ++seen;
        }
    }
    return str;
}

std::vector<std::string> tokenize(const std::string& str)
{
    std::vector<std::string> tokens;
    size_t i = 0;
    while (i < str.size()) {
        const auto lead = static_cast<unsigned char>(str[i]);
        size_t length = 0;
        if (lead < 0x80) {
            length = 1;
        } else if (lead >= 0xC0 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
        } else if (lead >= 0xF0 && lead <= 0xF7) {
            length = 4;
        } else {
            ++i;
            continue;
        }
        if (length > str.size() - i) {
            break;
        }
        tokens.push_back(str.substr(i, length));
        i += length;
    }
    return tokens;
}

} // namespace utf8

namespace utf16 {

std::wstring format(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    std::wstring result = formatV(format, args);
    va_end(args);
    return result;
}

std::wstring formatV(const wchar_t* format, va_list args)
{
    std::wstring result;
    if (!FormatWide(result, format, args)) {
        result.clear();
    }
    return result;
}

std::wstring replace(const std::wstring& str, const std::wstring& from, const std::wstring& to)
{
    return ReplaceAll(str, from, to);
}

std::string narrow(const std::wstring& str)
{
    const auto& facet = std::use_facet<std::ctype<wchar_t>>(std::locale());
    std::string out;
    out.reserve(str.size());
    for (const wchar_t c : str) {
        out += facet.narrow(c, '\0');
    }
    return out;
}

} // namespace utf16
} // namespace quorvan

void FormatString(std::wstring& out, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    FormatStringV(out, format, args);
    va_end(args);
}

void FormatStringV(std::wstring& out, const wchar_t* format, va_list args)
{
    std::wstring formatted;
    if (!FormatWide(formatted, format, args)) {
        formatted.clear();
    }
    out.swap(formatted);
}

void AppendFormat(std::wstring& out, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    std::wstring formatted;
    FormatWide(formatted, format, args);
    va_end(args);
    try {
        out += formatted;
    } catch (...) {
    }
}

void FormatStringA(std::string& out, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string formatted;
    // A failure leaves the caller's text as it was.
    if (FormatNarrow(formatted, format, args)) {
        out.swap(formatted);
    }
    va_end(args);
}

void ToUpper(std::wstring& str)
{
    // toupper is defined for unsigned char values only; nothing above that
    // range is changed.
    for (wchar_t& element : str) {
        if (element >= 0 && element <= 0xFF) {
            element = static_cast<wchar_t>(std::toupper(static_cast<int>(element)));
        }
    }
}

void ToLower(std::wstring& str)
{
    for (wchar_t& element : str) {
        if (element >= 0 && element <= 0xFF) {
            element = static_cast<wchar_t>(std::tolower(static_cast<int>(element)));
        }
    }
}

void ToUpperUTF8(std::string& str)
{
    for (char& c : str) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
}

void ToLowerUTF8(std::string& str)
{
    for (char& c : str) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
}

void TrimLeftInplace(std::string& str)
{
    size_t first = 0;
    while (first < str.size() && std::isspace(static_cast<unsigned char>(str[first]))) {
        ++first;
    }
    str.erase(0, first);
}

void TrimRightInplace(std::string& str)
{
    size_t length = str.size();
    while (length > 0 && std::isspace(static_cast<unsigned char>(str[length - 1]))) {
        --length;
    }
    str.erase(length);
}

void TrimInplace(std::string& str)
{
    TrimRightInplace(str);
    TrimLeftInplace(str);
}

void TrimLeftInplace(std::wstring& str, const std::wstring& chars)
{
    if (chars.empty()) {
        return;
    }
    const size_t first = str.find_first_not_of(chars);
    if (first == std::wstring::npos) {
        str.clear();
    } else {
        str.erase(0, first);
    }
}

void TrimRightInplace(std::wstring& str, const std::wstring& chars)
{
    if (chars.empty()) {
        return;
    }
    const size_t last = str.find_last_not_of(chars);
    if (last == std::wstring::npos) {
        str.clear();
    } else {
        str.erase(last + 1);
    }
}

void TrimInplace(std::wstring& str, const std::wstring& chars)
{
    TrimRightInplace(str, chars);
    TrimLeftInplace(str, chars);
}

std::vector<std::string> Split(const std::string& str, const std::string& separator)
{
    std::vector<std::string> pieces;
    if (separator.empty()) {
        pieces.push_back(str);
        return pieces;
    }
    size_t start = 0;
    size_t found = 0;
    while ((found = str.find(separator, start)) != std::string::npos) {
        pieces.push_back(str.substr(start, found - start));
        start = found + separator.size();
    }
    if (start < str.size() || pieces.empty()) {
        pieces.push_back(str.substr(start));
    }
    return pieces;
}

std::pair<std::string, std::string> Split2(const std::string& str, const std::string& separator)
{
    const size_t found = separator.empty() ? std::string::npos : str.find(separator);
    if (found == std::string::npos) {
        return {str, std::string()};
    }
    // The rest starts one character after the separator's start, whatever
    // its length.
    return {str.substr(0, found), str.substr(found + 1)};
}

std::string UrlDecode(const std::string& str)
{
    std::string out;
    out.reserve(str.size());
    for (size_t i = 0; i < str.size(); ++i) {
        const char c = str[i];
        if (c == '+') {
            out += ' ';
            continue;
        }
        if (c == '%' && i + 2 < str.size()) {
            const int high = HexValue(str[i + 1]);
            const int low = HexValue(str[i + 2]);
            if (high >= 0 && low >= 0) {
                out += static_cast<char>(high * 16 + low);
                i += 2;
                continue;
            }
        }
        out += c;
    }
    return out;
}
