#include "Common/VideoDecode/Src/FrameQueue.h"

#include <chrono>
#include <utility>

namespace quorvan {

namespace {

constexpr uint32_t kQueueFrameWidth = 1920;
constexpr uint32_t kQueueFrameHeight = 1080;
constexpr std::chrono::nanoseconds kWaitLimit{1000000000};

} // namespace

FrameQueue::FrameQueue(unsigned capacity)
{
    // A failed allocation destroys the frames made so far with the deque and
    // passes the exception on.
    for (unsigned i = 0; i < capacity; ++i) {
        auto frame = std::make_unique<VideoFrame>();
        frame->width = kQueueFrameWidth;
        frame->height = kQueueFrameHeight;
        m_free.push_back(std::move(frame));
    }
}

FrameQueue::~FrameQueue() = default;

FrameQueueResult FrameQueue::RequestFrame(std::unique_ptr<VideoFrame>& frame)
{
    // What the caller held goes when this returns, outside the lock.
    std::unique_ptr<VideoFrame> previous = std::move(frame);
    std::lock_guard<std::mutex> lock(m_freeMutex);
    if (m_free.empty()) {
        return NoFreeFrame;
    }
    frame = std::move(m_free.front());
    m_free.pop_front();
    return FrameQueueOk;
}

FrameQueueResult FrameQueue::PushFrame(std::unique_ptr<VideoFrame> frame)
{
    if (!frame) {
        return FrameQueueOk;
    }
    if (static_cast<int64_t>(frame->size) <= static_cast<int64_t>(kMaxFrameSize)) {
        {
            std::lock_guard<std::mutex> lock(m_filledMutex);
            m_filled.push_back(std::move(frame));
            m_filledCount.store(m_filled.size(), std::memory_order_release);
        }
        m_frameAvailable.notify_one();
        return FrameQueueOk;
    }
    // Too large to decode: the frame is kept, as a token on the free list.
    std::lock_guard<std::mutex> lock(m_freeMutex);
    m_free.push_back(std::move(frame));
    return FrameTooLarge;
}

FrameQueueResult FrameQueue::PopFrame(std::unique_ptr<VideoFrame>& frame)
{
    std::unique_ptr<VideoFrame> previous = std::move(frame);
    std::lock_guard<std::mutex> lock(m_filledMutex);
    if (m_filled.empty()) {
        return FrameQueueEmpty;
    }
    frame = std::move(m_filled.front());
    m_filled.pop_front();
    m_filledCount.store(m_filled.size(), std::memory_order_release);
    return FrameQueueOk;
}

void FrameQueue::ReleaseFrame(std::unique_ptr<VideoFrame> frame)
{
    if (!frame) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_freeMutex);
    m_free.push_back(std::move(frame));
}

void FrameQueue::WaitForFrame()
{
    std::unique_lock<std::mutex> lock(m_filledMutex);
    const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (m_filled.empty() && std::chrono::steady_clock::now() < deadline) {
        m_frameAvailable.wait_until(lock, deadline);
    }
}

void FrameQueue::ResetQueue()
{
    // The emptiness test is made on the mirrored count, without a lock.
    while (m_filledCount.load(std::memory_order_acquire) != 0) {
        std::lock_guard<std::mutex> filledLock(m_filledMutex);
        std::lock_guard<std::mutex> freeLock(m_freeMutex);
        // The consumer may have taken the last frame since the test.
        if (!m_filled.empty()) {
            m_free.push_back(std::move(m_filled.front()));
            m_filled.pop_front();
            m_filledCount.store(m_filled.size(), std::memory_order_release);
        }
    }
}

} // namespace quorvan
