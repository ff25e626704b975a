#include "Tests/Support/PrivateNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace velorane::test {

bool EnterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    // A new namespace's loopback starts down.
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (up) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
        up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    ::close(fd);
    return up;
}

} // namespace velorane::test
