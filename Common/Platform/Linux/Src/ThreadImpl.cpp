#include "Common/Platform/Linux/Src/ThreadImpl.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Platform.h"

#include <chrono>
#include <sched.h>

namespace quorvan::platform {

namespace {

constexpr std::chrono::milliseconds kNoLimit{0xFFFFFFFF};
// How long a finished auto-delete thread waits for ThreadStart to let go of
// the object.
constexpr std::chrono::milliseconds kStartConfirmWait{5000};

// SCHED_OTHER knows no priorities besides 0 on Linux, so other values fail
// here; that failure is harmless and ignored.
void ApplyPriority(pthread_t handle, int priority)
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    pthread_setschedparam(handle, SCHED_OTHER, &parameters);
}

} // namespace

Thread::Thread(Scheduler::Runnable* runnable, long priority, bool autoDelete)
    : m_runnable(runnable), m_triggerEvent(GetScheduler()->CreateEvent(false, false)),
      m_startedEvent(GetScheduler()->CreateEvent(false, false)),
      m_stoppedEvent(GetScheduler()->CreateEvent(false, false)),
      m_startConfirmedEvent(GetScheduler()->CreateEvent(false, false)),
      m_priority(static_cast<int>(priority)), m_autoDelete(autoDelete)
{
}

Thread::~Thread()
{
    ThreadQuit();
    delete m_triggerEvent;
    delete m_startedEvent;
    delete m_stoppedEvent;
    delete m_startConfirmedEvent;
}

void Thread::ThreadStart(unsigned long timeoutMs)
{
    if (m_running.load()) {
        return;
    }
    m_quitRequested.store(false);
    m_internalQuit.store(false);

    // A thread that ended itself through InternalQuit was never joined; do it
    // now so that its handle is not lost when the new one is stored.
    if (const pthread_t previous = m_handle.exchange(0); previous != 0) {
        if (m_autoDelete) {
            pthread_detach(previous);
        } else {
            pthread_join(previous, nullptr);
        }
    }

    // Marked running before the thread exists, so that a thread which ends at
    // once cannot have its "stopped" overwritten.
    m_running.store(true);
    pthread_t handle = 0;
    const int rc = pthread_create(&handle, nullptr, &Thread::_FuncStatic, this);
    if (rc != 0) {
        m_running.store(false);
        VLOG(EGroupValueSevere, "Unable to create thread");
        return;
    }
    m_handle.store(handle);

    if (m_priority >= 0) {
        ApplyPriority(handle, m_priority);
    }
    // A time-out is not an error: the thread is started either way.
    m_startedEvent->Wait(std::chrono::milliseconds(timeoutMs));
    // With autoDelete the object may be gone as soon as this returns.
    m_startConfirmedEvent->Set();
}

void* Thread::_FuncStatic(void* argument)
{
    static_cast<Thread*>(argument)->Loop();
    return nullptr;
}

void Thread::Loop()
{
    m_threadId.store(static_cast<uint32_t>(GetCurrentThreadId()));
    const bool autoDelete = m_autoDelete;

    m_runnable->ThreadEnter();
    m_startedEvent->Set();

    while (!m_quitRequested.load()) {
        if (m_runnable->Run() && !m_quitRequested.load()) {
            m_triggerEvent->Reset();
            continue;
        }
        if (!m_internalQuit.load() && !m_quitRequested.load()) {
            m_triggerEvent->Wait(kNoLimit);
        }
    }

    m_runnable->ThreadExit();
    m_stoppedEvent->Set();
    m_running.store(false);

    if (autoDelete) {
        m_startConfirmedEvent->Wait(kStartConfirmWait);
        delete this;
    }
}

void Thread::ThreadQuit()
{
    m_quitRequested.store(true);
    if (m_running.load()) {
        m_triggerEvent->Set();
        if (m_running.load()) {
            m_stoppedEvent->Wait(kNoLimit);
        }
    }
    if (const pthread_t handle = m_handle.exchange(0); handle != 0) {
        const int rc = m_autoDelete ? pthread_detach(handle) : pthread_join(handle, nullptr);
        if (rc != 0) {
            VLOG(EGroupValueSevere, "pthread_join or pthread_detach failed: %d", rc);
        }
    }
}

void Thread::ThreadTrigger()
{
    if (m_running.load()) {
        m_triggerEvent->Set();
    }
}

void Thread::ThreadPriority(long priority)
{
    if (priority < 0 || !m_running.load()) {
        return;
    }
    m_priority = static_cast<int>(priority);
    // The handle is still 0 while ThreadStart is creating the thread.
    if (const pthread_t handle = m_handle.load(); handle != 0) {
        ApplyPriority(handle, m_priority);
    }
}

void Thread::GetThreadInfo(unsigned long long& threadId, unsigned long long& cpuTime,
                           std::string* trace)
{
    threadId = m_threadId.load();
    cpuTime = 0;
    if (trace) {
        *trace = "trace not available";
    }
}

void Thread::InternalQuit()
{
    m_quitRequested.store(true);
    m_internalQuit.store(true);
}

unsigned long Thread::GetCurrentThreadId()
{
    return static_cast<unsigned long>(pthread_self());
}

std::string Thread::GetStackTrace(unsigned /*threadId*/)
{
    return "stack trace not yet implemented";
}

void InstallSignalHandlers() {}

} // namespace quorvan::platform
