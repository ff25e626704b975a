#pragma once

// The name look-up both UDP classes start with: the address and the port as
// decimal text, datagram sockets over UDP, any family. Only the first entry
// of the result is ever used.

#include <string>

struct addrinfo;

namespace quorvan::udp {

// getaddrinfo's result: 0 with a list in *result, or its error.
int LookUp(const std::string& address, int port, addrinfo** result);

// The failure texts join address and port with a colon and close with a
// quotation mark: prefix "address:port".
std::string Describe(const char* prefix, const std::string& address, int port);

} // namespace quorvan::udp
