#include "Tests/Support/HeldDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace velorane::test {

HeldDescriptors::HeldDescriptors(rlim_t limit, int stopAt)
{
    ::getrlimit(RLIMIT_NOFILE, &m_saved);
    rlimit changed = m_saved;
    changed.rlim_cur = std::min(limit, m_saved.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &changed);
    for (;;) {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            break;
        }
        m_held.push_back(fd);
        if (fd >= stopAt) {
            break;
        }
    }
}

HeldDescriptors::~HeldDescriptors()
{
    Release();
    ::setrlimit(RLIMIT_NOFILE, &m_saved);
}

void HeldDescriptors::Release()
{
    for (const int fd : m_held) {
        ::close(fd);
    }
    m_held.clear();
}

} // namespace velorane::test
