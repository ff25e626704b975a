#pragma once

#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Timer.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

namespace quorvan::platform {

// A repeating timer on a thread of its own: first OnTimer after initialDelay,
// then every period, until destruction.
//
// Threads: the owner calls Initialize and the destructor; OnTimer runs on the
// timer thread, which touches only the shared TimerSource and the callback,
// never this object, so the owner may destroy the timer from inside OnTimer.
// Ticks missed while OnTimer ran long are merged into one.
class TimerImpl : public virtual ITimer, public IRefCountImpl
{
public:
    TimerImpl() = default;
    // Cancels the timer and waits until the timer thread has seen it; after
    // that no OnTimer runs, unless the timer is destroyed from its own
    // OnTimer, which then finishes alone.
    ~TimerImpl() override;
    TimerImpl(const TimerImpl&) = delete;
    TimerImpl& operator=(const TimerImpl&) = delete;

    RESULT Initialize(int64_t periodMs, ITimerCallback* callback, int64_t initialDelayMs) override;

    // What the owner and the timer thread share; lives as long as either.
    struct TimerSource
    {
        std::mutex mutex;
        std::condition_variable wake;
        bool cancelled = false;
        bool finished = false;
        std::thread thread;
    };

private:
    bool IsFinished() const;

    bool m_initialized = false;
    std::shared_ptr<TimerSource> m_source;
    ITimerCallback* m_callback = nullptr;
};

} // namespace quorvan::platform
