#pragma once

// The far ends of the audio driver link for the audio manager's tests: a
// plain UDP socket on 127.0.0.1 that can bind a port, send to one and
// receive with a time-out. Written on the socket calls, not on the relay's
// own UDP classes, so that a mistake in those can't hide here.

#include <chrono>
#include <cstdint>
#include <vector>

namespace velorane::test {

class AudioUdpPeer
{
public:
    // Binds 127.0.0.1:port (0 for any free port); reuse sets SO_REUSEADDR.
    explicit AudioUdpPeer(int port = 0, bool reuse = false);
    ~AudioUdpPeer();
    AudioUdpPeer(const AudioUdpPeer&) = delete;
    AudioUdpPeer& operator=(const AudioUdpPeer&) = delete;

    bool Bound() const { return m_bound; }
    int Port() const { return m_port; }
    bool SendTo(int port, const std::vector<uint8_t>& datagram) const;
    // The next datagram, or false when none came within the time.
    bool Receive(std::vector<uint8_t>& datagram, std::chrono::milliseconds timeout) const;
    // Drops whatever is waiting.
    void Drain() const;

    // A base port whose +7 and +8 are free on 127.0.0.1 for UDP just now.
    static int FreeBasePort();

private:
    int m_socket = -1;
    int m_port = 0;
    bool m_bound = false;
};

} // namespace velorane::test
