#include "Common/Platform/Src/ThreadContext.h"

namespace quorvan {

namespace {
// 0xFFFFFFFF is the events' "no limit".
constexpr std::chrono::milliseconds kWaitForever{0xFFFFFFFF};
constexpr unsigned long kStartForever = 0xFFFFFFFF;
} // namespace

std::set<uint32_t> ThreadContext::debugThreadIdSet;
CFastMutex ThreadContext::debugThreadIdSetLock;

ThreadContext::ThreadContext(uint32_t maxQueued, int32_t fullTimeout, bool debug)
    : m_startedEvent(GetScheduler()->CreateEvent(false, false)),
      m_spaceEvent(GetScheduler()->CreateEvent(false, false)), m_maxQueued(maxQueued),
      m_fullTimeout(fullTimeout), m_debug(debug)
{
    Start(kStartForever);
    // Callers compare their own id with GetThreadId() at once, so the first
    // Run must have recorded it. A thread that could not be made never will.
    if (IsRunning()) {
        m_startedEvent->Wait(kWaitForever);
    }
}

ThreadContext::~ThreadContext()
{
    // The thread calls our Run, so it has to be gone before any member is.
    Quit();
    if (m_debug) {
        CAutoFastMutex hold(debugThreadIdSetLock);
        debugThreadIdSet.erase(GetThreadId());
    }
}

void ThreadContext::SetQuitting(bool quitting)
{
    CAutoFastMutex hold(m_queueLock);
    m_quitting = quitting;
}

bool ThreadContext::IsDebugThread(uint32_t threadId) const
{
    CAutoFastMutex hold(debugThreadIdSetLock);
    return debugThreadIdSet.count(threadId) != 0;
}

void ThreadContext::Post(Closure closure, Scheduler::Event* completion)
{
    if (!closure) {
        return;
    }
    auto item = std::make_unique<Closure>(std::move(closure));

    CAutoFastMutex hold(m_queueLock);
    if (m_quitting) {
        return;
    }
    // Waits while the queue is full, and looks again after each wake-up:
    // the space event is set once per finished closure, and one poster that
    // passed on a stale set must not let the queue grow past the bound.
    while (m_queue.size() >= m_maxQueued) {
        hold.Unlock();
        // A negative or zero time-out is the event's "for ever".
        if (!m_spaceEvent->Wait(std::chrono::milliseconds(m_fullTimeout))) {
            return;
        }
        hold.Lock("");
        if (m_quitting) {
            return;
        }
    }
    m_queue.emplace_front(std::move(item), completion);
    hold.Unlock();
    Trigger();

    if (completion) {
        // Our own thread waiting for its own closure would wait for ever;
        // a debug context recognises that and goes on instead.
        const auto self = static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId());
        if (IsDebugThread(self) && self == GetThreadId()) {
            return;
        }
        completion->Wait(kWaitForever);
    }
}

bool ThreadContext::Run()
{
    if (m_firstRun) {
        m_firstRun = false;
        const auto id = static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId());
        m_threadId.store(id, std::memory_order_release);
        if (m_debug) {
            CAutoFastMutex hold(debugThreadIdSetLock);
            debugThreadIdSet.insert(id);
        }
        m_startedEvent->Set();
    }

    // The item stays queued while its closure runs, so a poster's count
    // includes the one in progress. Only this thread removes items and
    // posters push at the front, so the back is still ours afterwards.
    std::unique_ptr<Closure> closure;
    Scheduler::Event* completion = nullptr;
    {
        CAutoFastMutex hold(m_queueLock);
        if (m_queue.empty()) {
            return false;
        }
        Item& back = m_queue.back();
        closure = std::move(back.first);
        completion = back.second;
    }

    try {
        (*closure)();
    } catch (...) {
        // A throwing closure must not take the thread down; it counts as run.
    }
    if (completion) {
        completion->Set();
    }
    closure.reset();

    {
        CAutoFastMutex hold(m_queueLock);
        m_queue.pop_back();
    }
    m_spaceEvent->Set();
    return true;
}

} // namespace quorvan
