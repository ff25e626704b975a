// Preloaded (LD_PRELOAD) into a program under test. With
// VELORANE_FAULT_UDP_SOCKETS=EMFILE in its environment, every UDP socket
// the program asks for is refused with EMFILE, as when the process has no
// descriptor left, while its other sockets (local, TCP, netlink) are made
// as usual: the one fault a test wants, and nothing else failing first.
//
// Threads: any; the real call is looked up once, and the environment is
// only read.

#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

using SocketCall = int (*)(int, int, int);

bool RefuseUdp(int domain, int type)
{
    const char* fault = std::getenv("VELORANE_FAULT_UDP_SOCKETS");
    return fault && std::strcmp(fault, "EMFILE") == 0 &&
           (domain == AF_INET || domain == AF_INET6) && (type & 0xF) == SOCK_DGRAM;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol)
{
    static const auto real = reinterpret_cast<SocketCall>(dlsym(RTLD_NEXT, "socket"));
    if (RefuseUdp(domain, type)) {
        errno = EMFILE;
        return -1;
    }
    return real ? real(domain, type, protocol) : (errno = ENOSYS, -1);
}
