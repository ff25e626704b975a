#include "Common/Platform/Src/Mutex.h"

namespace quorvan {

Mutex::Mutex() : m_mutex(GetScheduler()->CreateMutex()) {}

Mutex::~Mutex()
{
    delete m_mutex;
}

RESULT Mutex::Lock(const char* name, unsigned long timeoutMs)
{
    return m_mutex->Lock(name, static_cast<unsigned>(timeoutMs));
}

RESULT Mutex::Unlock()
{
    return m_mutex->Unlock();
}

CFastMutex::CFastMutex() : m_mutex(GetScheduler()->CreateFastMutex()) {}

CFastMutex::~CFastMutex()
{
    delete m_mutex;
}

RESULT CFastMutex::Lock(const char* name)
{
    return m_mutex->Lock(name);
}

RESULT CFastMutex::Unlock()
{
    return m_mutex->Unlock();
}

CAutoMutex::CAutoMutex(Mutex& mutex, const char* name, unsigned long timeoutMs) : m_mutex(&mutex)
{
    m_locked = m_mutex->Lock(name, timeoutMs) == Success;
}

CAutoMutex::~CAutoMutex()
{
    if (m_locked) {
        Unlock();
    }
}

RESULT CAutoMutex::Lock(const char* name, unsigned long timeoutMs)
{
    if (m_locked) {
        return ResultGeneralFailure;
    }
    const RESULT result = m_mutex->Lock(name, timeoutMs);
    if (Succeeded(result)) {
        m_locked = true;
    }
    return result;
}

RESULT CAutoMutex::Unlock()
{
    if (!m_locked) {
        return ResultGeneralFailure;
    }
    const RESULT result = m_mutex->Unlock();
    if (Succeeded(result)) {
        m_locked = false;
    }
    return result;
}

CAutoFastMutex::CAutoFastMutex(CFastMutex& mutex, const char* name) : m_mutex(&mutex)
{
    m_locked = m_mutex->Lock(name) == Success;
}

CAutoFastMutex::~CAutoFastMutex()
{
    if (m_locked) {
        Unlock();
    }
}

RESULT CAutoFastMutex::Lock(const char* name)
{
    if (m_locked) {
        return ResultGeneralFailure;
    }
    const RESULT result = m_mutex->Lock(name);
    if (Succeeded(result)) {
        m_locked = true;
    }
    return result;
}

RESULT CAutoFastMutex::Unlock()
{
    if (!m_locked) {
        return ResultGeneralFailure;
    }
    const RESULT result = m_mutex->Unlock();
    if (Succeeded(result)) {
        m_locked = false;
    }
    return result;
}

} // namespace quorvan
