// The virtual monitor client: set-up, the blocking exchange against a
// server that answers, splits, stalls or stays silent, and the framing of
// the asynchronous mode.

#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Tests/Support/QtEventPump.h"
#include "Tests/VirtualMonitor/VirtualMonitorTestSupport.h"

#include <QElapsedTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueWarning;
using quorvan::velorane::virtualmonitor::IpcClient;
using quorvan::velorane::virtualmonitor::SetResolution;
using namespace std::chrono_literals;

const char* kServerName = "VIRTUAL_MONITOR_SERVER";
const char* kNotInitialized = "IpcClient is not initialized";

QByteArray Hex(const char* hex)
{
    return QByteArray::fromHex(hex);
}

QByteArray SetResolutionRequest()
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, SetResolution, 1920, 1080, 250);
    return request;
}

const QByteArray kSetResolutionReply = Hex("0000000ba1440100000000");

class IpcClientTest : public LocalSocketTest
{
protected:
    std::unique_ptr<ScriptedLocalServer> Serve(ScriptedReply reply)
    {
        auto server = std::make_unique<ScriptedLocalServer>(
            SocketPath(kServerName), [reply](int, const Bytes&) { return reply; });
        EXPECT_TRUE(server->Listening());
        return server;
    }

    // Sends the SetResolution request of the example in blocking mode and
    // answers SendRequestBlocking's result; *elapsedMs is how long it took.
    static bool SendTimed(IpcClient& client, QByteArray* received, qint64* elapsedMs)
    {
        QElapsedTimer timer;
        timer.start();
        const bool sent = client.SendRequestBlocking(SetResolutionRequest(), received);
        *elapsedMs = timer.elapsed();
        return sent;
    }
};

TEST_F(IpcClientTest, AnUninitialisedInstanceRefusesEveryOperation)
{
    IpcClient client;
    EXPECT_FALSE(client.ConnectToServer(100));
    EXPECT_FALSE(client.SendReply(Hex("00")));
    EXPECT_FALSE(client.setAsynchronousMode());
    ASSERT_TRUE(QMetaObject::invokeMethod(&client, "onRecv", Qt::DirectConnection));
    EXPECT_EQ(m_log->Messages(), std::vector<std::string>(4, kNotInitialized));
    EXPECT_FALSE(client.IsInitialized());
    EXPECT_TRUE(client.PendingBytes().isEmpty());
    for (const auto& line : m_log->Lines()) {
        EXPECT_EQ(line.group, EGroupValueWarning);
    }
    EXPECT_TRUE(client.findChildren<QLocalSocket*>().isEmpty());
}

TEST_F(IpcClientTest, ASecondInitializeKeepsTheFirstSocket)
{
    IpcClient client;
    client.Initialize(QString::fromLatin1("FIRST"));
    client.Initialize(QString::fromLatin1("SECOND"));
    const auto sockets = client.findChildren<QLocalSocket*>();
    ASSERT_EQ(sockets.size(), 1);
    EXPECT_EQ(sockets[0]->serverName(), QString::fromLatin1("FIRST"));
    EXPECT_TRUE(client.IsInitialized());
}

TEST_F(IpcClientTest, InitializeWithNullLeavesTheInstanceUninitialised)
{
    IpcClient client;
    client.Initialize(static_cast<QLocalSocket*>(nullptr));
    EXPECT_FALSE(client.IsInitialized());
    EXPECT_FALSE(client.ConnectToServer(100));
    EXPECT_EQ(m_log->Count(kNotInitialized), 1u);
}

TEST_F(IpcClientTest, WithoutAServerConnectFailsAndTheRequestIsNotSent)
{
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(client.ConnectToServer(5000));
    EXPECT_LT(timer.elapsed(), 5500);
    QByteArray reply = Hex("aa");
    EXPECT_FALSE(client.SendRequestBlocking(SetResolutionRequest(), &reply));
    EXPECT_EQ(reply, Hex("aa"));
    // The text names the socket's server, which Qt forgets when a connect
    // fails.
    EXPECT_EQ(m_log->Messages(), std::vector<std::string>{"IpcClient is not connected to "});
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "IpcClient is not connected to "));
    // A reply on it is refused the same way.
    m_log->Clear();
    EXPECT_FALSE(client.SendReply(Hex("00")));
    EXPECT_EQ(m_log->Messages(), std::vector<std::string>{"IpcClient is not connected to "});
}

TEST_F(IpcClientTest, ArgumentsAreCheckedBeforeAnythingElse)
{
    IpcClient client;
    QByteArray reply;
    EXPECT_FALSE(client.SendRequestBlocking(SetResolutionRequest(), nullptr));
    EXPECT_FALSE(client.SendRequestBlocking(QByteArray(), &reply));
    const auto lines = m_log->Messages();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Out data QByteArray parameter is NULL. Unable to Send request to Server");
    EXPECT_EQ(lines[1], "In data QByteArray parameter is empty. Unable to Send request to Server");
    for (const auto& line : m_log->Lines()) {
        EXPECT_EQ(line.group, EGroupValueWarning);
    }
}

TEST_F(IpcClientTest, AWholeReplyIsReturnedAndTheRequestArrivesExactly)
{
    auto server = Serve({ToBytes(kSetResolutionReply)});
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QByteArray reply;
    EXPECT_TRUE(client.SendRequestBlocking(SetResolutionRequest(), &reply));
    EXPECT_EQ(reply, kSetResolutionReply);
    ASSERT_TRUE(server->WaitForRequests(1, 2s));
    EXPECT_EQ(ToQByteArray(server->Requests()[0].bytes), Hex("00000010a144000000078000000438fa"));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(IpcClientTest, AReplySplitOverTwoWritesIsAssembled)
{
    ScriptedReply reply{ToBytes(kSetResolutionReply)};
    reply.firstPart = 5;
    reply.splitDelay = 300ms;
    auto server = Serve(reply);
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QByteArray received;
    qint64 elapsed = 0;
    EXPECT_TRUE(SendTimed(client, &received, &elapsed));
    EXPECT_GE(elapsed, 250);
    EXPECT_LT(elapsed, 4000);
    EXPECT_EQ(received, kSetResolutionReply);
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(IpcClientTest, ASilentServerTimesOutAfterFiveSecondsAndIsDisconnected)
{
    ScriptedReply reply;
    reply.silent = true;
    auto server = Serve(reply);
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QByteArray received = Hex("aa");
    qint64 elapsed = 0;
    EXPECT_FALSE(SendTimed(client, &received, &elapsed));
    EXPECT_GE(elapsed, 4900);
    EXPECT_LT(elapsed, 8000);
    EXPECT_EQ(received, Hex("aa"));
    EXPECT_EQ(m_log->Messages(), std::vector<std::string>{"IpcClient timed out waiting for reply"});
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "IpcClient timed out waiting for reply"));
    EXPECT_TRUE(server->WaitForClosed(1, 5s));
}

TEST_F(IpcClientTest, AReplyCutShortTimesOutWithTheSecondTextAndAnEmptyReply)
{
    // Ten bytes of a fifteen-byte message.
    ScriptedReply reply{ToBytes(Hex("0000000fa13d0100000000"
                                    "00000001"))};
    reply.firstPart = 10;
    reply.holdBack = true;
    auto server = Serve(reply);
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QByteArray received = Hex("aa");
    qint64 elapsed = 0;
    EXPECT_FALSE(SendTimed(client, &received, &elapsed));
    EXPECT_GE(elapsed, 4900);
    EXPECT_LT(elapsed, 8000);
    EXPECT_TRUE(received.isEmpty());
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"IpcClint timed out waiting for reply from server"});
    EXPECT_TRUE(
        m_log->Contains(EGroupValueWarning, "IpcClint timed out waiting for reply from server"));
    EXPECT_TRUE(server->WaitForClosed(1, 5s));
}

TEST_F(IpcClientTest, TwoRepliesInOneWriteAreReturnedTogetherAndRefusedByTheParser)
{
    // Nothing trims the reply to the first message.
    const QByteArray twice = kSetResolutionReply + Hex("0000000ba13d01ffffffff");
    auto server = Serve({ToBytes(twice)});
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QByteArray received;
    qint64 elapsed = 0;
    EXPECT_TRUE(SendTimed(client, &received, &elapsed));
    EXPECT_LT(elapsed, 4000);
    EXPECT_EQ(received, twice);
    EXPECT_TRUE(m_log->Lines().empty());
    int result = 5;
    EXPECT_FALSE(IpcClient::ParseReplyMessage(&received, &result));
    EXPECT_EQ(result, 5);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"Reply message is malformed. Size of message 22 isn't "
                                       "equal to size specified in message header 11"});
}

TEST_F(IpcClientTest, AReplyAnnouncingSizeZeroEndsTheWaitAndFailsToParse)
{
    auto server = Serve({ToBytes(Hex("00000000a14401"
                                     "00000000"))});
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QByteArray received;
    qint64 elapsed = 0;
    EXPECT_TRUE(SendTimed(client, &received, &elapsed));
    EXPECT_LT(elapsed, 4000);
    int result = 0;
    EXPECT_FALSE(IpcClient::ParseReplyMessage(&received, &result));
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning,
                                "Reply message is malformed. Size of message 11 isn't equal to "
                                "size specified in message header 0"));
}

TEST_F(IpcClientTest, TheQueuedRequestSignalsItsReply)
{
    auto server = Serve({ToBytes(kSetResolutionReply)});
    IpcClient client(QString::fromLatin1(kServerName), nullptr);
    ASSERT_TRUE(client.ConnectToServer(5000));
    QSignalSpy ready(&client, &IpcClient::SignalDataReady);
    client.SendRequest(SetResolutionRequest());
    // Queued: nothing happens before the event loop runs.
    EXPECT_EQ(ready.count(), 0);
    ASSERT_TRUE(WaitUntil([&] { return ready.count() == 1; }));
    EXPECT_EQ(ready[0][0].value<IpcClient*>(), &client);
    EXPECT_EQ(ready[0][1].toByteArray(), kSetResolutionReply);
}

// The asynchronous mode, on a socket accepted by a Qt server in the test.
class IpcClientAsyncTest : public IpcClientTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.listen(QString::fromLatin1("ASYNC_TEST")));
        m_peer = std::make_unique<RawLocalClient>(SocketPath("ASYNC_TEST"));
        ASSERT_TRUE(m_peer->Connected());
        ASSERT_TRUE(WaitUntil([&] { return m_server.hasPendingConnections(); }));
        m_client = std::make_unique<IpcClient>(m_server.nextPendingConnection(),
                                               QString::fromLatin1("ignored"), nullptr);
        ASSERT_TRUE(m_client->setAsynchronousMode());
        m_ready = std::make_unique<QSignalSpy>(m_client.get(), &IpcClient::SignalDataReady);
    }

    QLocalServer m_server;
    std::unique_ptr<RawLocalClient> m_peer;
    std::unique_ptr<IpcClient> m_client;
    std::unique_ptr<QSignalSpy> m_ready;
};

TEST_F(IpcClientAsyncTest, TwoWholeMessagesAndHalfAThirdGiveTwoSignals)
{
    const QByteArray first = SetResolutionRequest();
    const QByteArray second = Hex("00000007a13f00");
    const QByteArray third = Hex("0000000fa13d00"
                                 "00000500"
                                 "000002d0");
    ASSERT_TRUE(m_peer->Write(first + second + third.left(8)));
    ASSERT_TRUE(WaitUntil([&] { return m_ready->count() == 2; }));
    PumpEventsFor(100ms);
    ASSERT_EQ(m_ready->count(), 2);
    EXPECT_EQ((*m_ready)[0][1].toByteArray(), first);
    EXPECT_EQ((*m_ready)[1][1].toByteArray(), second);
    EXPECT_EQ(m_client->PendingBytes(), third.left(8));

    ASSERT_TRUE(m_peer->Write(third.mid(8)));
    ASSERT_TRUE(WaitUntil([&] { return m_ready->count() == 3; }));
    EXPECT_EQ((*m_ready)[2][1].toByteArray(), third);
    EXPECT_TRUE(m_client->PendingBytes().isEmpty());
}

TEST_F(IpcClientAsyncTest, ASizeOfZeroOrBelowDropsTheBufferInsteadOfSpinning)
{
    ASSERT_TRUE(m_peer->Write(Hex("00000000a13d00"
                                  "0102")));
    ASSERT_TRUE(
        WaitUntil([&] { return m_log->Count("Dropping 9 received bytes: message size 0") == 1; }));
    ASSERT_TRUE(m_peer->Write(Hex("fffffff0a13d00")));
    ASSERT_TRUE(WaitUntil(
        [&] { return m_log->Count("Dropping 7 received bytes: message size -16") == 1; }));
    EXPECT_EQ(m_ready->count(), 0);
    EXPECT_TRUE(m_client->PendingBytes().isEmpty());

    // The framing goes on with the next message.
    ASSERT_TRUE(m_peer->Write(Hex("00000007a13f00")));
    ASSERT_TRUE(WaitUntil([&] { return m_ready->count() == 1; }));
    EXPECT_EQ((*m_ready)[0][1].toByteArray(), Hex("00000007a13f00"));
}

TEST_F(IpcClientAsyncTest, ASmallPositiveSizeIsFramedAsItSays)
{
    ASSERT_TRUE(m_peer->Write(Hex("00000003a13d00")));
    ASSERT_TRUE(WaitUntil([&] { return m_ready->count() == 1; }));
    EXPECT_EQ((*m_ready)[0][1].toByteArray(), Hex("000000"));
    EXPECT_EQ(m_client->PendingBytes(), Hex("03a13d00"));
}

TEST_F(IpcClientAsyncTest, RepliesGoOutOnTheAdoptedSocket)
{
    EXPECT_TRUE(m_client->SendReply(kSetResolutionReply));
    QByteArray received;
    ASSERT_TRUE(WaitUntil([&] {
        received += m_peer->ReadAvailable();
        return received.size() >= kSetResolutionReply.size();
    }));
    EXPECT_EQ(received, kSetResolutionReply);
}

TEST_F(IpcClientAsyncTest, APeerHangingUpSignalsTheDisconnectAndEndsTheInstance)
{
    QSignalSpy disconnected(m_client.get(), &IpcClient::SignalDisconnected);
    m_peer->Close();
    ASSERT_TRUE(WaitUntil([&] { return disconnected.count() == 1; }));
    EXPECT_EQ(disconnected[0][0].value<IpcClient*>(), m_client.get());
    EXPECT_FALSE(m_client->IsInitialized());
    EXPECT_FALSE(m_client->SendReply(kSetResolutionReply));
    EXPECT_EQ(m_log->Count(kNotInitialized), 1u);
}

TEST_F(IpcClientAsyncTest, AMessageThatNeverEndsDropsTheLinkPastSixtyFourKilobytes)
{
    QSignalSpy disconnected(m_client.get(), &IpcClient::SignalDisconnected);
    // A header announcing 2 GiB, then bytes without end.
    ASSERT_TRUE(m_peer->Write(Hex("7fffffffa13d00")));
    const QByteArray chunk(16 * 1024, static_cast<char>(0x5A));
    for (int i = 0; i < 8 && disconnected.count() == 0; ++i) {
        m_peer->Write(chunk);
        PumpEventsFor(20ms);
    }
    ASSERT_TRUE(WaitUntil([&] { return disconnected.count() == 1; }));
    EXPECT_EQ(m_ready->count(), 0);
    EXPECT_TRUE(m_client->PendingBytes().isEmpty());
    ASSERT_EQ(m_log->Lines().size(), 1u);
    const auto line = m_log->Lines()[0];
    EXPECT_EQ(line.group, quorvan::EGroupValueWarning);
    EXPECT_EQ(line.message.rfind("Dropping the link: ", 0), 0u) << line.message;
    const std::string tail = " bytes unparsed, more than 65536";
    ASSERT_GT(line.message.size(), tail.size());
    EXPECT_EQ(line.message.substr(line.message.size() - tail.size()), tail) << line.message;
    EXPECT_FALSE(m_client->IsInitialized());
}

TEST_F(IpcClientAsyncTest, SixtyFourKilobytesUnparsedAreStillKept)
{
    ASSERT_TRUE(m_peer->Write(Hex("7fffffffa13d00")));
    ASSERT_TRUE(m_peer->Write(QByteArray(IpcClient::kMaxUnparsedBytes - 7, 'x')));
    ASSERT_TRUE(
        WaitUntil([&] { return m_client->PendingBytes().size() == IpcClient::kMaxUnparsedBytes; }));
    PumpEventsFor(100ms);
    EXPECT_TRUE(m_client->IsInitialized());
    EXPECT_EQ(m_log->Lines().size(), 0u);
}

} // namespace
} // namespace velorane::test
