#include "Common/Platform/Src/Thread.h"

namespace quorvan {

Thread::Thread() : m_thread(GetScheduler()->CreateThread(this, -1, false)) {}

// Deleting the platform thread quits and joins it. A subclass whose Run or
// ThreadExit uses its own members must Quit in its own destructor, before
// those members go.
Thread::~Thread()
{
    delete m_thread;
}

void Thread::Start(unsigned long timeoutMs)
{
    m_thread->ThreadStart(timeoutMs);
}

void Thread::Quit()
{
    m_thread->ThreadQuit();
}

void Thread::Reserved()
{
    m_thread->ThreadReserved();
}

void Thread::Trigger()
{
    m_thread->ThreadTrigger();
}

void Thread::Priority(long priority)
{
    m_thread->ThreadPriority(priority);
}

bool Thread::IsRunning()
{
    return m_thread->IsRunning();
}

} // namespace quorvan
