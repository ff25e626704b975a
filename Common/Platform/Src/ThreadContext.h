#pragma once

#include "Common/Platform/Src/Mutex.h"
#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/Thread.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <utility>

namespace quorvan {

// A thread that runs posted closures one at a time, first in, first out.
//
// Threads: any number of posting threads call Post and SetQuitting; the
// context's own thread calls Run. m_queueLock guards m_queue and m_quitting.
// m_firstRun and m_debug belong to the context's thread after the
// constructor; m_threadId is written once by that thread and read anywhere.
//
// Full policy: block. A poster that finds maxQueued items or more waits
// until a finished closure makes room (each wait at most fullTimeout ms, -1
// for ever) and drops its own closure only when a wait fails. The closure
// that runs stays in the queue until it has run, so it counts.
class ThreadContext : public Thread, public IRefCountImpl
{
public:
    using Closure = std::function<void()>;

    // Starts the thread and returns once it has run, so GetThreadId is
    // known to every caller. debug enters the id in debugThreadIdSet.
    ThreadContext(uint32_t maxQueued, int32_t fullTimeout, bool debug = false);
    // Quits the thread; closures still queued are destroyed without running.
    ~ThreadContext() override;
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;

    // Queues the closure; an empty one is ignored. With a completion event
    // the call returns only after the closure has run and set it.
    void Post(Closure closure, Scheduler::Event* completion);
    // One closure per call: true if one ran, false if the queue was empty.
    bool Run() override;

    // Low 32 bits of the context thread's id.
    uint32_t GetThreadId() const { return m_threadId.load(std::memory_order_acquire); }
    // While set, posts are discarded.
    void SetQuitting(bool quitting);

    // Ids of the context threads made with debug set, so that a poster can
    // tell that it is about to wait for itself.
    static std::set<uint32_t> debugThreadIdSet;
    static CFastMutex debugThreadIdSetLock;

private:
    using Item = std::pair<std::unique_ptr<Closure>, Scheduler::Event*>;

    bool IsDebugThread(uint32_t threadId) const;

    std::deque<Item> m_queue;
    CFastMutex m_queueLock;
    std::unique_ptr<Scheduler::Event> m_startedEvent;
    std::unique_ptr<Scheduler::Event> m_spaceEvent;
    bool m_firstRun = true;
    std::atomic<uint32_t> m_threadId{0};
    uint32_t m_maxQueued;
    int32_t m_fullTimeout;
    bool m_debug;
    bool m_quitting = false;
};

} // namespace quorvan
