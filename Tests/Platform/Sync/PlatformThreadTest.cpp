#include "Common/Platform/Linux/Src/ThreadImpl.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Tests/Platform/Sync/SyncTestSupport.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/WithoutNewThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using quorvan::GetScheduler;
using quorvan::Scheduler;
using std::chrono::milliseconds;
using velorane::test::KernelThreadId;
using velorane::test::Stopwatch;
using velorane::test::WaitUntil;

constexpr unsigned long kNoLimit = 0xFFFFFFFF;

// Counts its calls and remembers the thread it ran on. Hooks are set before
// the thread starts and not changed afterwards.
class Recorder : public Scheduler::Runnable
{
public:
    bool Run() override
    {
        const int n = ++runs;
        return onRun ? onRun(n) : false;
    }
    bool ThreadEnter() override
    {
        threadId = static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId());
        pthreadSelf = static_cast<unsigned long>(pthread_self());
        kernelId = KernelThreadId();
        if (onEnter) {
            onEnter();
        }
        ++enters;
        return true;
    }
    bool ThreadExit() override
    {
        ++exits;
        return true;
    }

    std::function<bool(int)> onRun;
    std::function<void()> onEnter;
    std::atomic<int> runs{0};
    std::atomic<int> enters{0};
    std::atomic<int> exits{0};
    std::atomic<uint32_t> threadId{0};
    std::atomic<unsigned long> pthreadSelf{0};
    std::atomic<pid_t> kernelId{0};
};

std::unique_ptr<Scheduler::Thread> MakeThread(Recorder& recorder, bool autoDelete = false)
{
    return std::unique_ptr<Scheduler::Thread>(
        GetScheduler()->CreateThread(&recorder, -1, autoDelete));
}

TEST(PlatformThreadTest, StartIsSynchronous)
{
    Recorder recorder;
    recorder.onEnter = [] { std::this_thread::sleep_for(milliseconds(100)); };
    auto thread = MakeThread(recorder);
    Stopwatch watch;
    thread->ThreadStart(kNoLimit);
    EXPECT_GE(watch.ElapsedMs(), 80.0);
    EXPECT_EQ(recorder.enters.load(), 1);
    EXPECT_TRUE(thread->IsRunning());
    thread->ThreadQuit();
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_EQ(recorder.exits.load(), 1);
}

TEST(PlatformThreadTest, StartTimeoutIsNotAnError)
{
    std::promise<void> letEnter;
    std::shared_future<void> entered = letEnter.get_future().share();
    Recorder recorder;
    recorder.onEnter = [entered] { entered.wait(); };
    auto thread = MakeThread(recorder);
    Stopwatch watch;
    thread->ThreadStart(50);
    EXPECT_GE(watch.ElapsedMs(), 45.0);
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_EQ(recorder.enters.load(), 0);

    letEnter.set_value();
    EXPECT_TRUE(WaitUntil([&] { return recorder.runs.load() == 1; }));
    thread->ThreadQuit();
    EXPECT_EQ(recorder.enters.load(), 1);
    EXPECT_EQ(recorder.exits.load(), 1);
}

TEST(PlatformThreadTest, StartTwiceSecondDoesNothing)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    const pid_t first = recorder.kernelId.load();
    thread->ThreadStart(kNoLimit);
    EXPECT_EQ(recorder.enters.load(), 1);
    EXPECT_EQ(recorder.kernelId.load(), first);
    EXPECT_TRUE(thread->IsRunning());
    thread->ThreadQuit();
    EXPECT_EQ(recorder.exits.load(), 1);
}

TEST(PlatformThreadTest, QuitOnThreadThatNeverRanDoesNothingVisible)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    Stopwatch watch;
    thread->ThreadQuit();
    EXPECT_LT(watch.ElapsedMs(), 1000.0);
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_EQ(recorder.enters.load(), 0);
    EXPECT_EQ(recorder.runs.load(), 0);
    EXPECT_EQ(recorder.exits.load(), 0);
}

TEST(PlatformThreadTest, TriggerOnStoppedThreadDoesNothing)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadTrigger();
    thread->ThreadStart(kNoLimit);
    ASSERT_TRUE(WaitUntil([&] { return recorder.runs.load() == 1; }));
    thread->ThreadQuit();
    thread->ThreadTrigger();
    EXPECT_EQ(recorder.runs.load(), 1);

    // Neither trigger was kept: after a restart the loop runs once and then
    // sleeps.
    thread->ThreadStart(kNoLimit);
    ASSERT_TRUE(WaitUntil([&] { return recorder.runs.load() == 2; }));
    ASSERT_TRUE(velorane::test::WaitUntilAsleep(recorder.kernelId));
    EXPECT_EQ(recorder.runs.load(), 2);
    thread->ThreadQuit();
}

TEST(PlatformThreadTest, RunReturningFalseSleepsUntilTriggered)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    ASSERT_TRUE(WaitUntil([&] { return recorder.runs.load() == 1; }));
    ASSERT_TRUE(velorane::test::WaitUntilAsleep(recorder.kernelId));
    EXPECT_EQ(recorder.runs.load(), 1);

    thread->ThreadTrigger();
    EXPECT_TRUE(WaitUntil([&] { return recorder.runs.load() == 2; }));
    thread->ThreadTrigger();
    EXPECT_TRUE(WaitUntil([&] { return recorder.runs.load() == 3; }));
    thread->ThreadQuit();
    EXPECT_EQ(recorder.runs.load(), 3);
    EXPECT_EQ(recorder.exits.load(), 1);
}

TEST(PlatformThreadTest, RunReturningTrueNeverSleepsQuitStillEndsIt)
{
    Recorder recorder;
    recorder.onRun = [](int) { return true; };
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    // Nobody triggers: the loop keeps going by itself.
    EXPECT_TRUE(WaitUntil([&] { return recorder.runs.load() > 1000; }));
    Stopwatch watch;
    thread->ThreadQuit();
    EXPECT_LT(watch.ElapsedMs(), 2000.0);
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_TRUE(thread->IsQuitRequested());
    EXPECT_EQ(recorder.exits.load(), 1);
}

TEST(PlatformThreadTest, InternalQuitEndsTheLoopWithoutJoin)
{
    Recorder recorder;
    std::unique_ptr<Scheduler::Thread> thread = MakeThread(recorder);
    Scheduler::Thread* raw = thread.get();
    recorder.onRun = [raw](int n) {
        if (n == 3) {
            raw->InternalQuit();
        }
        return true;
    };
    thread->ThreadStart(kNoLimit);
    ASSERT_TRUE(WaitUntil([&] { return !thread->IsRunning(); }));
    EXPECT_EQ(recorder.runs.load(), 3);
    EXPECT_EQ(recorder.exits.load(), 1);
    EXPECT_TRUE(thread->IsQuitRequested());

    // It can be started again; the quit flags are cleared.
    thread->ThreadStart(kNoLimit);
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_FALSE(thread->IsQuitRequested());
    EXPECT_EQ(recorder.enters.load(), 2);
    // Only the third Run quits, so this time the loop spins until quit from
    // outside, which joins it.
    EXPECT_TRUE(WaitUntil([&] { return recorder.runs.load() > 3; }));
    thread->ThreadQuit();
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_EQ(recorder.exits.load(), 2);
}

TEST(PlatformThreadTest, RestartAfterQuit)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    const pid_t first = recorder.kernelId.load();
    thread->ThreadQuit();
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_TRUE(velorane::test::WaitUntilTaskGone(first));

    thread->ThreadStart(kNoLimit);
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_FALSE(thread->IsQuitRequested());
    EXPECT_EQ(recorder.enters.load(), 2);
    EXPECT_NE(recorder.kernelId.load(), 0);
    thread->ThreadQuit();
    EXPECT_EQ(recorder.exits.load(), 2);
}

TEST(PlatformThreadTest, DestructorQuitsAndJoins)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    const pid_t tid = recorder.kernelId.load();
    thread.reset();
    EXPECT_EQ(recorder.exits.load(), 1);
    EXPECT_TRUE(velorane::test::WaitUntilTaskGone(tid));
}

TEST(PlatformThreadTest, ThreadIdIsLow32BitsOfPthreadSelf)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    EXPECT_EQ(recorder.threadId.load(), static_cast<uint32_t>(recorder.pthreadSelf.load()));
    unsigned long long id = 0;
    unsigned long long cpu = 7;
    thread->GetThreadInfo(id, cpu, nullptr);
    EXPECT_EQ(id, recorder.threadId.load());
    EXPECT_NE(id, static_cast<uint32_t>(pthread_self()));
    thread->ThreadQuit();
}

TEST(PlatformThreadTest, GetThreadInfoReportsNoCpuTimeAndNoTrace)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    unsigned long long id = 99;
    unsigned long long cpu = 99;
    std::string trace = "before";
    // Before the start no id is known yet.
    thread->GetThreadInfo(id, cpu, &trace);
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(cpu, 0u);
    EXPECT_EQ(trace, "trace not available");

    thread->ThreadStart(kNoLimit);
    cpu = 12345;
    thread->GetThreadInfo(id, cpu, &trace);
    EXPECT_EQ(id, recorder.threadId.load());
    EXPECT_EQ(cpu, 0u);
    EXPECT_EQ(trace, "trace not available");
    thread->ThreadQuit();
}

TEST(PlatformThreadTest, GetThreadInfoWithNullTraceTouchesNoString)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    thread->ThreadStart(kNoLimit);
    unsigned long long id = 0;
    unsigned long long cpu = 42;
    thread->GetThreadInfo(id, cpu, nullptr);
    EXPECT_EQ(cpu, 0u);
    EXPECT_EQ(id, recorder.threadId.load());
    thread->ThreadQuit();
}

TEST(PlatformThreadTest, GetRunnableReturnsTheRunnable)
{
    Recorder recorder;
    auto thread = MakeThread(recorder);
    EXPECT_EQ(thread->GetRunnable(), &recorder);
}

TEST(PlatformThreadTest, StaticStackTraceIsNotImplemented)
{
    EXPECT_EQ(quorvan::platform::Thread::GetStackTrace(0), "stack trace not yet implemented");
    EXPECT_EQ(quorvan::platform::Thread::GetStackTrace(12345), "stack trace not yet implemented");
}

TEST(PlatformThreadTest, CurrentThreadIdIsPthreadSelf)
{
    EXPECT_EQ(quorvan::platform::Thread::GetCurrentThreadId(),
              static_cast<unsigned long>(pthread_self()));
    const unsigned long other = std::async(std::launch::async, [] {
                                    return quorvan::platform::Thread::GetCurrentThreadId();
                                }).get();
    EXPECT_NE(other, quorvan::platform::Thread::GetCurrentThreadId());
}

// Tells the test when, and on which thread, the object was destroyed.
class ProbeThread : public quorvan::platform::Thread
{
public:
    ProbeThread(Scheduler::Runnable* runnable, std::atomic<bool>& deleted,
                std::atomic<pid_t>& deletedOn)
        : quorvan::platform::Thread(runnable, -1, true), m_deleted(deleted), m_deletedOn(deletedOn)
    {
    }
    ~ProbeThread() override
    {
        m_deletedOn = KernelThreadId();
        m_deleted = true;
    }

private:
    std::atomic<bool>& m_deleted;
    std::atomic<pid_t>& m_deletedOn;
};

TEST(PlatformThreadTest, AutoDeleteThreadDeletesItselfOnItsOwnThread)
{
    std::atomic<bool> deleted{false};
    std::atomic<pid_t> deletedOn{0};
    Recorder recorder;
    auto* thread = new ProbeThread(&recorder, deleted, deletedOn);
    recorder.onRun = [thread](int) {
        thread->InternalQuit();
        return false;
    };
    thread->ThreadStart(kNoLimit);
    // From here on the object belongs to its thread.
    ASSERT_TRUE(WaitUntil([&] { return deleted.load(); }));
    EXPECT_EQ(deletedOn.load(), recorder.kernelId.load());
    EXPECT_EQ(recorder.runs.load(), 1);
    EXPECT_EQ(recorder.exits.load(), 1);
    // Detached, not joined: the thread ends by itself.
    EXPECT_TRUE(velorane::test::WaitUntilTaskGone(recorder.kernelId.load()));
}

TEST(PlatformThreadTest, AutoDeleteThreadThatEndsAtOnceWaitsForStartToFinish)
{
    std::atomic<bool> deleted{false};
    std::atomic<pid_t> deletedOn{0};
    Recorder recorder;
    auto* thread = new ProbeThread(&recorder, deleted, deletedOn);
    // Quits inside ThreadEnter, before ThreadStart has even been told.
    recorder.onEnter = [thread] { thread->InternalQuit(); };
    thread->ThreadStart(kNoLimit);
    ASSERT_TRUE(WaitUntil([&] { return deleted.load(); }));
    EXPECT_EQ(recorder.runs.load(), 0);
    EXPECT_EQ(recorder.exits.load(), 1);
    EXPECT_EQ(deletedOn.load(), recorder.kernelId.load());
}

} // namespace

namespace {

// With no thread to be had the start is logged as failed and the thread
// isn't running; nothing waits for a start that never came.
TEST(PlatformThreadTest, FailedCreationIsLoggedAndLeavesItNotRunning)
{
    const int result = ::velorane::test::RunWithoutNewThreads([] {
        ::velorane::test::ScopedLogCapture capture;
        Recorder recorder;
        auto thread = MakeThread(recorder);
        thread->ThreadStart(kNoLimit);
        if (thread->IsRunning() || recorder.enters.load() != 0) {
            return 1;
        }
        if (capture->Messages() != std::vector<std::string>{"Unable to create thread"} ||
            !capture->Contains(quorvan::EGroupValueSevere, "Unable to create thread")) {
            return 2;
        }
        // Nothing to stop, join or wait for.
        thread->ThreadQuit();
        thread->ThreadTrigger();
        return capture->Messages().size() == 1 ? 0 : 3;
    });
    if (result == ::velorane::test::kThreadLimitNotHeld) {
        GTEST_SKIP() << "this machine lets the process start threads whatever its limit";
    }
    EXPECT_EQ(result, 0);
}

} // namespace
