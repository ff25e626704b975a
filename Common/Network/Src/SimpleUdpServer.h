#pragma once

// Binds a UDP port and receives datagrams, with an optional time-out.
// Either holds a bound socket or was never constructed: every failure to
// make, name or bind one is a UdpUtilRuntimeError.
//
// Threads: made and used on one thread.

#include <gsl/gsl>

#include <string>
#include <sys/types.h>

struct addrinfo;

namespace quorvan {

class SimpleUdpServer
{
public:
    SimpleUdpServer(const std::string& address, int port);
    ~SimpleUdpServer();
    SimpleUdpServer(const SimpleUdpServer&) = delete;
    SimpleUdpServer& operator=(const SimpleUdpServer&) = delete;

    int getSocket() const { return m_socket; }
    int getPort() const { return m_port; }
    std::string getAddr() const { return m_address; }

    // Sets the receive buffer and reads the option back. The read-back
    // takes value and length in crossed places, so the answer compares the
    // option's length with size: true only for a size of 4. Nothing calls
    // it today.
    bool setReceiveBufferSize(unsigned size);
    ssize_t recv(gsl::byte* buffer, size_t size);
    // Waits at most maxWaitMs for a datagram: -1 with EAGAIN on a time-out,
    // -1 with select's errno on its failure, else recv's result.
    ssize_t timedRecv(gsl::byte* buffer, size_t size, int maxWaitMs);

private:
    int m_socket = -1;
    int m_port = 0;
    std::string m_address;
    addrinfo* m_addressInfo = nullptr;
};

} // namespace quorvan
