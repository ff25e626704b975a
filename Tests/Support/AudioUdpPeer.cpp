#include "Tests/Support/AudioUdpPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

namespace velorane::test {

namespace {

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool PortFree(int port)
{
    AudioUdpPeer probe(port);
    return probe.Bound();
}

} // namespace

AudioUdpPeer::AudioUdpPeer(int port, bool reuse)
{
    m_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0) {
        return;
    }
    if (reuse) {
        const int one = 1;
        ::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    }
    sockaddr_in address = Loopback(port);
    if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        return;
    }
    socklen_t length = sizeof(address);
    ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_bound = true;
}

AudioUdpPeer::~AudioUdpPeer()
{
    if (m_socket >= 0) {
        ::close(m_socket);
    }
}

bool AudioUdpPeer::SendTo(int port, const std::vector<uint8_t>& datagram) const
{
    const sockaddr_in address = Loopback(port);
    const ssize_t sent = ::sendto(m_socket, datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    return sent == static_cast<ssize_t>(datagram.size());
}

bool AudioUdpPeer::Receive(std::vector<uint8_t>& datagram, std::chrono::milliseconds timeout) const
{
    pollfd wait{m_socket, POLLIN, 0};
    if (::poll(&wait, 1, static_cast<int>(timeout.count())) != 1) {
        return false;
    }
    datagram.resize(65536);
    const ssize_t n = ::recv(m_socket, datagram.data(), datagram.size(), 0);
    if (n < 0) {
        return false;
    }
    datagram.resize(static_cast<size_t>(n));
    return true;
}

void AudioUdpPeer::Drain() const
{
    std::vector<uint8_t> ignored;
    while (Receive(ignored, std::chrono::milliseconds(0))) {
    }
}

int AudioUdpPeer::FreeBasePort()
{
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<int> pick(20000, 50000);
    for (int attempt = 0; attempt < 200; ++attempt) {
        const int base = pick(random);
        if (PortFree(base + 7) && PortFree(base + 8)) {
            return base;
        }
    }
    return 0;
}

} // namespace velorane::test
