#include "Common/Network/Src/UdpClient.h"

#include "Common/Network/Src/AddressLookup.h"
#include "Common/Network/Src/UdpUtilRuntimeError.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quorvan {

UdpClient::UdpClient(const std::string& address, int port) : m_port(port), m_address(address)
{
    if (udp::LookUp(address, port, &m_addressInfo) != 0 || m_addressInfo == nullptr) {
        if (m_addressInfo) {
            freeaddrinfo(m_addressInfo);
        }
        throw UdpUtilRuntimeError(udp::Describe("invalid address or port: ", address, port));
    }
    m_socket = ::socket(m_addressInfo->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (m_socket == -1) {
        freeaddrinfo(m_addressInfo);
        throw UdpUtilRuntimeError(udp::Describe("could not create socket for: ", address, port));
    }
}

UdpClient::~UdpClient()
{
    freeaddrinfo(m_addressInfo);
    ::close(m_socket);
}

ssize_t UdpClient::send(const gsl::byte* data, size_t size)
{
    return ::sendto(m_socket, data, size, 0, m_addressInfo->ai_addr, m_addressInfo->ai_addrlen);
}

} // namespace quorvan
