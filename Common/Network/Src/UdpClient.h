#pragma once

// Sends datagrams to one address and port, named once at construction.
// Either holds a working socket or was never constructed: every failure to
// make one is a UdpUtilRuntimeError.
//
// Threads: send only reads the members, so any thread may call it.

#include <gsl/gsl>

#include <string>
#include <sys/types.h>

struct addrinfo;

namespace quorvan {

class UdpClient
{
public:
    UdpClient(const std::string& address, int port);
    ~UdpClient();
    UdpClient(const UdpClient&) = delete;
    UdpClient& operator=(const UdpClient&) = delete;

    int getSocket() const { return m_socket; }
    int getPort() const { return m_port; }
    std::string getAddr() const { return m_address; }

    // sendto's result as it stands: a byte count, or -1 with errno set.
    ssize_t send(const gsl::byte* data, size_t size);

private:
    int m_socket = -1;
    int m_port = 0;
    std::string m_address;
    addrinfo* m_addressInfo = nullptr;
};

} // namespace quorvan
