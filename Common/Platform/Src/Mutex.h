#pragma once

#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/Scheduler.h"

namespace quorvan {

// A recursive lock made by the Scheduler, owned by this object.
class Mutex
{
public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    RESULT Lock(const char* name, unsigned long timeoutMs);
    RESULT Unlock();

private:
    Scheduler::Mutex* m_mutex;
};

// The same lock without a time-out.
class CFastMutex
{
public:
    CFastMutex();
    ~CFastMutex();
    CFastMutex(const CFastMutex&) = delete;
    CFastMutex& operator=(const CFastMutex&) = delete;

    RESULT Lock(const char* name);
    RESULT Unlock();

private:
    Scheduler::FastMutex* m_mutex;
};

// Scoped holder: locks at construction, unlocks once at most. A second Lock
// on a held holder is refused rather than nested.
class CAutoMutex
{
public:
    CAutoMutex(Mutex& mutex, const char* name = "", unsigned long timeoutMs = 0xFFFFFFFF);
    ~CAutoMutex();
    CAutoMutex(const CAutoMutex&) = delete;
    CAutoMutex& operator=(const CAutoMutex&) = delete;

    RESULT Lock(const char* name, unsigned long timeoutMs);
    RESULT Unlock();
    bool Locked() const { return m_locked; }

private:
    Mutex* m_mutex;
    bool m_locked = false;
};

class CAutoFastMutex
{
public:
    explicit CAutoFastMutex(CFastMutex& mutex, const char* name = "");
    ~CAutoFastMutex();
    CAutoFastMutex(const CAutoFastMutex&) = delete;
    CAutoFastMutex& operator=(const CAutoFastMutex&) = delete;

    RESULT Lock(const char* name);
    RESULT Unlock();
    bool Locked() const { return m_locked; }

private:
    CFastMutex* m_mutex;
    bool m_locked = false;
};

} // namespace quorvan
