// UdpClient and SimpleUdpServer on real loopback sockets: the time-out
// receive, every failure text, and sends that go nowhere.

#include "Common/Network/Src/SimpleUdpServer.h"
#include "Common/Network/Src/UdpClient.h"
#include "Common/Network/Src/UdpUtilRuntimeError.h"
#include "Tests/Network/SocketProbe.h"
#include "Tests/Support/HeldDescriptors.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <string>
#include <vector>

using namespace quorvan;
using velorane::test::FreeUdpPort;
using velorane::test::HeldDescriptors;
using velorane::test::HeldUdpPort;
using velorane::test::OpenDescriptors;
using Clock = std::chrono::steady_clock;

namespace {

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

// A receive on a socket nobody sends to: -1 with EAGAIN after waiting at
// least atLeastMs and, generously, below belowMs.
void ExpectSilentWait(SimpleUdpServer& server, int maxWaitMs, long long atLeastMs,
                      long long belowMs)
{
    std::vector<gsl::byte> buffer(16);
    const auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), maxWaitMs), -1);
    EXPECT_EQ(errno, EAGAIN);
    const long long waited = MillisecondsSince(start);
    EXPECT_GE(waited, atLeastMs);
    EXPECT_LT(waited, belowMs);
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
    ExpectSilentWait(server, 100, 90, 2000);
}

TEST(UdpSocketTest, FifteenHundredWaitsOneAndAHalfSeconds)
{
    // 1 second and 500,000 microseconds.
    SimpleUdpServer server("127.0.0.1", FreeUdpPort());
    ExpectSilentWait(server, 1500, 1450, 4000);
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
    HeldUdpPort held;
    ASSERT_TRUE(held.Bound());
    const int port = held.Port();
    EXPECT_EQ(ThrownText([&] { SimpleUdpServer server("127.0.0.1", port); }),
              "could not bind UDP socket with: \"127.0.0.1:" + std::to_string(port) + "\"");
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

TEST(UdpSocketTest, NoDescriptorLeftGivesEachClassItsSocketText)
{
    const int before = OpenDescriptors();
    std::exception_ptr clientError;
    std::exception_ptr serverError;
    {
        // Only caught here: the sanitizers' checks of a call on the error
        // need descriptors of their own.
        HeldDescriptors exhausted(64, 1 << 30);
        try {
            UdpClient client("127.0.0.1", 9);
        } catch (...) {
            clientError = std::current_exception();
        }
        try {
            SimpleUdpServer server("127.0.0.1", 9);
        } catch (...) {
            serverError = std::current_exception();
        }
    }
    EXPECT_EQ(ThrownText([&] {
                  if (clientError) {
                      std::rethrow_exception(clientError);
                  }
              }),
              "could not create socket for: \"127.0.0.1:9\"");
    EXPECT_EQ(ThrownText([&] {
                  if (serverError) {
                      std::rethrow_exception(serverError);
                  }
              }),
              "could not create UDP socket for: \"127.0.0.1:9\"");
    // Nothing taken on the way stays open.
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(UdpSocketTest, FailedConstructionsCloseWhatTheyOpened)
{
    const int before = OpenDescriptors();
    {
        HeldUdpPort held;
        ASSERT_TRUE(held.Bound());
        for (int i = 0; i < 5; ++i) {
            EXPECT_THROW(SimpleUdpServer("127.0.0.1", held.Port()), UdpUtilRuntimeError);
            EXPECT_THROW(SimpleUdpServer("no such host.invalid", 9), UdpUtilRuntimeError);
            EXPECT_THROW(UdpClient("no such host.invalid", 9), UdpUtilRuntimeError);
        }
    }
    EXPECT_EQ(OpenDescriptors(), before);
    {
        SimpleUdpServer server("127.0.0.1", FreeUdpPort());
        UdpClient client("127.0.0.1", server.getPort());
        EXPECT_EQ(OpenDescriptors(), before + 2);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(UdpSocketTest, RefusedTimeOutIsSelectsFailure)
{
    SimpleUdpServer server("127.0.0.1", FreeUdpPort());
    std::vector<gsl::byte> buffer(16);
    errno = 0;
    // -1 ms is -1000 microseconds, which select refuses.
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), -1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(UdpSocketTest, ZeroWaitLooksOnceAndReturns)
{
    const int port = FreeUdpPort();
    SimpleUdpServer server("127.0.0.1", port);
    std::vector<gsl::byte> buffer(16);
    const auto start = Clock::now();
    errno = 0;
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LT(MillisecondsSince(start), 500);
    UdpClient client("127.0.0.1", port);
    ASSERT_EQ(client.send(Bytes("x"), 1), 1);
    // A datagram on loopback is queued by the time sendto returns.
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 0), 1);
}

TEST(UdpSocketTest, SocketPastTheSelectSetWaitsAndReceivesAlike)
{
    rlimit limits{};
    ::getrlimit(RLIMIT_NOFILE, &limits);
    if (limits.rlim_max < FD_SETSIZE + 16) {
        GTEST_SKIP() << "the hard descriptor limit is below " << FD_SETSIZE + 16;
    }
    HeldDescriptors low(FD_SETSIZE + 16, FD_SETSIZE - 1);
    const int port = FreeUdpPort();
    SimpleUdpServer server("127.0.0.1", port);
    low.Release();
    ASSERT_GE(server.getSocket(), FD_SETSIZE);

    ExpectSilentWait(server, 100, 90, 2000);

    std::vector<gsl::byte> buffer(16);
    errno = 0;
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), -1), -1);
    EXPECT_EQ(errno, EINVAL);

    UdpClient client("127.0.0.1", port);
    ASSERT_EQ(client.send(Bytes("high"), 4), 4);
    const auto start = Clock::now();
    EXPECT_EQ(server.timedRecv(buffer.data(), buffer.size(), 1000), 4);
    EXPECT_LT(MillisecondsSince(start), 500);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 4), "high");
}
