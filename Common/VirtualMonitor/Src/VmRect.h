#pragma once

// A rectangle in screen coordinates as the virtual monitor messages carry
// it: four signed 32-bit values in this order.

#include <cstdint>

namespace quorvan::velorane::virtualmonitor {

struct tVmRect
{
    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;
    int32_t height = 0;
};

inline bool operator==(const tVmRect& a, const tVmRect& b)
{
    return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
}

} // namespace quorvan::velorane::virtualmonitor
