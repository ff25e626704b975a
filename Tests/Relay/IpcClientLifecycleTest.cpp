// Connecting once, failing to connect, losing the client, ending.

#include "Tests/Relay/IpcClientFixture.h"

#include <QElapsedTimer>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueSevere;

const char* const kUnableText = "Unable to establish IPC communication with the VeloraneClient";

class IpcClientLifecycleTest : public IpcClientFixture
{
};

// A listening socket under the relay's name whose one-place queue is full,
// so that a further connect neither succeeds nor fails.
class FullBacklogServer
{
public:
    explicit FullBacklogServer(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        const auto* raw = reinterpret_cast<const sockaddr*>(&address);

        m_listener = socket(AF_UNIX, SOCK_STREAM, 0);
        m_ready = m_listener >= 0 && bind(m_listener, raw, sizeof(address)) == 0 &&
                  listen(m_listener, 0) == 0;
        m_filler = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        m_ready = m_ready && m_filler >= 0 && connect(m_filler, raw, sizeof(address)) == 0;

        const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        m_ready =
            m_ready && probe >= 0 && connect(probe, raw, sizeof(address)) == -1 && errno == EAGAIN;
        if (probe >= 0) {
            close(probe);
        }
    }
    ~FullBacklogServer()
    {
        if (m_filler >= 0) {
            close(m_filler);
        }
        if (m_listener >= 0) {
            close(m_listener);
        }
    }
    FullBacklogServer(const FullBacklogServer&) = delete;
    FullBacklogServer& operator=(const FullBacklogServer&) = delete;

    bool Ready() const { return m_ready; }

private:
    int m_listener = -1;
    int m_filler = -1;
    bool m_ready = false;
};

TEST_F(IpcClientLifecycleTest, ConnectingLogsEstablished)
{
    StartConnectedClient();
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation,
                                    "IPC communication with VeloraneClient established"));
    EXPECT_EQ(m_quits, 0);
}

TEST_F(IpcClientLifecycleTest, NoServerLogsSevereAndAsksToQuit)
{
    m_server->close();
    MakeClient();
    QElapsedTimer elapsed;
    elapsed.start();
    m_client->Initialize();
    ASSERT_TRUE(WaitUntil([&] { return m_quits > 0; }, std::chrono::seconds(9)));
    // A missing socket file fails each try at once, and the connect asks
    // again every 100 ms until its five seconds are spent.
    EXPECT_GE(elapsed.elapsed(), 4500);
    EXPECT_LT(elapsed.elapsed(), 9000);
    EXPECT_EQ(m_quits, 1);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, kUnableText));
    EXPECT_FALSE(m_capture->Contains(EGroupValueInformation,
                                     "IPC communication with VeloraneClient established"));
    EXPECT_FALSE(m_client->SendIPC(0xFE47));
}

TEST_F(IpcClientLifecycleTest, ServerThatNeverAcceptsEndsAfterFiveSeconds)
{
    m_server->close();
    FullBacklogServer server(SocketPath());
    ASSERT_TRUE(server.Ready()) << std::strerror(errno);

    MakeClient();
    QElapsedTimer elapsed;
    elapsed.start();
    m_client->Initialize();
    ASSERT_TRUE(WaitUntil([&] { return m_quits > 0; }, std::chrono::seconds(12)));
    EXPECT_GE(elapsed.elapsed(), 4500);
    EXPECT_LE(elapsed.elapsed(), 9000);
    EXPECT_EQ(m_quits, 1);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, kUnableText));
    // One attempt only.
    EXPECT_EQ(m_capture->Count(kUnableText), 1u);
    EXPECT_FALSE(m_client->SendIPC(0xFE47));
}

TEST_F(IpcClientLifecycleTest, ServerClosingLogsDisconnectedAndAsksToQuit)
{
    StartConnectedClient();
    m_peer->disconnectFromServer();
    ASSERT_TRUE(WaitUntil([&] { return m_quits > 0; }));
    EXPECT_EQ(m_quits, 1);
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "IPC Disconnected"));
}

TEST_F(IpcClientLifecycleTest, TerminateWithoutInitializeIsHarmless)
{
    MakeClient();
    EXPECT_TRUE(m_client->Terminate());
    EXPECT_TRUE(m_client->Terminate());
    EXPECT_EQ(m_quits, 0);
    EXPECT_EQ(m_capture->Messages(), std::vector<std::string>());
}

TEST_F(IpcClientLifecycleTest, TerminateEndsTheLink)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->Terminate());
    ASSERT_TRUE(WaitUntil([&] { return m_peer->state() == QLocalSocket::UnconnectedState; }));
    EXPECT_TRUE(m_client->Terminate());
}

TEST_F(IpcClientLifecycleTest, TerminatingAConnectedClientReportsTheDisconnect)
{
    // The thread's end aborts the socket, and the abort is a disconnect
    // like any other.
    StartConnectedClient();
    m_capture->Clear();
    EXPECT_TRUE(m_client->Terminate());
    ASSERT_TRUE(WaitUntil([&] { return m_quits > 0; }));
    EXPECT_EQ(m_quits, 1);
    EXPECT_EQ(m_capture->Messages(), std::vector<std::string>{"IPC Disconnected"});
}

TEST_F(IpcClientLifecycleTest, DestroyingARunningClientEndsItsThread)
{
    StartConnectedClient();
    m_client.reset();
    ASSERT_TRUE(WaitUntil([&] { return m_peer->state() == QLocalSocket::UnconnectedState; }));
}

} // namespace
} // namespace velorane::test
