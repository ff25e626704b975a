#pragma once

// Threads: any. The pthread mutex does its own synchronisation.

#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/Scheduler.h"

#include <pthread.h>
#include <string>

namespace quorvan::platform {

// One recursive pthread mutex serves as both the timed Mutex and the
// FastMutex of the Scheduler. Lock names are ignored.
class Mutex : public Scheduler::Mutex, public Scheduler::FastMutex, public Lockable
{
public:
    Mutex();
    ~Mutex() override;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // 0xFFFFFFFF blocks; any other time-out polls every 10 ms until a
    // wall-clock deadline. 0 on success, 0x80000000 otherwise.
    RESULT Lock(const char* name, unsigned timeoutMs) override;
    RESULT Lock(const char* name) override;
    // Always 0, whatever pthread says.
    RESULT Unlock() override;

    std::string LockName() override { return "Mutex"; }

private:
    pthread_mutex_t m_mutex;
};

} // namespace quorvan::platform
