#pragma once

// Threads: the controlling thread calls ThreadStart, ThreadQuit, ThreadTrigger
// and ThreadPriority; the new thread runs _FuncStatic and may call
// InternalQuit. Flags and ids crossing between them are atomic; the rest is
// fixed at construction or touched by the controller only.

#include "Common/Platform/Src/Scheduler.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <string>

namespace quorvan::platform {

// A POSIX thread looping around a Runnable: Run() again at once while it
// returns true, otherwise asleep on the trigger event. Start waits until the
// new thread has entered. With autoDelete the object deletes itself on its own
// thread once the loop ends, and nobody may touch it afterwards.
class Thread : public Scheduler::Thread
{
public:
    Thread(Scheduler::Runnable* runnable, long priority, bool autoDelete);
    // Quits and joins (or detaches, with autoDelete) first.
    ~Thread() override;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    void ThreadStart(unsigned long timeoutMs) override;
    void ThreadQuit() override;
    void ThreadReserved() override {}
    void ThreadTrigger() override;
    void ThreadPriority(long priority) override;
    void ThreadSetHint(int value) override { m_hint = value; }
    void GetThreadInfo(unsigned long long& threadId, unsigned long long& cpuTime,
                       std::string* trace) override;
    bool IsRunning() override { return m_running.load(); }
    // For the thread itself: ends the loop after the current Run() without
    // anyone joining.
    void InternalQuit() override;
    bool IsQuitRequested() override { return m_quitRequested.load(); }
    Scheduler::Runnable* GetRunnable() override { return m_runnable; }

    // pthread_self(); callers keep the low 32 bits as the thread's id.
    static unsigned long GetCurrentThreadId();
    static std::string GetStackTrace(unsigned threadId);

private:
    static void* _FuncStatic(void* argument);
    void Loop();

    Scheduler::Runnable* m_runnable;
    Scheduler::Event* m_triggerEvent;
    Scheduler::Event* m_startedEvent;
    Scheduler::Event* m_stoppedEvent;
    Scheduler::Event* m_startConfirmedEvent;
    std::atomic<pthread_t> m_handle{0};
    std::atomic<uint32_t> m_threadId{0};
    int m_priority;
    std::atomic<bool> m_quitRequested{false};
    std::atomic<bool> m_internalQuit{false};
    const bool m_autoDelete;
    // Stored for a host scheduler; nothing here reads it.
    int m_hint = -1;
    std::atomic<bool> m_running{false};
};

} // namespace quorvan::platform
