#include "Common/Platform/Src/Time.h"

#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/Scheduler.h"

// The present time comes through the Scheduler so that a host scheduler can
// supply it; turning a given time into a calendar date needs no scheduler.

namespace quorvan {

int64_t UTCTime::Milliseconds()
{
    return GetScheduler()->UTCMilliseconds();
}

Date UTCTime::Now()
{
    return GetScheduler()->UTCNow();
}

Date UTCTime::ToDate(int64_t milliseconds)
{
    return platform::UTCToDate(milliseconds);
}

int64_t LocalTime::Milliseconds()
{
    return GetScheduler()->LocalMilliseconds();
}

Date LocalTime::Now()
{
    return GetScheduler()->LocalNow();
}

Date LocalTime::ToDate(int64_t milliseconds)
{
    return platform::LocalToDate(milliseconds);
}

int64_t Monotonic::Milliseconds()
{
    return GetScheduler()->MonotonicMilliseconds();
}

} // namespace quorvan
