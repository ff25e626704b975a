#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/Timer.h"
#include "Common/Platform/Src/UUID.h"
#include "Tests/Platform/Sync/SyncTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <pthread.h>

namespace {

using quorvan::GetScheduler;
using quorvan::Scheduler;
using velorane::test::Stopwatch;

// Stands in for a host scheduler; never becomes the process's scheduler.
class HostScheduler : public quorvan::DefaultScheduler
{
};

TEST(SchedulerTest, GetSchedulerMakesOneDefaultScheduler)
{
    Scheduler* first = GetScheduler();
    ASSERT_NE(first, nullptr);
    EXPECT_NE(dynamic_cast<quorvan::DefaultScheduler*>(first), nullptr);
    EXPECT_EQ(GetScheduler(), first);
    auto fromOtherThread = std::async(std::launch::async, [] { return GetScheduler(); });
    EXPECT_EQ(fromOtherThread.get(), first);
}

TEST(SchedulerTest, SetSchedulerRefusedOnceASchedulerExists)
{
    Scheduler* current = GetScheduler();
    HostScheduler host;
    EXPECT_FALSE(quorvan::SetScheduler(&host));
    EXPECT_FALSE(quorvan::SetScheduler(nullptr));
    EXPECT_EQ(GetScheduler(), current);
}

TEST(SchedulerTest, DefaultConstantIsFour)
{
    EXPECT_EQ(GetScheduler()->GetDefaultConstant(), 4);
}

TEST(SchedulerTest, DefaultFlagIsZero)
{
    EXPECT_EQ(GetScheduler()->GetDefaultFlag(), 0);
}

TEST(SchedulerTest, StackTraceIsNotImplemented)
{
    EXPECT_EQ(GetScheduler()->GetStackTrace(), "stack trace not yet implemented");
}

TEST(SchedulerTest, ExecuteBlockingRunsOnTheCallingThread)
{
    int calls = 0;
    unsigned long ranOn = 0;
    GetScheduler()->ExecuteBlocking([&] {
        ++calls;
        ranOn = GetScheduler()->GetCurrentThreadId();
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(ranOn, GetScheduler()->GetCurrentThreadId());
}

TEST(SchedulerTest, ExecuteBlockingWithEmptyFunctionThrowsBadFunctionCall)
{
    EXPECT_THROW(GetScheduler()->ExecuteBlocking(std::function<void()>()), std::bad_function_call);
}

TEST(SchedulerTest, CurrentThreadIdIsPthreadSelf)
{
    EXPECT_EQ(GetScheduler()->GetCurrentThreadId(), static_cast<unsigned long>(pthread_self()));
}

TEST(SchedulerTest, SleepWaitsAtLeastTheTime)
{
    Stopwatch watch;
    GetScheduler()->Sleep(20);
    const double elapsed = watch.ElapsedMs();
    EXPECT_GE(elapsed, 19.0);
    EXPECT_LT(elapsed, 2000.0);
}

TEST(SchedulerTest, FactoriesMakeTheLocksOfThisPlatform)
{
    std::unique_ptr<Scheduler::Mutex> mutex(GetScheduler()->CreateMutex());
    std::unique_ptr<Scheduler::FastMutex> fast(GetScheduler()->CreateFastMutex());
    std::unique_ptr<Scheduler::Monitor> monitor(GetScheduler()->CreateMonitor());
    ASSERT_NE(dynamic_cast<quorvan::Lockable*>(mutex.get()), nullptr);
    ASSERT_NE(dynamic_cast<quorvan::Lockable*>(fast.get()), nullptr);
    ASSERT_NE(dynamic_cast<quorvan::Lockable*>(monitor.get()), nullptr);
    EXPECT_EQ(dynamic_cast<quorvan::Lockable*>(mutex.get())->LockName(), "Mutex");
    EXPECT_EQ(dynamic_cast<quorvan::Lockable*>(fast.get())->LockName(), "Mutex");
    EXPECT_EQ(dynamic_cast<quorvan::Lockable*>(monitor.get())->LockName(), "Monitor");
}

TEST(SchedulerTest, CreateEventHonoursBothFlags)
{
    std::unique_ptr<Scheduler::Event> manualSet(GetScheduler()->CreateEvent(true, true));
    EXPECT_TRUE(manualSet->Wait(std::chrono::milliseconds(1)));
    EXPECT_TRUE(manualSet->Wait(std::chrono::milliseconds(1)));
    std::unique_ptr<Scheduler::Event> autoClear(GetScheduler()->CreateEvent(false, false));
    EXPECT_FALSE(autoClear->Wait(std::chrono::milliseconds(1)));
}

TEST(SchedulerTest, ClocksComeFromThePlatformLayer)
{
    Scheduler* scheduler = GetScheduler();
    EXPECT_LE(std::llabs(scheduler->UTCMilliseconds() - quorvan::platform::UTCMilliseconds()),
              1000);
    EXPECT_LE(std::llabs(scheduler->LocalMilliseconds() - quorvan::platform::LocalMilliseconds()),
              1000);
    const int64_t before = quorvan::platform::MonotonicMilliseconds();
    const int64_t mine = scheduler->MonotonicMilliseconds();
    const int64_t after = quorvan::platform::MonotonicMilliseconds();
    EXPECT_LE(before, mine);
    EXPECT_LE(mine, after);
    EXPECT_EQ(scheduler->UTCNow().year, quorvan::platform::UTCNow().year);
    EXPECT_EQ(scheduler->LocalNow().year, quorvan::platform::LocalNow().year);
}

TEST(SchedulerTest, GenerateUuidGivesVersionFourIdentifiers)
{
    const quorvan::UUID first = GetScheduler()->GenerateUuid();
    const quorvan::UUID second = GetScheduler()->GenerateUuid();
    EXPECT_EQ(first.data3 >> 12, 4);
    EXPECT_NE(first, second);
}

TEST(SchedulerTest, CreateTimerInstanceHandsOutATimer)
{
    quorvan::ITimer* timer = nullptr;
    EXPECT_EQ(GetScheduler()->CreateTimerInstance(timer), quorvan::Success);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(timer->GetRefCount(), 1);
    timer->Release();
}

TEST(SchedulerTest, InstallSignalHandlersInstallsNothing)
{
    const int signals[] = {SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGHUP, SIGUSR1};
    struct sigaction before[sizeof(signals) / sizeof(signals[0])] = {};
    for (size_t i = 0; i < sizeof(signals) / sizeof(signals[0]); ++i) {
        ASSERT_EQ(sigaction(signals[i], nullptr, &before[i]), 0);
    }
    quorvan::platform::InstallSignalHandlers();
    for (size_t i = 0; i < sizeof(signals) / sizeof(signals[0]); ++i) {
        struct sigaction after = {};
        ASSERT_EQ(sigaction(signals[i], nullptr, &after), 0);
        EXPECT_EQ(after.sa_handler, before[i].sa_handler) << "signal " << signals[i];
        EXPECT_EQ(after.sa_flags, before[i].sa_flags) << "signal " << signals[i];
    }
}

} // namespace
