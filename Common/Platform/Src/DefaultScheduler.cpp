#include "Common/Platform/Src/DefaultMonitor.h"
#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/UUID.h"

#include <cstdlib>
#include <unistd.h>

namespace quorvan {

void DefaultScheduler::Sleep(unsigned milliseconds)
{
    usleep(milliseconds * 1000);
}

Scheduler::Thread* DefaultScheduler::CreateThread(Runnable* runnable, long priority,
                                                  bool autoDelete)
{
    return platform::NewThread(runnable, priority, autoDelete);
}

unsigned long DefaultScheduler::GetCurrentThreadId()
{
    return platform::CurrentThreadId();
}

void DefaultScheduler::ExecuteBlocking(std::function<void()> work)
{
    // An empty function throws std::bad_function_call, as calling it should.
    work();
}

std::string DefaultScheduler::GetStackTrace()
{
    return platform::StackTrace(static_cast<unsigned>(GetCurrentThreadId()));
}

Scheduler::Mutex* DefaultScheduler::CreateMutex()
{
    return platform::NewMutex();
}

Scheduler::FastMutex* DefaultScheduler::CreateFastMutex()
{
    return platform::NewFastMutex();
}

Scheduler::Monitor* DefaultScheduler::CreateMonitor()
{
    return new DefaultMonitor();
}

Scheduler::Event* DefaultScheduler::CreateEvent(bool manualReset, bool initiallySignalled)
{
    return platform::NewEvent(manualReset, initiallySignalled);
}

int64_t DefaultScheduler::LocalMilliseconds()
{
    return platform::LocalMilliseconds();
}

Date DefaultScheduler::LocalNow()
{
    return platform::LocalNow();
}

int64_t DefaultScheduler::UTCMilliseconds()
{
    return platform::UTCMilliseconds();
}

Date DefaultScheduler::UTCNow()
{
    return platform::UTCNow();
}

int64_t DefaultScheduler::MonotonicMilliseconds()
{
    return platform::MonotonicMilliseconds();
}

RESULT DefaultScheduler::CreateTimerInstance(ITimer*& timer)
{
    return platform::CreateTimerInstance(timer);
}

// No caller in the relay; the value is what a host scheduler would replace.
int DefaultScheduler::GetDefaultConstant()
{
    return 4;
}

UUID DefaultScheduler::GenerateUuid()
{
    return platform::GenerateUuid();
}

// No caller in the relay either.
int DefaultScheduler::GetDefaultFlag()
{
    return 0;
}

void DefaultScheduler::Abort()
{
    abort();
}

} // namespace quorvan
