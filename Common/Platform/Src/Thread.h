#pragma once

#include "Common/Platform/Src/Scheduler.h"

namespace quorvan {

class IThread
{
public:
    virtual void Start(unsigned long timeoutMs) = 0;
    virtual void Quit() = 0;
    virtual void Reserved() = 0;
    virtual void Trigger() = 0;
    virtual void Priority(long priority) = 0;
    virtual bool IsRunning() = 0;

protected:
    virtual ~IThread() = default;
};

// A thread whose body is this object's Run(). The platform thread is made by
// the Scheduler with priority -1 and without auto-delete; the destructor
// quits and joins it.
class Thread : public IThread, public Scheduler::Runnable
{
public:
    Thread();
    ~Thread() override;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    void Start(unsigned long timeoutMs) override;
    void Quit() override;
    void Reserved() override;
    void Trigger() override;
    void Priority(long priority) override;
    bool IsRunning() override;

    bool Run() override { return false; }
    bool ThreadEnter() override { return true; }
    bool ThreadExit() override { return true; }

protected:
    Scheduler::Thread* PlatformThread() const { return m_thread; }

private:
    Scheduler::Thread* m_thread;
};

} // namespace quorvan
