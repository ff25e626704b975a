#pragma once

#include <cstdint>

namespace quorvan {

// A calendar record as the clocks hand it out: full year, month 1 to 12,
// day 1 to 31, then the time of day down to the millisecond.
struct Date
{
    int32_t year = 0;
    int32_t month = 0;
    int32_t day = 0;
    int32_t hour = 0;
    int32_t minute = 0;
    int32_t second = 0;
    int32_t millisecond = 0;
};

} // namespace quorvan
