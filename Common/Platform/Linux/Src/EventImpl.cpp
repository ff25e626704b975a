#include "Common/Platform/Linux/Src/EventImpl.h"

#include "Common/Logger/Src/Logger.h"

#include <cerrno>
#include <cstdint>
#include <sys/time.h>
#include <time.h>

namespace quorvan::platform {

namespace {

constexpr int64_t kNoLimit = 0xFFFFFFFF;

// The deadline is wall-clock time, as pthread_cond_timedwait expects by
// default; a clock change moves it.
timespec DeadlineAfter(int64_t milliseconds)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    const int64_t microseconds = static_cast<int64_t>(now.tv_usec) + (milliseconds % 1000) * 1000;
    timespec deadline{};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(milliseconds / 1000) +
                      static_cast<time_t>(microseconds / 1000000);
    deadline.tv_nsec = static_cast<long>((microseconds % 1000000) * 1000);
    return deadline;
}

} // namespace

Event::Event(bool manualReset, bool initiallySignalled)
    : m_signalled(initiallySignalled), m_manualReset(manualReset)
{
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_cond_init(&m_condition, nullptr);
}

Event::Event(bool manualReset, bool initiallySignalled, const std::wstring& /*name*/)
    : Event(manualReset, initiallySignalled)
{
}

Event::~Event()
{
    pthread_cond_destroy(&m_condition);
    pthread_mutex_destroy(&m_mutex);
}

bool Event::Wait(std::chrono::milliseconds timeout)
{
    const int64_t milliseconds = timeout.count();
    const bool unlimited = milliseconds <= 0 || milliseconds == kNoLimit;

    pthread_mutex_lock(&m_mutex);
    if (!m_signalled) {
        timespec deadline{};
        if (!unlimited) {
            deadline = DeadlineAfter(milliseconds);
        }
        for (;;) {
            const int rc = unlimited ? pthread_cond_wait(&m_condition, &m_mutex)
                                     : pthread_cond_timedwait(&m_condition, &m_mutex, &deadline);
            if (rc == ETIMEDOUT || m_signalled) {
                break;
            }
            // Logged with our mutex released: a log store may well Set this
            // very event (a writer thread waking itself), which would
            // otherwise deadlock. Set during the gap is seen below.
            pthread_mutex_unlock(&m_mutex);
            VLOG_LEVEL(EGroupValueSpew, 1, "Avoided spurious return from Event::Wait");
            pthread_mutex_lock(&m_mutex);
            if (m_signalled) {
                break;
            }
        }
    }
    const bool result = m_signalled;
    if (!m_manualReset) {
        m_signalled = false;
    }
    pthread_mutex_unlock(&m_mutex);
    return result;
}

void Event::Set()
{
    pthread_mutex_lock(&m_mutex);
    m_signalled = true;
    // One waiter only, even for a manual-reset event: the others stay asleep
    // until the next signal.
    pthread_cond_signal(&m_condition);
    pthread_mutex_unlock(&m_mutex);
}

void Event::Reset()
{
    pthread_mutex_lock(&m_mutex);
    m_signalled = false;
    pthread_mutex_unlock(&m_mutex);
}

} // namespace quorvan::platform
