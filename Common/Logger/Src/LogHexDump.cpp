#include "Common/Logger/Src/LogHexDump.h"

#include <cctype>

namespace quorvan {

std::string logHexDump(const void* data, unsigned size)
{
    static const char kDigits[] = "0123456789abcdef";
    constexpr unsigned kMaxBytes = 160;
    constexpr unsigned kPerLine = 16;

    std::string out;
    if (size > kMaxBytes) {
        out = "truncated for size\n";
        size = kMaxBytes;
    }
    if (!data) {
        return out;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (unsigned start = 0; start < size; start += kPerLine) {
        const unsigned count = size - start < kPerLine ? size - start : kPerLine;
        for (unsigned i = 0; i < count; ++i) {
            out += kDigits[bytes[start + i] >> 4];
            out += kDigits[bytes[start + i] & 0x0f];
            out += ' ';
        }
        out.append(3 * (kPerLine - count), ' ');
        for (unsigned i = 0; i < count; ++i) {
            const unsigned char c = bytes[start + i];
            out += std::isprint(c) ? static_cast<char>(c) : ' ';
        }
        out += '\n';
    }
    return out;
}

} // namespace quorvan
