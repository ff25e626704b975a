#include "Common/Platform/Src/Thread.h"
#include "Tests/Platform/Sync/SyncTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <sys/types.h>

namespace {

using velorane::test::KernelThreadId;
using velorane::test::Stopwatch;
using velorane::test::WaitUntil;

constexpr unsigned long kNoLimit = 0xFFFFFFFF;

// Counts its calls; quits in its own destructor, before its members go.
class CountingThread : public quorvan::Thread
{
public:
    ~CountingThread() override { Quit(); }

    bool Run() override
    {
        ++runs;
        return false;
    }
    bool ThreadEnter() override
    {
        kernelId = KernelThreadId();
        ++enters;
        return true;
    }
    bool ThreadExit() override
    {
        ++exits;
        return true;
    }

    std::atomic<int> runs{0};
    std::atomic<int> enters{0};
    std::atomic<int> exits{0};
    std::atomic<pid_t> kernelId{0};
};

TEST(ThreadTest, DefaultsRunFalseEnterAndExitTrue)
{
    quorvan::Thread thread;
    EXPECT_FALSE(thread.Run());
    EXPECT_TRUE(thread.ThreadEnter());
    EXPECT_TRUE(thread.ThreadExit());
    EXPECT_FALSE(thread.IsRunning());
}

TEST(ThreadTest, StartRunsThenSleepsUntilTrigger)
{
    CountingThread thread;
    thread.Start(kNoLimit);
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_EQ(thread.enters.load(), 1);
    ASSERT_TRUE(WaitUntil([&] { return thread.runs.load() == 1; }));
    ASSERT_TRUE(velorane::test::WaitUntilAsleep(thread.kernelId));
    EXPECT_EQ(thread.runs.load(), 1);

    thread.Trigger();
    EXPECT_TRUE(WaitUntil([&] { return thread.runs.load() == 2; }));
    thread.Quit();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.exits.load(), 1);
}

TEST(ThreadTest, QuitJoinsTheThread)
{
    CountingThread thread;
    thread.Start(kNoLimit);
    const pid_t tid = thread.kernelId.load();
    Stopwatch watch;
    thread.Quit();
    EXPECT_LT(watch.ElapsedMs(), 2000.0);
    EXPECT_EQ(thread.exits.load(), 1);
    EXPECT_TRUE(velorane::test::WaitUntilTaskGone(tid));
}

TEST(ThreadTest, TriggerAndQuitBeforeStartDoNothing)
{
    CountingThread thread;
    thread.Trigger();
    thread.Quit();
    thread.Reserved();
    thread.Priority(0);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.enters.load(), 0);
    EXPECT_EQ(thread.runs.load(), 0);
    EXPECT_EQ(thread.exits.load(), 0);
}

// Leaves the quit to the base destructor; what it records lives outside it.
class UnquittingThread : public quorvan::Thread
{
public:
    UnquittingThread(std::atomic<int>& runs, std::atomic<pid_t>& kernelId)
        : m_runs(runs), m_kernelId(kernelId)
    {
    }

    bool Run() override
    {
        ++m_runs;
        return false;
    }
    bool ThreadEnter() override
    {
        m_kernelId = KernelThreadId();
        return true;
    }

private:
    std::atomic<int>& m_runs;
    std::atomic<pid_t>& m_kernelId;
};

TEST(ThreadTest, BaseDestructorQuitsAndJoinsARunningThread)
{
    std::atomic<int> runs{0};
    std::atomic<pid_t> kernelId{0};
    auto thread = std::make_unique<UnquittingThread>(runs, kernelId);
    thread->Start(kNoLimit);
    EXPECT_TRUE(thread->IsRunning());
    // Asleep on its trigger before the object goes.
    ASSERT_TRUE(WaitUntil([&] { return runs.load() == 1; }));
    ASSERT_TRUE(velorane::test::WaitUntilAsleep(kernelId));

    Stopwatch watch;
    thread.reset();
    EXPECT_LT(watch.ElapsedMs(), 2000.0);
    EXPECT_EQ(runs.load(), 1);
    EXPECT_TRUE(velorane::test::WaitUntilTaskGone(kernelId));
}

TEST(ThreadTest, StartCanFollowQuit)
{
    CountingThread thread;
    thread.Start(kNoLimit);
    thread.Quit();
    thread.Start(kNoLimit);
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_EQ(thread.enters.load(), 2);
    thread.Quit();
    EXPECT_EQ(thread.exits.load(), 2);
}

} // namespace
