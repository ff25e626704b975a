// UdpClient and SimpleUdpServer on real loopback sockets: the time-out
// receive, every failure text, and sends that go nowhere.

#include "Common/Network/Src/SimpleUdpServer.h"
#include "Common/Network/Src/UdpClient.h"
#include "Common/Network/Src/UdpUtilRuntimeError.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

using namespace quorvan;
using Clock = std::chrono::steady_clock;

namespace {

// A port that was free for UDP on 127.0.0.1 a moment ago, held by nobody.
int FreeUdpPort()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

std::string ThrownText(const std::function<void()>& make)
{
    try {
        make();
    } catch (const UdpUtilRuntimeError& error) {
        return error.what();
    }
    return "nothing thrown";
}

const gsl::byte* Bytes(const char* text)
{
    return reinterpret_cast<const gsl::byte*>(text);
}

long long MillisecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

} // namespace

TEST(UdpSocketTest, DatagramGoesFromClientToServer)
{
    const int port = FreeUdpPort();
    SimpleUdpServer server("127.0.0.1", port);
    UdpClient client("127.0.0.1", port);
    EXPECT_EQ(server.getPort(), port);
    EXPECT_EQ(server.getAddr(), "127.0.0.1");
    EXPECT_EQ(client.getPort(), port);
    EXPECT_EQ(client.getAddr(), "127.0.0.1");
    EXPECT_GE(client.getSocket(), 0);
    EXPECT_GE(server.getSocket(), 0);

    EXPECT_EQ(client.send(Bytes("hello"), 5), 5);
    std::vector<gsl::byte> buffer(64);
    const auto start = Clock::now();
    // Waiting: returns at once with the length.
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 1000), 5);
    EXPECT_LT(MillisecondsSince(start), 500);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 5), "hello");

    EXPECT_EQ(client.send(Bytes("again"), 5), 5);
    EXPECT_EQ(server.recv(buffer.data(), buffer.size()), 5);
}

TEST(UdpSocketTest, SilentSocketTimesOutWithEagainAfterAbout100Ms)
{
    SimpleUdpServer server("127.0.0.1", FreeUdpPort());
    std::vector<gsl::byte> buffer(16);
    const auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    const long long waited = MillisecondsSince(start);
    EXPECT_GE(waited, 90);
    EXPECT_LT(waited, 2000);
}

TEST(UdpSocketTest, FifteenHundredWaitsOneAndAHalfSeconds)
{
    SimpleUdpServer server("127.0.0.1", FreeUdpPort());
    std::vector<gsl::byte> buffer(16);
    const auto start = Clock::now();
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 1500), -1);
    EXPECT_EQ(errno, EAGAIN);
    const long long waited = MillisecondsSince(start);
    EXPECT_GE(waited, 1450);
    EXPECT_LT(waited, 4000);
}

TEST(UdpSocketTest, LongerDatagramIsCutShortByTheBuffer)
{
    const int port = FreeUdpPort();
    SimpleUdpServer server("127.0.0.1", port);
    UdpClient client("127.0.0.1", port);
    ASSERT_EQ(client.send(Bytes("0123456789"), 10), 10);
    std::vector<gsl::byte> buffer(4);
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 1000), 4);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 4), "0123");
    // The rest of the datagram is gone.
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 100), -1);
}

TEST(UdpSocketTest, PortHeldWithoutReuseGivesTheBindText)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    const int port = ntohs(address.sin_port);
    EXPECT_EQ(ThrownText([&] { SimpleUdpServer server("127.0.0.1", port); }),
              "could not bind UDP socket with: \"127.0.0.1:" + std::to_string(port) + "\"");
    ::close(fd);
}

TEST(UdpSocketTest, UnresolvableAddressIsWordedByEachClass)
{
    EXPECT_EQ(ThrownText([] { UdpClient client("no such host.invalid", 9); }),
              "invalid address or port: \"no such host.invalid:9\"");
    EXPECT_EQ(ThrownText([] { SimpleUdpServer server("no such host.invalid", 9); }),
              "invalid address or port for UDP socket: \"no such host.invalid:9\"");
    EXPECT_EQ(ThrownText([] { UdpClient client("127.0.0.1", -5); }),
              "invalid address or port: \"127.0.0.1:-5\"");
}

TEST(UdpSocketTest, AddressThatCantBeBoundGivesTheBindText)
{
    // 192.0.2.1 is for documentation: no interface here holds it.
    EXPECT_EQ(ThrownText([] { SimpleUdpServer server("192.0.2.1", 9); }),
              "could not bind UDP socket with: \"192.0.2.1:9\"");
}

TEST(UdpSocketTest, SendToAPortWithoutListenerDoesNotThrow)
{
    UdpClient client("127.0.0.1", FreeUdpPort());
    EXPECT_EQ(client.send(Bytes("nobody"), 6), 6);
    // The refusal may come back on a later send; it is a result, not an
    // exception.
    const ssize_t second = client.send(Bytes("nobody"), 6);
    EXPECT_TRUE(second == 6 || (second == -1 && errno == ECONNREFUSED)) << second;
}

TEST(UdpSocketTest, ReceiveBufferAnswerComparesTheOptionLength)
{
    SimpleUdpServer server("127.0.0.1", FreeUdpPort());
    EXPECT_TRUE(server.setReceiveBufferSize(4));
    EXPECT_FALSE(server.setReceiveBufferSize(65536));
    EXPECT_FALSE(server.setReceiveBufferSize(0));
}
