#pragma once

#include "Common/Platform/Src/Date.h"
#include "Common/Platform/Src/Result.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace quorvan {

class ITimer;
class UUID;

// The one object through which the common code makes threads, locks, events
// and monitors and reads the time. DefaultScheduler delegates to the
// platform layer; a host may install its own with SetScheduler before the
// first GetScheduler.
class Scheduler
{
public:
    // The body of a thread: ThreadEnter before the first Run, ThreadExit after
    // the last, all on the new thread.
    class Runnable
    {
    public:
        virtual ~Runnable() = default;
        // True means there may be more work at once.
        virtual bool Run() = 0;
        virtual bool ThreadEnter() = 0;
        virtual bool ThreadExit() = 0;
    };

    class Thread
    {
    public:
        virtual ~Thread() = default;
        virtual void ThreadStart(unsigned long timeoutMs) = 0;
        virtual void ThreadQuit() = 0;
        virtual void ThreadReserved() = 0;
        virtual void ThreadTrigger() = 0;
        virtual void ThreadPriority(long priority) = 0;
        virtual void ThreadSetHint(int value) = 0;
        virtual void GetThreadInfo(unsigned long long& threadId, unsigned long long& cpuTime,
                                   std::string* trace) = 0;
        virtual bool IsRunning() = 0;
        virtual void InternalQuit() = 0;
        virtual bool IsQuitRequested() = 0;
        virtual Runnable* GetRunnable() = 0;
    };

    class Event
    {
    public:
        virtual ~Event() = default;
        // A timeout of 0, below 0 or 0xFFFFFFFF waits without limit.
        virtual bool Wait(std::chrono::milliseconds timeout) = 0;
        virtual void Set() = 0;
        virtual void Reset() = 0;
    };

    // Recursive; 0xFFFFFFFF means no time-out.
    class Mutex
    {
    public:
        virtual ~Mutex() = default;
        virtual RESULT Lock(const char* name, unsigned timeoutMs) = 0;
        virtual RESULT Unlock() = 0;
    };

    class FastMutex
    {
    public:
        virtual ~FastMutex() = default;
        virtual RESULT Lock(const char* name) = 0;
        virtual RESULT Unlock() = 0;
    };

    class Monitor
    {
    public:
        virtual ~Monitor() = default;
        virtual RESULT Lock() = 0;
        virtual RESULT Unlock() = 0;
        virtual RESULT LockWithCount(int count) = 0;
        virtual RESULT UnlockAll(int* count) = 0;
        virtual RESULT Wait(std::chrono::milliseconds timeout) = 0;
        virtual RESULT Notify() = 0;
    };

    virtual ~Scheduler() = default;
    virtual void Sleep(unsigned milliseconds) = 0;
    virtual Thread* CreateThread(Runnable* runnable, long priority, bool autoDelete) = 0;
    virtual unsigned long GetCurrentThreadId() = 0;
    // Runs a blocking wait; a substitute scheduler may wrap it.
    virtual void ExecuteBlocking(std::function<void()> work) = 0;
    virtual std::string GetStackTrace() = 0;
    virtual Mutex* CreateMutex() = 0;
    virtual FastMutex* CreateFastMutex() = 0;
    virtual Monitor* CreateMonitor() = 0;
    virtual Event* CreateEvent(bool manualReset, bool initiallySignalled) = 0;
    virtual int64_t LocalMilliseconds() = 0;
    virtual Date LocalNow() = 0;
    virtual int64_t UTCMilliseconds() = 0;
    virtual Date UTCNow() = 0;
    virtual int64_t MonotonicMilliseconds() = 0;
    virtual RESULT CreateTimerInstance(ITimer*& timer) = 0;
    virtual int GetDefaultConstant() = 0;
    virtual UUID GenerateUuid() = 0;
    virtual int GetDefaultFlag() = 0;
    virtual void Abort() = 0;
};

// Says which kind of lock an object is: "Mutex" or "Monitor".
class Lockable
{
public:
    virtual ~Lockable() = default;
    virtual std::string LockName() = 0;
};

// The process's scheduler; the first call makes a DefaultScheduler. Not
// synchronised: the first call happens during static initialisation.
Scheduler* GetScheduler();
// False, changing nothing, when a scheduler is set already.
bool SetScheduler(Scheduler* scheduler);

// The scheduler of this platform: every operation delegates to the platform
// layer.
class DefaultScheduler : public Scheduler
{
public:
    ~DefaultScheduler() override = default;
    void Sleep(unsigned milliseconds) override;
    Thread* CreateThread(Runnable* runnable, long priority, bool autoDelete) override;
    unsigned long GetCurrentThreadId() override;
    void ExecuteBlocking(std::function<void()> work) override;
    std::string GetStackTrace() override;
    Mutex* CreateMutex() override;
    FastMutex* CreateFastMutex() override;
    Monitor* CreateMonitor() override;
    Event* CreateEvent(bool manualReset, bool initiallySignalled) override;
    int64_t LocalMilliseconds() override;
    Date LocalNow() override;
    int64_t UTCMilliseconds() override;
    Date UTCNow() override;
    int64_t MonotonicMilliseconds() override;
    RESULT CreateTimerInstance(ITimer*& timer) override;
    int GetDefaultConstant() override;
    UUID GenerateUuid() override;
    int GetDefaultFlag() override;
    void Abort() override;
};

} // namespace quorvan
