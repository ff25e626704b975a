#include "Common/Platform/Src/Platform.h"

#include <ctime>
#include <sys/time.h>

// Clocks of the Linux provider. Free of shared state: any thread may call.

namespace quorvan::platform {

namespace {

constexpr int64_t MillisecondsPerSecond = 1000;

// Wall-clock milliseconds rounded to the nearest one, in double precision.
int64_t WallClockMilliseconds()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(static_cast<double>(now.tv_sec) * 1000.0 +
                                static_cast<double>(now.tv_usec) / 1000.0 + 0.5);
}

timespec MonotonicNow()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// The remainder keeps the sign of the time, as does the whole-second part.
Date ToDate(int64_t milliseconds, bool local)
{
    Date date;
    date.millisecond = static_cast<int32_t>(milliseconds % MillisecondsPerSecond);
    const time_t seconds = static_cast<time_t>(milliseconds / MillisecondsPerSecond);
    tm calendar{};
    const tm* converted = local ? localtime_r(&seconds, &calendar) : gmtime_r(&seconds, &calendar);
    if (!converted) {
        // Beyond what the C library can express: no calendar fields.
        return date;
    }
    date.year = calendar.tm_year + 1900;
    date.month = calendar.tm_mon + 1;
    date.day = calendar.tm_mday;
    date.hour = calendar.tm_hour;
    date.minute = calendar.tm_min;
    date.second = calendar.tm_sec;
    return date;
}

} // namespace

int64_t UTCMilliseconds()
{
    return WallClockMilliseconds();
}

// Converting to local calendar time and back gives the same instant, so the
// local stamp is the wall-clock one.
int64_t LocalMilliseconds()
{
    return WallClockMilliseconds();
}

int64_t MonotonicMilliseconds()
{
    const timespec now = MonotonicNow();
    return static_cast<int64_t>(now.tv_sec) * MillisecondsPerSecond + now.tv_nsec / 1000000;
}

int64_t MonotonicNanoseconds()
{
    const timespec now = MonotonicNow();
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

Date UTCNow()
{
    return ToDate(WallClockMilliseconds(), false);
}

Date LocalNow()
{
    return ToDate(WallClockMilliseconds(), true);
}

Date UTCToDate(int64_t milliseconds)
{
    return ToDate(milliseconds, false);
}

Date LocalToDate(int64_t milliseconds)
{
    return ToDate(milliseconds, true);
}

unsigned long GetTickCount()
{
    return 0;
}

} // namespace quorvan::platform
