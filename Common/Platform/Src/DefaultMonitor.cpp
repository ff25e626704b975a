#include "Common/Platform/Src/DefaultMonitor.h"

#include <algorithm>

namespace quorvan {

namespace {

// Longer waits are cut to this so that the steady-clock arithmetic inside
// wait_for cannot overflow; a century is "no limit" for anyone.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365 * 100);

} // namespace

uint32_t DefaultMonitor::CallerId()
{
    Scheduler* scheduler = GetScheduler();
    const auto id = static_cast<uint32_t>(scheduler->GetCurrentThreadId());
    if (id == 0) {
        scheduler->Abort();
    }
    return id;
}

RESULT DefaultMonitor::Lock()
{
    const uint32_t id = CallerId();
    if (id == 0) {
        // Only reached under a scheduler whose Abort returns.
        return ResultGeneralFailure;
    }
    if (id == m_owner.load()) {
        m_lockCount.fetch_add(1);
        return Success;
    }
    m_mutex.lock();
    m_owner.store(id);
    m_lockCount.store(1);
    return Success;
}

RESULT DefaultMonitor::Unlock()
{
    const uint32_t id = CallerId();
    if (id == 0 || id != m_owner.load()) {
        return ResultGeneralFailure;
    }
    if (m_lockCount.fetch_sub(1) - 1 == 0) {
        m_owner.store(0);
        m_mutex.unlock();
    }
    return Success;
}

RESULT DefaultMonitor::LockWithCount(int count)
{
    const RESULT result = Lock();
    if (Failed(result)) {
        return result;
    }
    m_lockCount.store(static_cast<uint32_t>(count));
    return Success;
}

RESULT DefaultMonitor::UnlockAll(int* count)
{
    const uint32_t id = CallerId();
    if (id == 0 || id != m_owner.load()) {
        return ResultGeneralFailure;
    }
    const uint32_t depth = m_lockCount.load();
    if (count) {
        *count = static_cast<int>(depth);
    }
    m_owner.store(0);
    m_lockCount.store(0);
    m_mutex.unlock();
    return Success;
}

RESULT DefaultMonitor::Wait(std::chrono::milliseconds timeout)
{
    const uint32_t id = CallerId();
    if (id == 0 || id != m_owner.load()) {
        return ResultGeneralFailure;
    }
    const uint32_t depth = m_lockCount.load();
    m_owner.store(0);
    m_lockCount.store(0);

    // The wait goes through the scheduler so that a host scheduler can wrap
    // blocking calls; the mutex stays ours across it.
    GetScheduler()->ExecuteBlocking([this, timeout] {
        std::unique_lock<std::mutex> lock(m_mutex, std::adopt_lock);
        if (timeout.count() >= 1) {
            m_condition.wait_for(lock, std::min(timeout, kLongestWait));
        }
        lock.release();
    });

    m_owner.store(id);
    m_lockCount.store(depth);
    return Success;
}

RESULT DefaultMonitor::Notify()
{
    if (CallerId() == 0) {
        return ResultGeneralFailure;
    }
    m_condition.notify_all();
    return Success;
}

} // namespace quorvan
