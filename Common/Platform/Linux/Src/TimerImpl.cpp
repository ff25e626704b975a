#include "Common/Platform/Linux/Src/TimerImpl.h"

#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/Scheduler.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace quorvan::platform {

namespace {

using Clock = std::chrono::steady_clock;

// Longer durations are as good as never and would overflow the clock.
constexpr int64_t LongestDurationMs = 100LL * 365 * 24 * 3600 * 1000;

Clock::duration ClampedDuration(int64_t milliseconds)
{
    return std::chrono::milliseconds(std::clamp<int64_t>(milliseconds, 0, LongestDurationMs));
}

// The body of the timer thread. A period of 0 or less fires once.
void RunTimer(const std::shared_ptr<TimerImpl::TimerSource>& source,
              ITimer::ITimerCallback* callback, int64_t periodMs, int64_t initialDelayMs)
{
    const bool repeating = periodMs > 0;
    const Clock::duration period = ClampedDuration(periodMs);
    Clock::time_point next = Clock::now() + ClampedDuration(initialDelayMs);

    std::unique_lock<std::mutex> lock(source->mutex);
    while (!source->wake.wait_until(lock, next, [&source] { return source->cancelled; })) {
        lock.unlock();
        callback->OnTimer();
        lock.lock();
        if (!repeating) {
            break;
        }
        next += period;
        const Clock::time_point now = Clock::now();
        if (next < now) {
            // Keep the rhythm; the ticks missed meanwhile become one, at once.
            next += ((now - next) / period) * period;
        }
    }
    source->finished = true;
}

} // namespace

TimerImpl::~TimerImpl()
{
    if (!m_source) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_source->mutex);
        m_source->cancelled = true;
    }
    m_source->wake.notify_all();

    if (m_source->thread.get_id() == std::this_thread::get_id()) {
        // Destroyed from its own OnTimer: the thread ends by itself once the
        // callback returns, holding its share of the source.
        m_source->thread.detach();
        return;
    }
    while (!IsFinished()) {
        GetScheduler()->Sleep(5);
    }
    m_source->thread.join();
}

bool TimerImpl::IsFinished() const
{
    std::lock_guard<std::mutex> lock(m_source->mutex);
    return m_source->finished;
}

RESULT TimerImpl::Initialize(int64_t periodMs, ITimerCallback* callback, int64_t initialDelayMs)
{
    if (m_initialized) {
        return ResultAlreadyInitialized;
    }
    if (!callback) {
        return ResultInvalidArgument;
    }
    m_callback = callback;

    auto source = std::make_shared<TimerSource>();
    // Held while the thread starts, so that the thread, whose first step is to
    // take the lock, sees everything written here.
    std::lock_guard<std::mutex> lock(source->mutex);
    try {
        source->thread = std::thread(RunTimer, source, callback, periodMs, initialDelayMs);
    } catch (const std::system_error&) {
        return ResultGeneralFailure;
    }
    m_source = std::move(source);
    m_initialized = true;
    return Success;
}

RESULT CreateTimerInstance(ITimer*& timer)
{
    timer = new TimerImpl();
    return Success;
}

} // namespace quorvan::platform
