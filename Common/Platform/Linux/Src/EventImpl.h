#pragma once

// Threads: any thread may Wait, Set and Reset at any time. m_signalled
// changes only under m_mutex.

#include "Common/Platform/Src/Scheduler.h"

#include <chrono>
#include <pthread.h>
#include <string>

namespace quorvan::platform {

// A Windows-style event over a POSIX mutex and condition variable. Set
// releases one waiter, also for a manual-reset event; an auto-reset event is
// cleared by the wait that sees it.
class Event : public Scheduler::Event
{
public:
    Event(bool manualReset, bool initiallySignalled);
    // The name is accepted for callers written against named events and
    // ignored: this platform has no named events.
    Event(bool manualReset, bool initiallySignalled, const std::wstring& name);
    ~Event() override;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // 0, below 0 and 0xFFFFFFFF all wait without limit; a zero time-out is
    // deliberately not a poll.
    bool Wait(std::chrono::milliseconds timeout) override;
    void Set() override;
    void Reset() override;

private:
    pthread_mutex_t m_mutex;
    pthread_cond_t m_condition;
    bool m_signalled;
    bool m_manualReset;
};

} // namespace quorvan::platform
