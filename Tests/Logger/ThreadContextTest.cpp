// The closure queue behind the file store's writer thread.

#include "Common/Platform/Src/ThreadContext.h"
#include "Common/Platform/Src/Mutex.h"
#include "Common/Platform/Src/Scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace quorvan;

namespace {

constexpr std::chrono::milliseconds kForever{0xFFFFFFFF};

using EventPtr = std::unique_ptr<Scheduler::Event>;

EventPtr MakeEvent()
{
    return EventPtr(GetScheduler()->CreateEvent(false, false));
}

uint32_t CurrentThreadId()
{
    return static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId());
}

// Returns once everything posted before has run.
void Drain(ThreadContext& context)
{
    EventPtr done = MakeEvent();
    context.Post([] {}, done.get());
}

bool InDebugSet(uint32_t id)
{
    CAutoFastMutex hold(ThreadContext::debugThreadIdSetLock);
    return ThreadContext::debugThreadIdSet.count(id) != 0;
}

// Lets a test see when the destructor has asked the thread to quit.
class ObservableContext : public ThreadContext
{
public:
    using ThreadContext::ThreadContext;
    Scheduler::Thread* Platform() const { return PlatformThread(); }
};

TEST(ThreadContextTest, ThreadIdIsKnownWhenTheConstructorReturns)
{
    CRefCountPtr<ThreadContext> context(new ThreadContext(10, -1));
    const uint32_t id = context->GetThreadId();
    EXPECT_NE(id, 0u);
    EXPECT_NE(id, CurrentThreadId());

    uint32_t seen = 0;
    EventPtr done = MakeEvent();
    context->Post([&seen] { seen = CurrentThreadId(); }, done.get());
    EXPECT_EQ(seen, id);
}

TEST(ThreadContextTest, ClosuresRunFirstInFirstOut)
{
    std::vector<int> order;
    CRefCountPtr<ThreadContext> context(new ThreadContext(1000, -1));
    for (int i = 0; i < 300; ++i) {
        context->Post([&order, i] { order.push_back(i); }, nullptr);
    }
    Drain(*context);

    ASSERT_EQ(order.size(), 300u);
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(order[i], i);
    }
}

TEST(ThreadContextTest, RunTakesOneClosurePerCallAndReturnsFalseWhenEmpty)
{
    std::vector<int> order;
    CRefCountPtr<ThreadContext> context(new ThreadContext(10, -1));
    // With its thread stopped, the queue is ours to run by hand.
    context->Quit();
    EXPECT_FALSE(context->Run());

    context->Post([&order] { order.push_back(1); }, nullptr);
    context->Post([&order] { order.push_back(2); }, nullptr);

    EXPECT_TRUE(context->Run());
    EXPECT_EQ(order, std::vector<int>{1});
    EXPECT_TRUE(context->Run());
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_FALSE(context->Run());
}

TEST(ThreadContextTest, PostWithCompletionReturnsOnlyAfterTheClosureRan)
{
    std::atomic<bool> ran{false};
    EventPtr done = MakeEvent();
    CRefCountPtr<ThreadContext> context(new ThreadContext(10, -1));
    context->Post(
        [&ran] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ran = true;
        },
        done.get());
    EXPECT_TRUE(ran.load());
}

TEST(ThreadContextTest, EmptyClosureIsIgnored)
{
    CRefCountPtr<ThreadContext> context(new ThreadContext(10, -1));
    EventPtr done = MakeEvent();
    // Queued, it would have made this call wait for its completion.
    context->Post(ThreadContext::Closure(), done.get());
    EXPECT_FALSE(done->Wait(std::chrono::milliseconds(20)));

    context->Quit();
    context->Post(ThreadContext::Closure(), nullptr);
    EXPECT_FALSE(context->Run());
}

TEST(ThreadContextTest, FullQueueBlocksThePosterUntilOneClosureFinishes)
{
    // Declared before the context, which uses them until it is gone.
    EventPtr started = MakeEvent();
    EventPtr gate = MakeEvent();
    std::vector<char> order;
    CRefCountPtr<ThreadContext> context(new ThreadContext(2, -1));
    context->Post(
        [&] {
            order.push_back('A');
            started->Set();
            gate->Wait(kForever);
        },
        nullptr);
    started->Wait(kForever);
    // A, still running, counts: with B the queue holds its two.
    context->Post([&order] { order.push_back('B'); }, nullptr);

    std::atomic<bool> posted{false};
    std::thread poster([&] {
        context->Post([&order] { order.push_back('C'); }, nullptr);
        posted = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(posted.load());

    gate->Set();
    poster.join();
    EXPECT_TRUE(posted.load());
    Drain(*context);
    EXPECT_EQ(order, (std::vector<char>{'A', 'B', 'C'}));
}

TEST(ThreadContextTest, PosterThatTimesOutOnAFullQueueDropsItsClosure)
{
    EventPtr started = MakeEvent();
    EventPtr gate = MakeEvent();
    std::vector<char> order;
    CRefCountPtr<ThreadContext> context(new ThreadContext(1, 50));
    context->Post(
        [&] {
            order.push_back('A');
            started->Set();
            gate->Wait(kForever);
        },
        nullptr);
    started->Wait(kForever);

    // A is still queued while it runs, so the queue is full for 50 ms.
    auto token = std::make_shared<int>(0);
    context->Post([&order, token] { order.push_back('B'); }, nullptr);
    EXPECT_EQ(token.use_count(), 1);

    // Stopping the thread waits for A; nothing else was queued.
    gate->Set();
    context->Quit();
    EXPECT_FALSE(context->Run());
    EXPECT_EQ(order, std::vector<char>{'A'});
}

TEST(ThreadContextTest, LeftOverSpaceSignalDoesNotLetAPosterPastTheBound)
{
    std::vector<char> order;
    CRefCountPtr<ThreadContext> context(new ThreadContext(1, 50));
    context->Quit();
    auto push = [&order](char c) { return [&order, c] { order.push_back(c); }; };

    context->Post(push('A'), nullptr);
    // Full and nothing finishes within the time-out: B is dropped.
    context->Post(push('B'), nullptr);
    // A finishes with nobody waiting: its space signal stays set.
    EXPECT_TRUE(context->Run());
    context->Post(push('C'), nullptr);
    // Full again: the left-over signal wakes D at once, but D looks again,
    // still finds the queue full, waits out its time and is dropped, as E.
    context->Post(push('D'), nullptr);
    context->Post(push('E'), nullptr);

    EXPECT_TRUE(context->Run());
    EXPECT_FALSE(context->Run());
    EXPECT_EQ(order, (std::vector<char>{'A', 'C'}));
}

TEST(ThreadContextTest, HeldBackWriterKeepsAHundredQueuedAndLosesNothing)
{
    // The file store's writer: a bound of 100, posters wait for ever.
    EventPtr started = MakeEvent();
    EventPtr gate = MakeEvent();
    std::mutex ranLock;
    std::vector<std::pair<int, int>> ran; // poster, sequence
    CRefCountPtr<ThreadContext> context(new ThreadContext(100, -1));
    context->Post(
        [&] {
            started->Set();
            gate->Wait(kForever);
        },
        nullptr);
    started->Wait(kForever);

    // Five posters, 60 closures each, while the writer is held: only 99 fit
    // beside the closure that runs.
    constexpr int kPosters = 5;
    constexpr int kEach = 60;
    std::atomic<int> returned{0};
    std::vector<std::thread> posters;
    for (int poster = 0; poster < kPosters; ++poster) {
        posters.emplace_back([&, poster] {
            for (int sequence = 0; sequence < kEach; ++sequence) {
                context->Post(
                    [&, poster, sequence] {
                        std::lock_guard<std::mutex> hold(ranLock);
                        ran.emplace_back(poster, sequence);
                    },
                    nullptr);
                ++returned;
            }
        });
    }
    // Generous: the 99 go in at once, and nothing more comes however long
    // the posters wait.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (returned.load() < 99 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(returned.load(), 99);

    gate->Set();
    for (auto& poster : posters) {
        poster.join();
    }
    Drain(*context);
    EXPECT_EQ(returned.load(), kPosters * kEach);
    ASSERT_EQ(ran.size(), static_cast<size_t>(kPosters * kEach));
    // Each poster's closures ran in the order it posted them.
    std::vector<int> next(kPosters, 0);
    for (const auto& [poster, sequence] : ran) {
        EXPECT_EQ(sequence, next[static_cast<size_t>(poster)]++);
    }
}

TEST(ThreadContextTest, QuittingFlagDiscardsPosts)
{
    std::atomic<bool> ran{false};
    auto token = std::make_shared<int>(0);
    CRefCountPtr<ThreadContext> context(new ThreadContext(10, -1));

    context->SetQuitting(true);
    EventPtr done = MakeEvent();
    // Discarded before the completion wait, so this returns at once.
    context->Post([&ran, token] { ran = true; }, done.get());
    EXPECT_EQ(token.use_count(), 1);

    context->SetQuitting(false);
    Drain(*context);
    EXPECT_FALSE(ran.load());
}

TEST(ThreadContextTest, DestructorQuitsWithoutRunningQueuedClosures)
{
    EventPtr started = MakeEvent();
    EventPtr gate = MakeEvent();
    std::atomic<bool> ranA{false};
    std::atomic<bool> ranB{false};
    auto token = std::make_shared<int>(0);
    auto* context = new ObservableContext(10, -1);
    Scheduler::Thread* platform = context->Platform();

    context->Post(
        [&] {
            ranA = true;
            started->Set();
            gate->Wait(kForever);
        },
        nullptr);
    started->Wait(kForever);
    context->Post([&ranB, token] { ranB = true; }, nullptr);

    // A ends only once the destructor has asked the thread to quit.
    std::thread opener([&] {
        while (!platform->IsQuitRequested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        gate->Set();
    });
    context->Release();
    opener.join();

    EXPECT_TRUE(ranA.load());
    EXPECT_FALSE(ranB.load());
    EXPECT_EQ(token.use_count(), 1);
}

TEST(ThreadContextTest, DebugContextEntersItsIdForItsLifetime)
{
    CRefCountPtr<ThreadContext> plain(new ThreadContext(10, -1));
    CRefCountPtr<ThreadContext> debug(new ThreadContext(10, -1, true));
    const uint32_t debugId = debug->GetThreadId();

    EXPECT_FALSE(InDebugSet(plain->GetThreadId()));
    EXPECT_TRUE(InDebugSet(debugId));
    debug.Reset();
    EXPECT_FALSE(InDebugSet(debugId));
}

TEST(ThreadContextTest, DebugContextPostingToItselfDoesNotWaitForItself)
{
    std::vector<int> order;
    EventPtr inner = MakeEvent();
    CRefCountPtr<ThreadContext> context(new ThreadContext(10, -1, true));
    ThreadContext* self = context.Get();
    context->Post(
        [&] {
            order.push_back(1);
            self->Post([&order] { order.push_back(3); }, inner.get());
            order.push_back(2);
        },
        nullptr);
    // The inner closure runs after the outer one, and sets its event.
    inner->Wait(kForever);

    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

} // namespace
