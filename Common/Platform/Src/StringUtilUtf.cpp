// The UTF-8 and UTF-16 conversions and checks of StringUtil: strict and
// lenient conversion both ways, legality of UTF-8 sequences, surrogates.

#include "Common/Platform/Src/StringUtil.h"

#include <cstdint>

namespace {

constexpr uint32_t kReplacementCharacter = 0xFFFD;
constexpr uint32_t kHighSurrogateFirst = 0xD800;
constexpr uint32_t kHighSurrogateLast = 0xDBFF;
constexpr uint32_t kLowSurrogateFirst = 0xDC00;
constexpr uint32_t kLowSurrogateLast = 0xDFFF;
constexpr uint32_t kLastBmp = 0xFFFF;
constexpr uint32_t kLastCodePoint = 0x10FFFF;

bool IsSurrogate(uint32_t unit)
{
    return unit >= kHighSurrogateFirst && unit <= kLowSurrogateLast;
}

// Trail bytes announced by a lead byte; 0xF8 and above announce 4 or 5,
// which no legal sequence has.
int TrailingBytes(unsigned char lead)
{
    if (lead < 0xC0) {
        return 0;
    }
    if (lead < 0xE0) {
        return 1;
    }
    if (lead < 0xF0) {
        return 2;
    }
    if (lead < 0xF8) {
        return 3;
    }
    if (lead < 0xFC) {
        return 4;
    }
    return 5;
}

// What the lead byte and its trail bytes add up to before the marker bits
// are taken off, indexed by the number of trail bytes.
constexpr uint32_t kOffsetsFromUtf8[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                          0x03C82080u, 0xFA082080u, 0x82082080u};

void AppendUtf8(std::string& out, uint32_t ch)
{
    if (ch < 0x80) {
        out += static_cast<char>(ch);
    } else if (ch < 0x800) {
        out += static_cast<char>(0xC0 | (ch >> 6));
        out += static_cast<char>(0x80 | (ch & 0x3F));
    } else if (ch < 0x10000) {
        out += static_cast<char>(0xE0 | (ch >> 12));
        out += static_cast<char>(0x80 | ((ch >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (ch & 0x3F));
    } else if (ch <= kLastCodePoint) {
        out += static_cast<char>(0xF0 | (ch >> 18));
        out += static_cast<char>(0x80 | ((ch >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((ch >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (ch & 0x3F));
    } else {
        AppendUtf8(out, kReplacementCharacter);
    }
}

void AppendUtf16(std::wstring& out, uint32_t ch)
{
    if (ch > kLastBmp) {
        ch -= 0x10000;
        out += static_cast<wchar_t>(kHighSurrogateFirst + (ch >> 10));
        out += static_cast<wchar_t>(kLowSurrogateFirst + (ch & 0x3FF));
    } else {
        out += static_cast<wchar_t>(ch);
    }
}

// A wide element as the UTF-16 unit it carries. wchar_t is signed here, so
// a negative element must not turn into a small code point.
uint32_t Unit(wchar_t element)
{
    return static_cast<uint32_t>(element);
}

} // namespace

namespace quorvan {
namespace utf8 {

bool Utf8StringContainsSurrogateCharacters(const std::string& str)
{
    std::wstring wide;
    Convert8toUTF16_Method2(str, wide);
    for (const wchar_t element : wide) {
        if (IsSurrogate(Unit(element))) {
            return true;
        }
    }
    return false;
}

} // namespace utf8
} // namespace quorvan

bool Convert16toUTF8(const std::wstring& in, std::string& out, bool lenient)
{
    out.clear();
    size_t i = 0;
    while (i < in.size()) {
        uint32_t ch = Unit(in[i]);
        ++i;
        if (ch >= kHighSurrogateFirst && ch <= kHighSurrogateLast) {
            const bool paired = i < in.size() && Unit(in[i]) >= kLowSurrogateFirst &&
                                Unit(in[i]) <= kLowSurrogateLast;
            if (paired) {
                ch = ((ch - kHighSurrogateFirst) << 10) + (Unit(in[i]) - kLowSurrogateFirst) +
                     0x10000;
                ++i;
            } else if (!lenient) {
                return false;
            }
        } else if (ch >= kLowSurrogateFirst && ch <= kLowSurrogateLast && !lenient) {
            return false;
        }
        AppendUtf8(out, ch);
    }
    return true;
}

bool Convert8toUTF16(const std::string& in, std::wstring& out, bool lenient)
{
    out.clear();
    const auto* source = reinterpret_cast<const unsigned char*>(in.data());
    const unsigned char* const end = source + in.size();
    while (source < end) {
        const int extra = TrailingBytes(*source);
        if (extra >= end - source) {
            return false;
        }
        if (!IsLegalUTF8(source, extra + 1)) {
            return false;
        }
        uint32_t ch = 0;
        for (int k = 0; k < extra; ++k) {
            ch += *source++;
            ch <<= 6;
        }
        ch += *source++;
        ch -= kOffsetsFromUtf8[extra];

        if (ch <= kLastBmp) {
            if (IsSurrogate(ch) && !lenient) {
                return false;
            }
            out += static_cast<wchar_t>(ch);
        } else if (ch > kLastCodePoint) {
            if (!lenient) {
                return false;
            }
            out += static_cast<wchar_t>(kReplacementCharacter);
        } else {
            AppendUtf16(out, ch);
        }
    }
    return true;
}

bool Convert8toUTF16_Method2(const std::string& in, std::wstring& out)
{
    out.clear();
    uint32_t codePoint = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        const auto ch = static_cast<unsigned char>(in[i]);
        if (ch <= 0x7F) {
            codePoint = ch;
        } else if (ch <= 0xBF) {
            codePoint = (codePoint << 6) | (ch & 0x3Fu);
        } else if (ch <= 0xDF) {
            codePoint = ch & 0x1Fu;
        } else if (ch <= 0xEF) {
            codePoint = ch & 0x0Fu;
        } else {
            codePoint = ch & 0x07u;
        }
        const bool continues =
            i + 1 < in.size() && (static_cast<unsigned char>(in[i + 1]) & 0xC0) == 0x80;
        if (continues || codePoint > kLastCodePoint) {
            continue;
        }
        if (codePoint > kLastBmp) {
            AppendUtf16(out, codePoint);
        } else if (!IsSurrogate(codePoint)) {
            out += static_cast<wchar_t>(codePoint);
        }
    }
    return true;
}

bool IsLegalUTF8(const unsigned char* source, int length)
{
    if (source == nullptr || length < 1 || length > 4) {
        return false;
    }
    const unsigned char* cursor = source + length;
    unsigned char trail = 0;
    // Checked from the last byte back; every case falls through to the
    // checks of the shorter lengths.
    switch (length) {
    case 4:
        trail = *--cursor;
        if (trail < 0x80 || trail > 0xBF) {
            return false;
        }
        [[fallthrough]];
    case 3:
        trail = *--cursor;
        if (trail < 0x80 || trail > 0xBF) {
            return false;
        }
        [[fallthrough]];
    case 2:
        trail = *--cursor;
        if (trail > 0xBF) {
            return false;
        }
        // The second byte is narrowed after the leads that could otherwise
        // spell an overlong form or a code point past U+10FFFF.
        switch (*source) {
        case 0xE0:
            if (trail < 0xA0) {
                return false;
            }
            break;
        case 0xF0:
            if (trail < 0x90) {
                return false;
            }
            break;
        case 0xF4:
            if (trail > 0x8F) {
                return false;
            }
            break;
        default:
            if (trail < 0x80) {
                return false;
            }
        }
        [[fallthrough]];
    case 1:
        if (*source >= 0x80 && *source < 0xC2) {
            return false;
        }
        break;
    default:
        return false;
    }
    return *source <= 0xF4;
}

bool IsLegalUTF8Sequence(const unsigned char* start, const unsigned char* end)
{
    if (start == nullptr || end == nullptr || start >= end) {
        return false;
    }
    const int length = TrailingBytes(*start) + 1;
    if (length > end - start) {
        return false;
    }
    return IsLegalUTF8(start, length);
}
