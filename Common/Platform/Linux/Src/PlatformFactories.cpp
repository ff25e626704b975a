// The Linux objects behind the Scheduler's factories.

#include "Common/Platform/Linux/Src/EventImpl.h"
#include "Common/Platform/Linux/Src/MutexImpl.h"
#include "Common/Platform/Linux/Src/ThreadImpl.h"
#include "Common/Platform/Src/Platform.h"

namespace quorvan::platform {

Scheduler::Thread* NewThread(Scheduler::Runnable* runnable, long priority, bool autoDelete)
{
    return new Thread(runnable, priority, autoDelete);
}

Scheduler::Mutex* NewMutex() { return new Mutex(); }

Scheduler::FastMutex* NewFastMutex() { return new Mutex(); }

Scheduler::Event* NewEvent(bool manualReset, bool initiallySignalled)
{
    return new Event(manualReset, initiallySignalled);
}

unsigned long CurrentThreadId() { return Thread::GetCurrentThreadId(); }

std::string StackTrace(unsigned threadId) { return Thread::GetStackTrace(threadId); }

} // namespace quorvan::platform
