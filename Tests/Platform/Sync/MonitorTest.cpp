#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Tests/Platform/Sync/SyncTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace {

using quorvan::GetScheduler;
using quorvan::ResultGeneralFailure;
using quorvan::Scheduler;
using quorvan::Success;
using std::chrono::milliseconds;
using velorane::test::Stopwatch;

std::unique_ptr<Scheduler::Monitor> MakeMonitor()
{
    return std::unique_ptr<Scheduler::Monitor>(GetScheduler()->CreateMonitor());
}

template <typename F> auto OnOtherThread(F work)
{
    return std::async(std::launch::async, work).get();
}

TEST(MonitorTest, LockNameIsMonitor)
{
    auto monitor = MakeMonitor();
    auto* lockable = dynamic_cast<quorvan::Lockable*>(monitor.get());
    ASSERT_NE(lockable, nullptr);
    EXPECT_EQ(lockable->LockName(), "Monitor");
}

TEST(MonitorTest, LockIsRecursiveAndCountsDepth)
{
    auto monitor = MakeMonitor();
    EXPECT_EQ(monitor->Lock(), Success);
    EXPECT_EQ(monitor->Lock(), Success);
    EXPECT_EQ(monitor->Lock(), Success);
    EXPECT_EQ(monitor->Unlock(), Success);
    EXPECT_EQ(monitor->Unlock(), Success);
    EXPECT_EQ(monitor->Unlock(), Success);
    // Depth 0: no longer the owner.
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
}

TEST(MonitorTest, UnlockByNonOwnerFails)
{
    auto monitor = MakeMonitor();
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
    ASSERT_EQ(monitor->Lock(), Success);
    EXPECT_EQ(OnOtherThread([&] { return monitor->Unlock(); }), ResultGeneralFailure);
    int count = -1;
    EXPECT_EQ(OnOtherThread([&] { return monitor->UnlockAll(&count); }), ResultGeneralFailure);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(OnOtherThread([&] { return monitor->Wait(milliseconds(1)); }), ResultGeneralFailure);
    // Ownership untouched by all of that.
    EXPECT_EQ(monitor->Unlock(), Success);
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
}

TEST(MonitorTest, WaitZeroByOwnerReturnsAtOnceWithOwnershipIntact)
{
    auto monitor = MakeMonitor();
    ASSERT_EQ(monitor->Lock(), Success);
    ASSERT_EQ(monitor->Lock(), Success);
    Stopwatch watch;
    EXPECT_EQ(monitor->Wait(milliseconds(0)), Success);
    EXPECT_EQ(monitor->Wait(milliseconds(-10)), Success);
    EXPECT_LT(watch.ElapsedMs(), 1000.0);
    // Same depth as before the waits.
    EXPECT_EQ(monitor->Unlock(), Success);
    EXPECT_EQ(monitor->Unlock(), Success);
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
}

TEST(MonitorTest, WaitByNonOwnerFails)
{
    auto monitor = MakeMonitor();
    EXPECT_EQ(monitor->Wait(milliseconds(0)), ResultGeneralFailure);
    EXPECT_EQ(monitor->Wait(milliseconds(10)), ResultGeneralFailure);
}

TEST(MonitorTest, WaitTimesOutAndReturnsZero)
{
    auto monitor = MakeMonitor();
    ASSERT_EQ(monitor->Lock(), Success);
    Stopwatch watch;
    EXPECT_EQ(monitor->Wait(milliseconds(50)), Success);
    const double elapsed = watch.ElapsedMs();
    EXPECT_GE(elapsed, 45.0);
    EXPECT_LT(elapsed, 2000.0);
    EXPECT_EQ(monitor->Unlock(), Success);
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
}

TEST(MonitorTest, LockWithCountThenUnlockAllAcrossThreads)
{
    auto monitor = MakeMonitor();
    ASSERT_EQ(monitor->LockWithCount(5), Success);

    std::atomic<bool> otherHasIt{false};
    std::promise<void> release;
    auto other = std::async(std::launch::async, [&] {
        const RESULT locked = monitor->Lock();
        otherHasIt = true;
        release.get_future().wait();
        const RESULT unlocked = monitor->Unlock();
        return std::make_pair(locked, unlocked);
    });
    // Held by us at depth 5: the other thread waits.
    EXPECT_EQ(other.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_FALSE(otherHasIt.load());

    int count = 0;
    EXPECT_EQ(monitor->UnlockAll(&count), Success);
    EXPECT_EQ(count, 5);
    EXPECT_TRUE(velorane::test::WaitUntil([&] { return otherHasIt.load(); }));
    // Now the other thread owns it; we own nothing.
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
    EXPECT_EQ(monitor->UnlockAll(&count), ResultGeneralFailure);
    release.set_value();
    const auto [locked, unlocked] = other.get();
    EXPECT_EQ(locked, Success);
    EXPECT_EQ(unlocked, Success);

    // LockWithCount restores a depth that UnlockAll gave back.
    ASSERT_EQ(monitor->LockWithCount(count), Success);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(monitor->Unlock(), Success);
    }
    EXPECT_EQ(monitor->Unlock(), ResultGeneralFailure);
}

TEST(MonitorTest, UnlockAllReleasesWhateverTheDepth)
{
    auto monitor = MakeMonitor();
    ASSERT_EQ(monitor->Lock(), Success);
    ASSERT_EQ(monitor->Lock(), Success);
    ASSERT_EQ(monitor->Lock(), Success);
    int count = 0;
    EXPECT_EQ(monitor->UnlockAll(&count), Success);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(OnOtherThread([&] {
                  const RESULT locked = monitor->Lock();
                  monitor->Unlock();
                  return locked;
              }),
              Success);
}

TEST(MonitorTest, WaitReleasesTheLockAndNotifyWakesTheWaiter)
{
    auto monitor = MakeMonitor();
    bool ready = false; // guarded by the monitor
    std::atomic<bool> waiting{false};

    auto waiter = std::async(std::launch::async, [&] {
        Stopwatch watch;
        monitor->Lock();
        monitor->Lock();
        waiting = true;
        RESULT result = Success;
        while (!ready && watch.ElapsedMs() < 5000.0) {
            result = monitor->Wait(milliseconds(10000));
        }
        const bool sawReady = ready;
        // Depth 2 restored after the wait.
        const RESULT first = monitor->Unlock();
        const RESULT second = monitor->Unlock();
        const RESULT third = monitor->Unlock();
        return std::make_tuple(result, sawReady, first, second, third, watch.ElapsedMs());
    });

    ASSERT_TRUE(velorane::test::WaitUntil([&] { return waiting.load(); }));
    // We get the lock while the waiter waits on it.
    ASSERT_EQ(monitor->Lock(), Success);
    ready = true;
    EXPECT_EQ(monitor->Notify(), Success);
    EXPECT_EQ(monitor->Unlock(), Success);

    const auto [result, sawReady, first, second, third, elapsed] = waiter.get();
    EXPECT_EQ(result, Success);
    EXPECT_TRUE(sawReady);
    EXPECT_EQ(first, Success);
    EXPECT_EQ(second, Success);
    EXPECT_EQ(third, ResultGeneralFailure);
    EXPECT_LT(elapsed, 5000.0);
}

TEST(MonitorTest, NotifyNeedsNoOwnership)
{
    auto monitor = MakeMonitor();
    EXPECT_EQ(monitor->Notify(), Success);
    ASSERT_EQ(monitor->Lock(), Success);
    EXPECT_EQ(OnOtherThread([&] { return monitor->Notify(); }), Success);
    EXPECT_EQ(monitor->Unlock(), Success);
}

} // namespace
