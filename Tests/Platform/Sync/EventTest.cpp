#include "Common/Platform/Linux/Src/EventImpl.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Tests/Platform/Sync/SyncTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace {

using quorvan::GetScheduler;
using quorvan::Scheduler;
using std::chrono::milliseconds;
using velorane::test::Stopwatch;

std::unique_ptr<Scheduler::Event> MakeEvent(bool manualReset, bool initiallySignalled)
{
    return std::unique_ptr<Scheduler::Event>(
        GetScheduler()->CreateEvent(manualReset, initiallySignalled));
}

// Waits with the given time-out while another thread sets the event after
// about 100 ms; returns the result and how long the wait took.
std::pair<bool, double> WaitWhileSetLater(Scheduler::Event& event, milliseconds timeout)
{
    Stopwatch watch;
    std::thread setter([&event] {
        std::this_thread::sleep_for(milliseconds(100));
        event.Set();
    });
    const bool result = event.Wait(timeout);
    const double elapsed = watch.ElapsedMs();
    setter.join();
    return {result, elapsed};
}

TEST(EventTest, WaitZeroBlocksUntilSet)
{
    auto event = MakeEvent(false, false);
    const auto [result, elapsed] = WaitWhileSetLater(*event, milliseconds(0));
    EXPECT_TRUE(result);
    EXPECT_GE(elapsed, 80.0);
    EXPECT_LT(elapsed, 5000.0);
}

TEST(EventTest, WaitNegativeBlocksUntilSet)
{
    auto event = MakeEvent(false, false);
    const auto [result, elapsed] = WaitWhileSetLater(*event, milliseconds(-5));
    EXPECT_TRUE(result);
    EXPECT_GE(elapsed, 80.0);
}

TEST(EventTest, WaitInfiniteBlocksUntilSet)
{
    auto event = MakeEvent(true, false);
    const auto [result, elapsed] = WaitWhileSetLater(*event, milliseconds(0xFFFFFFFF));
    EXPECT_TRUE(result);
    EXPECT_GE(elapsed, 80.0);
}

TEST(EventTest, WaitOneMillisecondTimesOut)
{
    auto event = MakeEvent(false, false);
    Stopwatch watch;
    EXPECT_FALSE(event->Wait(milliseconds(1)));
    const double elapsed = watch.ElapsedMs();
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 2000.0);
}

TEST(EventTest, WaitFiftyMillisecondsTimesOutAfterTheTimeout)
{
    auto event = MakeEvent(true, false);
    Stopwatch watch;
    EXPECT_FALSE(event->Wait(milliseconds(50)));
    const double elapsed = watch.ElapsedMs();
    EXPECT_GE(elapsed, 45.0);
    EXPECT_LT(elapsed, 2000.0);
}

TEST(EventTest, TimedWaitReturnsTrueWhenSetInTime)
{
    auto event = MakeEvent(false, false);
    const auto [result, elapsed] = WaitWhileSetLater(*event, milliseconds(5000));
    EXPECT_TRUE(result);
    EXPECT_GE(elapsed, 80.0);
    EXPECT_LT(elapsed, 4000.0);
}

TEST(EventTest, AutoResetSignalledBeforeWaitReturnsTrueAtOnceThenIsClear)
{
    auto event = MakeEvent(false, true);
    Stopwatch watch;
    EXPECT_TRUE(event->Wait(milliseconds(0)));
    EXPECT_LT(watch.ElapsedMs(), 1000.0);
    EXPECT_FALSE(event->Wait(milliseconds(1)));

    event->Set();
    EXPECT_TRUE(event->Wait(milliseconds(1)));
    EXPECT_FALSE(event->Wait(milliseconds(1)));
}

TEST(EventTest, ManualResetStaysSetUntilReset)
{
    auto event = MakeEvent(true, false);
    EXPECT_FALSE(event->Wait(milliseconds(1)));
    event->Set();
    EXPECT_TRUE(event->Wait(milliseconds(1)));
    EXPECT_TRUE(event->Wait(milliseconds(0)));
    EXPECT_TRUE(event->Wait(milliseconds(1)));
    event->Reset();
    EXPECT_FALSE(event->Wait(milliseconds(1)));
}

TEST(EventTest, ManualResetInitiallySignalledStaysSet)
{
    auto event = MakeEvent(true, true);
    EXPECT_TRUE(event->Wait(milliseconds(1)));
    EXPECT_TRUE(event->Wait(milliseconds(1)));
}

TEST(EventTest, ResetClearsAnAutoResetEvent)
{
    auto event = MakeEvent(false, true);
    event->Reset();
    EXPECT_FALSE(event->Wait(milliseconds(1)));
}

TEST(EventTest, ManualResetSetWakesOneOfTwoWaiters)
{
    auto event = MakeEvent(true, false);
    std::atomic<int> woken{0};
    std::atomic<pid_t> firstTid{0};
    std::atomic<pid_t> secondTid{0};
    auto waiter = [&](std::atomic<pid_t>& tid) {
        tid = velorane::test::KernelThreadId();
        if (event->Wait(milliseconds(0xFFFFFFFF))) {
            ++woken;
        }
    };

    // One waiter at a time, each seen asleep before the next comes, so both
    // are inside Wait when Set runs.
    std::thread first(waiter, std::ref(firstTid));
    ASSERT_TRUE(velorane::test::WaitUntil([&] { return firstTid.load() != 0; }));
    ASSERT_TRUE(velorane::test::WaitUntilAsleep(firstTid));
    std::thread second(waiter, std::ref(secondTid));
    ASSERT_TRUE(velorane::test::WaitUntil([&] { return secondTid.load() != 0; }));
    ASSERT_TRUE(velorane::test::WaitUntilAsleep(secondTid));

    event->Set();
    EXPECT_TRUE(velorane::test::WaitUntil([&] { return woken.load() == 1; }));
    // The other waiter stays asleep although the event is still set.
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(woken.load(), 1);
    EXPECT_TRUE(event->Wait(milliseconds(1)));

    event->Set();
    EXPECT_TRUE(velorane::test::WaitUntil([&] { return woken.load() == 2; }));
    first.join();
    second.join();
    EXPECT_EQ(woken.load(), 2);
}

TEST(EventTest, AutoResetSetReleasesOneWaiterPerSet)
{
    auto event = MakeEvent(false, false);
    std::atomic<int> woken{0};
    std::thread a([&] { woken += event->Wait(milliseconds(5000)) ? 1 : 0; });
    std::thread b([&] { woken += event->Wait(milliseconds(5000)) ? 1 : 0; });
    event->Set();
    EXPECT_TRUE(velorane::test::WaitUntil([&] { return woken.load() >= 1; }));
    event->Set();
    a.join();
    b.join();
    // Each Set was consumed by exactly one waiter, and nothing is left over.
    EXPECT_EQ(woken.load(), 2);
    EXPECT_FALSE(event->Wait(milliseconds(1)));
}

TEST(EventTest, NamedConstructorIgnoresTheName)
{
    quorvan::platform::Event event(false, true, L"Global\\SomeName");
    EXPECT_TRUE(event.Wait(milliseconds(1)));
    EXPECT_FALSE(event.Wait(milliseconds(1)));

    quorvan::platform::Event manual(true, false, L"");
    manual.Set();
    EXPECT_TRUE(manual.Wait(milliseconds(1)));
    EXPECT_TRUE(manual.Wait(milliseconds(1)));
}

} // namespace
