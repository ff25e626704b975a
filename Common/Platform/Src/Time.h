#pragma once

#include "Common/Platform/Src/Date.h"

#include <cstdint>

namespace quorvan {

// Clock accessors of the common code; they go through the Scheduler. They
// keep no state, so any thread may call them.
struct UTCTime
{
    static int64_t Milliseconds();
    static Date Now();
    static Date ToDate(int64_t milliseconds);
};

struct LocalTime
{
    // Same number as UTCTime::Milliseconds; used as a time stamp only.
    static int64_t Milliseconds();
    static Date Now();
    static Date ToDate(int64_t milliseconds);
};

struct Monotonic
{
    static int64_t Milliseconds();
};

} // namespace quorvan
