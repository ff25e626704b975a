#pragma once

// Small helpers of the UDP tests: a loopback port held by a plain socket,
// and the count of the process's open descriptors.

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velorane::test {

// A UDP socket bound to a free port on 127.0.0.1, SO_REUSEADDR unset.
class HeldUdpPort
{
public:
    HeldUdpPort() : m_fd(::socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_bound = ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        socklen_t length = sizeof(address);
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
    }
    ~HeldUdpPort() { ::close(m_fd); }
    HeldUdpPort(const HeldUdpPort&) = delete;
    HeldUdpPort& operator=(const HeldUdpPort&) = delete;

    bool Bound() const { return m_bound; }
    int Port() const { return m_port; }

private:
    int m_fd;
    bool m_bound = false;
    int m_port = 0;
};

// A port that was free for UDP on 127.0.0.1 a moment ago, held by nobody.
inline int FreeUdpPort()
{
    return HeldUdpPort().Port();
}

// Descriptors the process holds now.
inline int OpenDescriptors()
{
    int count = 0;
    DIR* folder = ::opendir("/proc/self/fd");
    while (folder && ::readdir(folder)) {
        ++count;
    }
    if (folder) {
        ::closedir(folder);
    }
    return count;
}

} // namespace velorane::test
