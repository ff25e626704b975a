// The one constructor failure no real socket gives on request: setting
// SO_REUSEADDR. This program stands its own setsockopt in front of the C
// library's, and refuses that option while a test asks it to.

#include "Common/Network/Src/SimpleUdpServer.h"
#include "Common/Network/Src/UdpUtilRuntimeError.h"
#include "Tests/Network/SocketProbe.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace {

std::atomic<bool> g_refuseReuse{false};
std::atomic<int> g_reuseRequests{0};

using SetSocketOption = int (*)(int, int, int, const void*, socklen_t);

} // namespace

extern "C" int setsockopt(int socket, int level, int name, const void* value, socklen_t length)
{
    if (level == SOL_SOCKET && name == SO_REUSEADDR) {
        g_reuseRequests.fetch_add(1);
        if (g_refuseReuse.load()) {
            errno = ENOPROTOOPT;
            return -1;
        }
    }
    static const auto next = reinterpret_cast<SetSocketOption>(::dlsym(RTLD_NEXT, "setsockopt"));
    return next(socket, level, name, value, length);
}

TEST(UdpSocketOptionFaultTest, RefusedReuseOptionGivesItsTextAndClosesTheSocket)
{
    const int before = velorane::test::OpenDescriptors();
    g_reuseRequests = 0;
    g_refuseReuse = true;
    std::string text = "nothing thrown";
    try {
        quorvan::SimpleUdpServer server("127.0.0.1", 0);
    } catch (const quorvan::UdpUtilRuntimeError& error) {
        text = error.what();
    }
    g_refuseReuse = false;
    EXPECT_EQ(text, "Failed to set SO_REUSEADDR on socket: \"127.0.0.1:0\"");
    EXPECT_EQ(g_reuseRequests.load(), 1);
    EXPECT_EQ(velorane::test::OpenDescriptors(), before);
}

TEST(UdpSocketOptionFaultTest, ReuseOptionIsAskedForWithOne)
{
    g_reuseRequests = 0;
    quorvan::SimpleUdpServer server("127.0.0.1", 0);
    EXPECT_EQ(g_reuseRequests.load(), 1);
    int value = 0;
    socklen_t length = sizeof(value);
    ASSERT_EQ(::getsockopt(server.getSocket(), SOL_SOCKET, SO_REUSEADDR, &value, &length), 0);
    EXPECT_EQ(value, 1);
}
