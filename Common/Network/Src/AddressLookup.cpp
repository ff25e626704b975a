#include "Common/Network/Src/AddressLookup.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace quorvan::udp {

int LookUp(const std::string& address, int port, addrinfo** result)
{
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    *result = nullptr;
    const std::string portText = std::to_string(port);
    return getaddrinfo(address.c_str(), portText.c_str(), &hints, result);
}

std::string Describe(const char* prefix, const std::string& address, int port)
{
    return std::string(prefix) + "\"" + address + ":" + std::to_string(port) + "\"";
}

} // namespace quorvan::udp
