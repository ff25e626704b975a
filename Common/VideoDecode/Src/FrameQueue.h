#pragma once

#include "Common/VideoDecode/Src/VideoFrame.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

namespace quorvan {

// Results of the queue's operations.
enum FrameQueueResult : uint32_t
{
    FrameQueueOk = 0,
    FrameQueueEmpty = 1,
    NoFreeFrame = 2,
    FrameTooLarge = 3,
};

// Carries compressed frames from the thread that receives them to the
// decoder thread, in two lists: the free list, whose frames are the tokens
// that bound how many frames are in flight, and the filled list, the frames
// waiting for the decoder in order of arrival. Frames move between lists by
// pointer, never copied.
//
// Threads: the producer (the GUI thread) calls RequestFrame and PushFrame;
// the consumer (the decoder thread) calls PopFrame, ReleaseFrame and
// WaitForFrame. m_freeMutex guards m_free; m_filledMutex guards m_filled and
// is the mutex of m_frameAvailable, so a waiter can't miss a push. Each list
// has its own mutex so that producer and consumer don't contend. Only
// ResetQueue takes both, m_filledMutex first; no other operation holds one
// while taking the other. m_filledCount mirrors m_filled's size, written
// under m_filledMutex, and lets ResetQueue test for emptiness without a lock.
//
// Full policy: drop newest. A taker that finds the free list empty drops
// its own frame; nothing ever waits for a token.
class FrameQueue
{
public:
    // Makes capacity zeroed frames of 1920 by 1080 for the free list.
    explicit FrameQueue(unsigned capacity);
    ~FrameQueue();
    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    // Takes the front of the free list into frame, or sets frame to null and
    // answers NoFreeFrame. What frame held before is destroyed either way.
    FrameQueueResult RequestFrame(std::unique_ptr<VideoFrame>& frame);
    // Appends to the filled list and wakes the consumer. A frame larger than
    // kMaxFrameSize is parked on the free list instead, waking nobody, and
    // answers FrameTooLarge. A null frame is not stored.
    FrameQueueResult PushFrame(std::unique_ptr<VideoFrame> frame);
    // Takes the front of the filled list into frame, or sets frame to null
    // and answers FrameQueueEmpty. What frame held before is destroyed.
    FrameQueueResult PopFrame(std::unique_ptr<VideoFrame>& frame);
    // Appends to the free list. No wake-up: nothing waits for tokens. A null
    // frame is not stored.
    void ReleaseFrame(std::unique_ptr<VideoFrame> frame);
    // Returns once the filled list holds a frame, or after one second. There
    // is no early release; PopFrame tells what happened.
    void WaitForFrame();
    // Moves every filled frame back to the free list. An empty queue takes
    // no lock.
    void ResetQueue();

private:
    // Lets tests hold the queue's mutexes to see which operations take them.
    friend class FrameQueueTestAccess;

    std::mutex m_freeMutex;
    std::mutex m_filledMutex;
    std::deque<std::unique_ptr<VideoFrame>> m_filled;
    std::deque<std::unique_ptr<VideoFrame>> m_free;
    std::condition_variable m_frameAvailable;
    std::atomic<std::size_t> m_filledCount{0};
};

} // namespace quorvan
