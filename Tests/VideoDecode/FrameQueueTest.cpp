// The frame queue: its two lists, its results, its wake-ups and its locks.

#include "Common/VideoDecode/Src/FrameQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <future>
#include <new>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorvan {

// Holds the queue's mutexes and condition variable for the tests below.
class FrameQueueTestAccess
{
public:
    static std::mutex& FreeMutex(FrameQueue& queue) { return queue.m_freeMutex; }
    static std::mutex& FilledMutex(FrameQueue& queue) { return queue.m_filledMutex; }
    static std::condition_variable& FrameAvailable(FrameQueue& queue)
    {
        return queue.m_frameAvailable;
    }
    static size_t FreeCount(FrameQueue& queue)
    {
        std::lock_guard<std::mutex> lock(queue.m_freeMutex);
        return queue.m_free.size();
    }
    static size_t FilledCount(FrameQueue& queue)
    {
        std::lock_guard<std::mutex> lock(queue.m_filledMutex);
        return queue.m_filled.size();
    }
};

} // namespace quorvan

using namespace quorvan;
using Access = quorvan::FrameQueueTestAccess;
using Clock = std::chrono::steady_clock;

namespace {

std::unique_ptr<VideoFrame> FrameOfSize(int64_t size, int32_t number = 0)
{
    auto frame = std::make_unique<VideoFrame>();
    frame->size = static_cast<int32_t>(size);
    frame->number = number;
    return frame;
}

// Waits on the queue's condition variable as the consumer would, and says
// whether a notify ended the wait. The waiter announces itself under the
// mutex, so once the caller has seen the announcement under the same mutex
// the waiter is inside the wait.
class NotifyProbe
{
public:
    explicit NotifyProbe(FrameQueue& queue) : m_queue(queue)
    {
        m_thread = std::thread([this] {
            std::unique_lock<std::mutex> lock(Access::FilledMutex(m_queue));
            m_waiting = true;
            m_status =
                Access::FrameAvailable(m_queue).wait_for(lock, std::chrono::milliseconds(800));
        });
        for (;;) {
            std::lock_guard<std::mutex> lock(Access::FilledMutex(m_queue));
            if (m_waiting) {
                break;
            }
        }
    }
    // True when a notify, not the time-out, ended the wait.
    bool Woken()
    {
        m_thread.join();
        return m_status == std::cv_status::no_timeout;
    }

private:
    FrameQueue& m_queue;
    std::thread m_thread;
    bool m_waiting = false;
    std::cv_status m_status = std::cv_status::timeout;
};

} // namespace

TEST(VideoFrameTest, HasTheWireLayoutSizes)
{
    EXPECT_EQ(kMaxFrameSize, 0x100000u);
    EXPECT_EQ(sizeof(VideoFrame::data), 0x100008u);
    EXPECT_EQ(offsetof(VideoFrame, number), 0u);
    EXPECT_EQ(offsetof(VideoFrame, size), 4u);
    EXPECT_EQ(offsetof(VideoFrame, width), 8u);
    EXPECT_EQ(offsetof(VideoFrame, height), 12u);
    EXPECT_EQ(offsetof(VideoFrame, wireNumber), 16u);
    EXPECT_EQ(offsetof(VideoFrame, wireSize), 20u);
    EXPECT_EQ(offsetof(VideoFrame, data), 24u);
    EXPECT_EQ(sizeof(VideoFrame), 24u + 0x100008u);
}

TEST(VideoFrameTest, NewFrameIsZeroThroughout)
{
    auto frame = std::make_unique<VideoFrame>();
    EXPECT_EQ(frame->number, 0);
    EXPECT_EQ(frame->size, 0);
    EXPECT_EQ(frame->width, 0u);
    EXPECT_EQ(frame->height, 0u);
    EXPECT_EQ(frame->wireNumber, 0);
    EXPECT_EQ(frame->wireSize, 0);
    size_t nonZero = 0;
    for (uint8_t byte : frame->data) {
        nonZero += byte != 0;
    }
    EXPECT_EQ(nonZero, 0u);
}

TEST(FrameQueueTest, ConstructorMakesZeroedFramesOf1920By1080)
{
    FrameQueue queue(2);
    EXPECT_EQ(Access::FreeCount(queue), 2u);
    EXPECT_EQ(Access::FilledCount(queue), 0u);
    std::unique_ptr<VideoFrame> frame;
    ASSERT_EQ(queue.RequestFrame(frame), FrameQueueOk);
    EXPECT_EQ(frame->width, 1920u);
    EXPECT_EQ(frame->height, 1080u);
    EXPECT_EQ(frame->number, 0);
    EXPECT_EQ(frame->size, 0);
    EXPECT_EQ(frame->data[0], 0);
    EXPECT_EQ(frame->data[kFrameDataSize - 1], 0);
}

TEST(FrameQueueTest, CapacityZeroMakesNoFrame)
{
    FrameQueue queue(0);
    std::unique_ptr<VideoFrame> frame = FrameOfSize(5);
    EXPECT_EQ(queue.RequestFrame(frame), NoFreeFrame);
    EXPECT_EQ(frame, nullptr);
}

TEST(FrameQueueTest, CapacityThreeGivesThreeFramesThenNoFreeFrameAndNull)
{
    FrameQueue queue(3);
    std::unique_ptr<VideoFrame> frames[3];
    for (auto& frame : frames) {
        EXPECT_EQ(queue.RequestFrame(frame), FrameQueueOk);
        EXPECT_NE(frame, nullptr);
    }
    std::unique_ptr<VideoFrame> fourth = FrameOfSize(1);
    EXPECT_EQ(queue.RequestFrame(fourth), NoFreeFrame);
    EXPECT_EQ(fourth, nullptr);
}

TEST(FrameQueueTest, PopOnEmptyQueueGivesEmptyAndNullAndDropsWhatWasHeld)
{
    FrameQueue queue(3);
    std::unique_ptr<VideoFrame> frame = FrameOfSize(10);
    EXPECT_EQ(queue.PopFrame(frame), FrameQueueEmpty);
    EXPECT_EQ(frame, nullptr);
    // The dropped frame went nowhere: both lists are as they were.
    EXPECT_EQ(Access::FreeCount(queue), 3u);
    EXPECT_EQ(Access::FilledCount(queue), 0u);
}

TEST(FrameQueueTest, FrameOfExactlyMaxSizeIsAccepted)
{
    FrameQueue queue(3);
    VideoFrame* pushed = nullptr;
    auto frame = FrameOfSize(0x100000);
    pushed = frame.get();
    EXPECT_EQ(queue.PushFrame(std::move(frame)), FrameQueueOk);
    EXPECT_EQ(Access::FilledCount(queue), 1u);
    std::unique_ptr<VideoFrame> popped;
    EXPECT_EQ(queue.PopFrame(popped), FrameQueueOk);
    EXPECT_EQ(popped.get(), pushed);
}

TEST(FrameQueueTest, FrameOneByteAboveMaxGivesFrameTooLargeAndLandsOnFreeList)
{
    FrameQueue queue(3);
    auto frame = FrameOfSize(0x100001);
    VideoFrame* oversized = frame.get();
    EXPECT_EQ(queue.PushFrame(std::move(frame)), FrameTooLarge);
    EXPECT_EQ(Access::FilledCount(queue), 0u);
    EXPECT_EQ(Access::FreeCount(queue), 4u);

    // Kept, at the back of the free list.
    std::unique_ptr<VideoFrame> taken;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(queue.RequestFrame(taken), FrameQueueOk);
    }
    EXPECT_EQ(taken.get(), oversized);
    EXPECT_EQ(taken->size, 0x100001);
}

TEST(FrameQueueTest, NegativeSizeIsAtMostMaxAndQueued)
{
    FrameQueue queue(1);
    EXPECT_EQ(queue.PushFrame(FrameOfSize(-1)), FrameQueueOk);
    EXPECT_EQ(Access::FilledCount(queue), 1u);
}

TEST(FrameQueueTest, OversizedPushWakesNobody)
{
    FrameQueue queue(3);
    NotifyProbe probe(queue);
    EXPECT_EQ(queue.PushFrame(FrameOfSize(0x100001)), FrameTooLarge);
    EXPECT_FALSE(probe.Woken());
}

TEST(FrameQueueTest, PushWakesTheWaiter)
{
    FrameQueue queue(3);
    NotifyProbe probe(queue);
    EXPECT_EQ(queue.PushFrame(FrameOfSize(16)), FrameQueueOk);
    EXPECT_TRUE(probe.Woken());
}

TEST(FrameQueueTest, ReleaseFrameWakesNobody)
{
    FrameQueue queue(3);
    NotifyProbe probe(queue);
    queue.ReleaseFrame(FrameOfSize(16));
    EXPECT_FALSE(probe.Woken());
    EXPECT_EQ(Access::FreeCount(queue), 4u);
}

TEST(FrameQueueTest, WaitForFrameWithFrameQueuedReturnsAtOnce)
{
    FrameQueue queue(3);
    queue.PushFrame(FrameOfSize(16));
    const auto start = Clock::now();
    queue.WaitForFrame();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(100));
}

TEST(FrameQueueTest, WaitForFrameOnEmptyQueueReturnsAfterOneSecond)
{
    FrameQueue queue(3);
    const auto start = Clock::now();
    queue.WaitForFrame();
    const auto waited = Clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(1000));
    EXPECT_LT(waited, std::chrono::milliseconds(1500));
}

TEST(FrameQueueTest, WaitForFrameReturnsWhenAFrameIsPushed)
{
    FrameQueue queue(3);
    auto waiter = std::async(std::launch::async, [&queue] {
        const auto start = Clock::now();
        queue.WaitForFrame();
        return Clock::now() - start;
    });
    // Whether the push comes before or during the wait, the wait ends with
    // the frame and well before its deadline.
    queue.PushFrame(FrameOfSize(16));
    EXPECT_LT(waiter.get(), std::chrono::milliseconds(900));
}

TEST(FrameQueueTest, FramesLeaveInTheOrderTheyCame)
{
    FrameQueue queue(0);
    for (int32_t number = 1; number <= 5; ++number) {
        ASSERT_EQ(queue.PushFrame(FrameOfSize(8, number)), FrameQueueOk);
    }
    std::unique_ptr<VideoFrame> frame;
    for (int32_t number = 1; number <= 5; ++number) {
        ASSERT_EQ(queue.PopFrame(frame), FrameQueueOk);
        EXPECT_EQ(frame->number, number);
    }
    EXPECT_EQ(queue.PopFrame(frame), FrameQueueEmpty);
}

TEST(FrameQueueTest, ReleasedFramesGoToTheBackOfTheFreeList)
{
    FrameQueue queue(1);
    queue.ReleaseFrame(FrameOfSize(1, 77));
    std::unique_ptr<VideoFrame> frame;
    ASSERT_EQ(queue.RequestFrame(frame), FrameQueueOk);
    EXPECT_EQ(frame->number, 0);
    ASSERT_EQ(queue.RequestFrame(frame), FrameQueueOk);
    EXPECT_EQ(frame->number, 77);
}

TEST(FrameQueueTest, NullFramesAreNotStored)
{
    FrameQueue queue(1);
    EXPECT_EQ(queue.PushFrame(nullptr), FrameQueueOk);
    queue.ReleaseFrame(nullptr);
    EXPECT_EQ(Access::FilledCount(queue), 0u);
    EXPECT_EQ(Access::FreeCount(queue), 1u);
}

TEST(FrameQueueTest, ResetQueueMovesEveryFilledFrameToTheFreeList)
{
    FrameQueue queue(1);
    for (int32_t number = 1; number <= 3; ++number) {
        queue.PushFrame(FrameOfSize(8, number));
    }
    queue.ResetQueue();
    EXPECT_EQ(Access::FilledCount(queue), 0u);
    EXPECT_EQ(Access::FreeCount(queue), 4u);
    std::unique_ptr<VideoFrame> frame;
    queue.RequestFrame(frame);
    EXPECT_EQ(frame->number, 0);
    for (int32_t number = 1; number <= 3; ++number) {
        queue.RequestFrame(frame);
        EXPECT_EQ(frame->number, number);
    }
}

TEST(FrameQueueTest, ResetQueueOnEmptyQueueTakesNoLock)
{
    FrameQueue queue(3);
    std::unique_lock<std::mutex> filled(Access::FilledMutex(queue));
    std::unique_lock<std::mutex> free(Access::FreeMutex(queue));
    auto reset = std::async(std::launch::async, [&queue] { queue.ResetQueue(); });
    const bool returned = reset.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    free.unlock();
    filled.unlock();
    reset.get();
    EXPECT_TRUE(returned);
}

TEST(FrameQueueTest, ResetQueueOnFilledQueueWaitsForTheLocks)
{
    FrameQueue queue(3);
    queue.PushFrame(FrameOfSize(8));
    std::unique_lock<std::mutex> filled(Access::FilledMutex(queue));
    auto reset = std::async(std::launch::async, [&queue] { queue.ResetQueue(); });
    const bool returnedEarly =
        reset.wait_for(std::chrono::milliseconds(200)) == std::future_status::ready;
    filled.unlock();
    reset.get();
    EXPECT_FALSE(returnedEarly);
    EXPECT_EQ(Access::FreeCount(queue), 4u);
}

TEST(FrameQueueTest, ProducerAndConsumerKeepTheTokenCount)
{
    // The relay's pattern on two threads: the producer takes a token and
    // pushes a frame in its place, dropping when none is free; the consumer
    // pops, and gives back one frame for each it takes.
    FrameQueue queue(3);
    constexpr int kFrames = 2000;
    std::atomic<bool> producing{true};
    std::atomic<int> consumed{0};
    std::thread consumer([&] {
        for (;;) {
            // Read before draining: once the producer is done, every push
            // it made is visible to the drain below.
            const bool more = producing.load();
            std::unique_ptr<VideoFrame> frame;
            while (queue.PopFrame(frame) == FrameQueueOk) {
                consumed.fetch_add(1);
                queue.ReleaseFrame(std::move(frame));
            }
            if (!more) {
                break;
            }
            queue.WaitForFrame();
        }
    });
    int delivered = 0;
    for (int i = 0; i < kFrames; ++i) {
        std::unique_ptr<VideoFrame> token;
        if (queue.RequestFrame(token) != FrameQueueOk) {
            std::this_thread::yield();
            continue;
        }
        token = FrameOfSize(i % 100, i);
        ASSERT_EQ(queue.PushFrame(std::move(token)), FrameQueueOk);
        ++delivered;
    }
    producing.store(false);
    consumer.join();
    EXPECT_EQ(consumed.load(), delivered);
    EXPECT_EQ(Access::FreeCount(queue), 3u);
    EXPECT_EQ(Access::FilledCount(queue), 0u);
}

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// The bytes of address space the process has mapped now.
size_t MappedBytes()
{
    FILE* statm = std::fopen("/proc/self/statm", "r");
    unsigned long pages = 0;
    if (statm) {
        if (std::fscanf(statm, "%lu", &pages) != 1) {
            pages = 0;
        }
        std::fclose(statm);
    }
    return pages * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

} // namespace

// Memory running out while the frames are made: what was built is
// destroyed and the exception goes on to the caller. In a child whose
// address space is capped at 256 MiB above what it has: 1000 frames of
// 1 MiB can't be had, and after the failure 200 can, so the frames made
// before it were given back.
TEST(FrameQueueTest, AllocationFailureInTheConstructorPassesTheExceptionOn)
{
    if (kSanitized) {
        GTEST_SKIP() << "a sanitizer's shadow memory needs an address space without a cap";
    }
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rlimit cap{};
        ::getrlimit(RLIMIT_AS, &cap);
        cap.rlim_cur = MappedBytes() + (256u << 20);
        ::setrlimit(RLIMIT_AS, &cap);
        try {
            FrameQueue queue(1000);
            ::_exit(1);
        } catch (const std::bad_alloc&) {
        } catch (...) {
            ::_exit(2);
        }
        try {
            FrameQueue queue(200);
            std::unique_ptr<VideoFrame> frame;
            ::_exit(queue.RequestFrame(frame) == FrameQueueOk ? 0 : 3);
        } catch (...) {
            ::_exit(4);
        }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
