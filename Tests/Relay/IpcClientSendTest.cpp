// What the relay writes to the client application, byte for byte.

#include "Tests/Relay/IpcClientFixture.h"

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

#include <QMetaObject>

#include <atomic>
#include <thread>

namespace velorane::test {
namespace {

using quorvan::velorane::RelayErrorTunnel;

class IpcClientSendTest : public IpcClientFixture
{
};

TEST_F(IpcClientSendTest, QuitMessageIsEightBytes)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->SendIPC(0xFE47));
    EXPECT_EQ(ReceiveFromRelay(8), Hex("00000008"    // size: the whole message
                                       "0000FE47")); // KillApplication
}

TEST_F(IpcClientSendTest, SendErrorTunnelIsThirteenBytes)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->SendError(RelayErrorTunnel));
    EXPECT_EQ(ReceiveFromRelay(13), Hex("0000000D" // size: 12 + 1
                                        "0000FE50" // Error
                                        "00000001" // byte count of the data
                                        "33"));    // "3"
}

TEST_F(IpcClientSendTest, SendErrorWritesTheNumberWithoutPadding)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->SendError(static_cast<RelayError>(42)));
    EXPECT_EQ(ReceiveFromRelay(14), Hex("0000000E" // size: 12 + 2
                                        "0000FE50" // Error
                                        "00000002" // byte count of the data
                                        "3432"));  // "42"
}

TEST_F(IpcClientSendTest, SendErrorQueuedToTheIpcThreadArrives)
{
    StartConnectedClient();
    // As the application object sends it: a queued call on the IPC thread.
    QMetaObject::invokeMethod(
        m_client.get(), [this] { m_client->SendError(RelayErrorTunnel); }, Qt::QueuedConnection);
    EXPECT_EQ(ReceiveFromRelay(13), Hex("0000000D 0000FE50 00000001 33"));
}

TEST_F(IpcClientSendTest, ErrorCommandWithoutDataSendsEightBytes)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->SendIPC(0xFE50, QByteArray()));
    EXPECT_EQ(ReceiveFromRelay(8), Hex("00000008 0000FE50"));
}

TEST_F(IpcClientSendTest, OtherCommandWithDataKeepsSizeFieldEight)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->SendIPC(0xFE52, QByteArray("abc")));
    EXPECT_EQ(ReceiveFromRelay(15), Hex("00000008"  // size: 8, the data not counted
                                        "0000FE52"  // the command
                                        "00000003"  // byte count of the data
                                        "616263")); // "abc"
}

TEST_F(IpcClientSendTest, SendFromAnotherThreadArrivesWhole)
{
    StartConnectedClient();
    std::atomic<bool> sent{false};
    std::thread other([&] { sent = m_client->SendIPC(0xFE47); });
    other.join();
    EXPECT_TRUE(sent.load());
    EXPECT_EQ(ReceiveFromRelay(8), Hex("00000008 0000FE47"));
}

TEST_F(IpcClientSendTest, SendBeforeInitializeReturnsFalse)
{
    MakeClient();
    EXPECT_FALSE(m_client->SendIPC(0xFE47));
    EXPECT_FALSE(m_client->SendError(RelayErrorTunnel));
}

TEST_F(IpcClientSendTest, SendAfterTerminateReturnsFalse)
{
    StartConnectedClient();
    EXPECT_TRUE(m_client->Terminate());
    EXPECT_FALSE(m_client->SendIPC(0xFE47));
    EXPECT_FALSE(m_client->SendError(RelayErrorTunnel));
}

TEST_F(IpcClientSendTest, QuitMessageThenTerminateReachesTheClient)
{
    // The quit sequence's order: the message, then at once the end.
    StartConnectedClient();
    EXPECT_TRUE(m_client->SendIPC(0xFE47));
    EXPECT_TRUE(m_client->Terminate());
    EXPECT_EQ(ReceiveFromRelay(8), Hex("00000008 0000FE47"));
}

} // namespace
} // namespace velorane::test
