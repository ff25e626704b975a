#pragma once

// Threads: any. m_owner and m_lockCount are written only by the thread that
// holds m_mutex, but every caller reads m_owner to learn whether it is the
// owner, so both are atomic.

#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/Scheduler.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace quorvan {

// A recursive monitor built on a plain std::mutex: recursion is counted here,
// per owning thread (the low 32 bits of its id). Operations by a thread that
// isn't the owner return 0x80000000 and change nothing; a thread id of 0
// aborts the process.
class DefaultMonitor : public Scheduler::Monitor, public Lockable
{
public:
    DefaultMonitor() = default;
    ~DefaultMonitor() override = default;
    DefaultMonitor(const DefaultMonitor&) = delete;
    DefaultMonitor& operator=(const DefaultMonitor&) = delete;

    RESULT Lock() override;
    RESULT Unlock() override;
    // Takes the lock, then sets the depth to count (pairs with UnlockAll).
    RESULT LockWithCount(int count) override;
    // Releases the lock whatever its depth and hands the depth back.
    RESULT UnlockAll(int* count) override;
    // Releases the lock for up to timeout and takes it back at the old depth.
    // A notification and a time-out look the same: callers test their own
    // condition.
    RESULT Wait(std::chrono::milliseconds timeout) override;
    // Wakes every waiter; ownership not required.
    RESULT Notify() override;

    std::string LockName() override { return "Monitor"; }

private:
    // The caller's id; aborts on 0, which would read as "no owner".
    static uint32_t CallerId();

    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::atomic<uint32_t> m_owner{0};
    std::atomic<uint32_t> m_lockCount{0};
};

} // namespace quorvan
