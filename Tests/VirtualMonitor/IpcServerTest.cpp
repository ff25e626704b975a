// The virtual monitor server: each request reaches the right interface and
// is answered exactly once with the right bytes; malformed input is logged
// and skipped; the relay's instance, with no interfaces, still answers.

#include "Common/VirtualMonitor/Src/IpcServer.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Tests/Support/QtEventPump.h"
#include "Tests/VirtualMonitor/VirtualMonitorTestSupport.h"

#include <QLocalServer>
#include <QSignalSpy>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <regex>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueWarning;

using quorvan::velorane::extendedpresentation::IExtendedPresentation;
using namespace quorvan::velorane::virtualmonitor;
using namespace std::chrono_literals;
using ::testing::_;
using ::testing::DoAll;
using ::testing::Invoke;
using ::testing::Return;

class MockManager : public IVirtualMonitorManager
{
public:
    MOCK_METHOD(RESULT, CreateConference, (int, int), (override));
    MOCK_METHOD(RESULT, UpdateConference, (int, int), (override));
    MOCK_METHOD(RESULT, DestroyConference, (), (override));
    MOCK_METHOD(RESULT, ReserveRect, (const tVmRect&), (override));
    MOCK_METHOD(RESULT, ReserveEmpty, (), (override));
    MOCK_METHOD(RESULT, GetMonitorInfo, (tMonitorInfo*), (override));
    MOCK_METHOD(RESULT, SetResolution, (int, int, unsigned char), (override));
    MOCK_METHOD(RESULT, SetCursorCage, (bool, long long, tMonitorInfo*), (override));
    MOCK_METHOD(RESULT, RequestCalibrate, (tMonitorInfo*), (override));
};

class MockExtendedPresentation : public IExtendedPresentation
{
public:
    MOCK_METHOD(RESULT, CreateExtendedPresentation, (), (override));
    MOCK_METHOD(RESULT, DestroyExtendedPresentation, (), (override));
};

QByteArray Hex(const char* hex)
{
    return QByteArray::fromHex(hex);
}

const char* kName = "VIRTUAL_MONITOR_SERVER";

class IpcServerTest : public LocalSocketTest
{
protected:
    void SetUp() override
    {
        m_server = std::make_unique<IpcServer>(m_manager, m_presentation);
        ASSERT_TRUE(m_server->Initialize(QString::fromLatin1(kName)));
        m_log->Clear();
    }

    // Connects a plain client and waits until the server has adopted it.
    std::unique_ptr<RawLocalClient> Connect(IpcServer& server)
    {
        QSignalSpy connected(&server, &IpcServer::SignalNewIncomingConnection);
        auto peer = std::make_unique<RawLocalClient>(SocketPath(kName));
        EXPECT_TRUE(peer->Connected());
        EXPECT_TRUE(WaitUntil([&] { return connected.count() == 1; }));
        return peer;
    }

    // Sends a request and collects what comes back while the server's
    // events run: up to expected bytes, then a little longer for any more.
    QByteArray Exchange(RawLocalClient& peer, const QByteArray& request, int expected,
                        std::chrono::milliseconds timeout = 3s)
    {
        EXPECT_TRUE(peer.Write(request));
        QByteArray received;
        WaitUntil(
            [&] {
                received += peer.ReadAvailable();
                return received.size() >= expected;
            },
            timeout);
        PumpEventsFor(50ms);
        received += peer.ReadAvailable();
        return received;
    }

    std::shared_ptr<MockManager> m_manager = std::make_shared<MockManager>();
    std::shared_ptr<MockExtendedPresentation> m_presentation =
        std::make_shared<MockExtendedPresentation>();
    std::unique_ptr<IpcServer> m_server;
};

QByteArray Request(Command command)
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, command);
    return request;
}

TEST_F(IpcServerTest, SetResolutionReachesTheManagerAndItsResultIsAnswered)
{
    EXPECT_CALL(*m_manager, SetResolution(1920, 1080, 250))
        .WillOnce(Return(0))
        .WillOnce(Return(-5));
    auto peer = Connect(*m_server);
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, SetResolution, 1920, 1080, 250);
    EXPECT_EQ(Exchange(*peer, request, 11), Hex("0000000ba1440100000000"));
    EXPECT_EQ(Exchange(*peer, request, 11), Hex("0000000ba14401fffffffb"));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(IpcServerTest, CreateConferenceReachesTheManagerWithItsSize)
{
    EXPECT_CALL(*m_manager, CreateConference(1280, 720)).WillOnce(Return(0));
    auto peer = Connect(*m_server);
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, CreateConference, 1280, 720);
    EXPECT_EQ(Exchange(*peer, request, 11), Hex("0000000ba13d0100000000"));
}

TEST_F(IpcServerTest, DestroyAndPresentationRequestsAreLoggedAndServed)
{
    EXPECT_CALL(*m_manager, DestroyConference()).WillOnce(Return(0));
    EXPECT_CALL(*m_presentation, CreateExtendedPresentation()).WillOnce(Return(-2));
    EXPECT_CALL(*m_presentation, DestroyExtendedPresentation()).WillOnce(Return(0));
    auto peer = Connect(*m_server);
    EXPECT_EQ(Exchange(*peer, Request(DestroyConference), 11), Hex("0000000ba13f0100000000"));
    EXPECT_EQ(Exchange(*peer, Request(CreateExtendedPresentation), 11),
              Hex("0000000ba13e01fffffffe"));
    EXPECT_EQ(Exchange(*peer, Request(DestroyExtendedPresentation), 11),
              Hex("0000000ba1400100000000"));
    const auto lines = m_log->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "Received DestroyConference");
    EXPECT_EQ(lines[1].message, "Received CreateExtendedPresentation");
    EXPECT_EQ(lines[2].message, "Received DestroyExtendedPresentation");
    for (const auto& line : lines) {
        EXPECT_EQ(line.group, EGroupValueInformation);
    }
}

TEST_F(IpcServerTest, TwoRequestsInOneWriteGetTwoRepliesInOrder)
{
    EXPECT_CALL(*m_manager, SetResolution(800, 600, 250)).WillOnce(Return(0));
    EXPECT_CALL(*m_manager, CreateConference(1280, 720)).WillOnce(Return(-1));
    auto peer = Connect(*m_server);
    QByteArray first;
    IpcClient::BuildRequestMessage(&first, SetResolution, 800, 600, 250);
    QByteArray second;
    IpcClient::BuildRequestMessage(&second, CreateConference, 1280, 720);
    EXPECT_EQ(Exchange(*peer, first + second, 22), Hex("0000000ba1440100000000"
                                                       "0000000ba13d01ffffffff"));
}

TEST_F(IpcServerTest, AReplyTypeMessageIsSkippedWithoutAnAnswer)
{
    auto peer = Connect(*m_server);
    EXPECT_TRUE(Exchange(*peer, Hex("00000007a13f01"), 1, 300ms).isEmpty());
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"Skipping message: Message type 1 isn't a request"});
    EXPECT_EQ(m_log->Lines()[0].group, EGroupValueWarning);
}

TEST_F(IpcServerTest, CursorCageWithWindowZeroAnswersTheGeneralFailureUntouched)
{
    EXPECT_CALL(*m_manager, SetCursorCage(_, _, _)).Times(0);
    auto peer = Connect(*m_server);
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, SetCursorCage, 1, 0LL);
    EXPECT_EQ(Exchange(*peer, request, 27), Hex("0000001ba14301"
                                                "80000000"
                                                "00000000000000000000000000000000"));
}

TEST_F(IpcServerTest, CursorCageWithAWindowAnswersTheManagersRectangle)
{
    EXPECT_CALL(*m_manager, SetCursorCage(true, 0x1122334455LL, _))
        .WillOnce(Invoke([](bool, long long, tMonitorInfo* info) {
            info->bounds = tVmRect{-1280, 0, 1280, 720};
            return 0;
        }));
    auto peer = Connect(*m_server);
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, SetCursorCage, 1, 0x1122334455LL);
    EXPECT_EQ(Exchange(*peer, request, 27), Hex("0000001ba1430100000000"
                                                "fffffb00"
                                                "00000000"
                                                "00000500"
                                                "000002d0"));
}

TEST_F(IpcServerTest, CalibrateTellsFailureOnlyInTheFoundFlag)
{
    unsigned tag = 0;
    EXPECT_CALL(*m_manager, RequestCalibrate(_)).WillOnce(Invoke([&](tMonitorInfo* info) {
        tag = info->monitorTag;
        return static_cast<RESULT>(0x80000000u);
    }));
    auto peer = Connect(*m_server);
    EXPECT_EQ(Exchange(*peer, Request(RequestCalibrate), 12), Hex("0000000ca147010000000000"));
    EXPECT_EQ(tag, 250u);
}

TEST_F(IpcServerTest, CalibrateFoundAnswersTheRectangle)
{
    EXPECT_CALL(*m_manager, RequestCalibrate(_)).WillOnce(Invoke([](tMonitorInfo* info) {
        EXPECT_TRUE(info->name.isEmpty());
        info->bounds = tVmRect{1920, 0, 1280, 720};
        return 0;
    }));
    auto peer = Connect(*m_server);
    EXPECT_EQ(Exchange(*peer, Request(RequestCalibrate), 28), Hex("0000001ca1470100000000"
                                                                  "01"
                                                                  "00000780"
                                                                  "00000000"
                                                                  "00000500"
                                                                  "000002d0"));
}

TEST_F(IpcServerTest, QuitProcessSignalsFirstAndStillAnswersTheGeneralFailure)
{
    auto peer = Connect(*m_server);
    bool replyBeforeSignal = false;
    int quits = 0;
    QObject::connect(m_server.get(), &IpcServer::SignalQuitProcess, [&] {
        ++quits;
        replyBeforeSignal = !peer->ReadAvailable().isEmpty();
    });
    EXPECT_EQ(Exchange(*peer, Request(QuitProcess), 11), Hex("0000000ba1480180000000"));
    EXPECT_EQ(quits, 1);
    EXPECT_FALSE(replyBeforeSignal);
}

TEST_F(IpcServerTest, ReservedAndUnknownCommandsAreRefusedWithAnEcho)
{
    const tVmRect rect{1, 2, 3, 4};
    QByteArray reservedRect;
    IpcClient::BuildRequestMessage(&reservedRect, ReservedRect, &rect);
    ASSERT_EQ(reservedRect.size(), 23);
    QByteArray reservedEmpty = Request(ReservedEmpty);
    ASSERT_EQ(reservedEmpty.size(), 7);
    auto peer = Connect(*m_server);
    EXPECT_EQ(Exchange(*peer, reservedRect, 11), Hex("0000000ba1410180000000"));
    EXPECT_EQ(Exchange(*peer, reservedEmpty, 11), Hex("0000000ba1420180000000"));
    EXPECT_EQ(Exchange(*peer, Hex("00000007a14500"), 11), Hex("0000000ba1450180000000"));
    EXPECT_EQ(Exchange(*peer, Hex("00000007123400"), 11), Hex("0000000b12340180000000"));
    EXPECT_EQ(m_log->Messages(), (std::vector<std::string>{
                                     "Skipping message: Uknown command 41281, malformed message",
                                     "Skipping message: Uknown command 41282, malformed message",
                                     "Skipping message: Uknown command 41285, malformed message",
                                     "Skipping message: Uknown command 4660, malformed message"}));
    for (const auto& line : m_log->Lines()) {
        EXPECT_EQ(line.group, EGroupValueWarning);
    }
}

TEST_F(IpcServerTest, TheMessageTypeIsPrintedUnsigned)
{
    auto peer = Connect(*m_server);
    EXPECT_TRUE(Exchange(*peer, Hex("00000007a13fff"), 1, 300ms).isEmpty());
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"Skipping message: Message type 255 isn't a request"});
}

// A peer that keeps sending rubbish is told of every time: the receive
// path's warnings are not suspended after five in a row as other sites are.
TEST_F(IpcServerTest, TheReceiveWarningsAreNeverSuspended)
{
    const int kRepeats = 8;
    IpcClient unconnected;
    for (int i = 0; i < kRepeats; ++i) {
        m_server->onRecv(nullptr, Hex("00000007a13f00"));
        m_server->onRecv(&unconnected, QByteArray());
        m_server->onRecv(&unconnected, Hex("000000"));
        m_server->onRecv(&unconnected, Hex("00000007a13f01"));
    }
    auto peer = Connect(*m_server);
    QByteArray unknown;
    QByteArray expected;
    for (int i = 0; i < kRepeats; ++i) {
        unknown += Hex("00000007a14900");
        expected += Hex("0000000ba1490180000000");
    }
    EXPECT_EQ(Exchange(*peer, unknown, expected.size()), expected);

    const auto count = static_cast<size_t>(kRepeats);
    EXPECT_EQ(m_log->Count("IpcClient is NULL"), count);
    EXPECT_EQ(m_log->Count("Data received is empty"), count);
    EXPECT_EQ(m_log->Count(
                  "Data received is incomplete: message length of 3 is less than minimum size 7"),
              count);
    EXPECT_EQ(m_log->Count("Skipping message: Message type 1 isn't a request"), count);
    EXPECT_EQ(m_log->Count("Skipping message: Uknown command 41289, malformed message"), count);
    EXPECT_EQ(m_log->Lines().size(), 5 * count);
    for (const auto& line : m_log->Lines()) {
        EXPECT_EQ(line.group, EGroupValueWarning);
        EXPECT_EQ(line.message.rfind("WARNING --", 0), std::string::npos) << line.message;
    }
}

TEST_F(IpcServerTest, UnsentRepliesAreToldEveryTime)
{
    const int kRepeats = 7;
    EXPECT_CALL(*m_manager, DestroyConference()).Times(kRepeats).WillRepeatedly(Return(0));
    IpcClient unconnected;
    // The other lines of this path are limited as usual; a thread of its own
    // keeps their count away from the other tests'.
    std::unique_ptr<QThread> thread(QThread::create([&] {
        for (int i = 0; i < kRepeats; ++i) {
            m_server->onRecv(&unconnected, Request(DestroyConference));
        }
    }));
    thread->start();
    ASSERT_TRUE(thread->wait(10000));
    EXPECT_EQ(m_log->Count("Unable to send reply for command: 41279"),
              static_cast<size_t>(kRepeats));
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "Unable to send reply for command: 41279"));
}

TEST_F(IpcServerTest, AShortRequestReadsZerosPastItsEnd)
{
    EXPECT_CALL(*m_manager, CreateConference(0x500, 0)).WillOnce(Return(0));
    auto peer = Connect(*m_server);
    EXPECT_EQ(Exchange(*peer, Hex("0000000ba13d0000000500"), 11), Hex("0000000ba13d0100000000"));
}

TEST_F(IpcServerTest, MalformedDataHandedToTheSlotIsLoggedAndSkipped)
{
    IpcClient unconnected;
    m_server->onRecv(nullptr, Hex("00000007a13f00"));
    m_server->onRecv(&unconnected, QByteArray());
    m_server->onRecv(&unconnected, Hex("000000"));
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{
                  "IpcClient is NULL", "Data received is empty",
                  "Data received is incomplete: message length of 3 is less than minimum size 7"}));
}

TEST_F(IpcServerTest, AReplyThatCantBeSentIsLogged)
{
    EXPECT_CALL(*m_manager, DestroyConference()).WillOnce(Return(0));
    IpcClient unconnected;
    m_server->onRecv(&unconnected, Request(DestroyConference));
    EXPECT_EQ(m_log->Messages(), (std::vector<std::string>{
                                     "Received DestroyConference", "IpcClient is not initialized",
                                     "Unable to send reply for command: 41279"}));
}

TEST_F(IpcServerTest, EachConnectionIsSignalledAndItsClientGoesWithTheDisconnect)
{
    QSignalSpy connected(m_server.get(), &IpcServer::SignalNewIncomingConnection);
    auto first = std::make_unique<RawLocalClient>(SocketPath(kName));
    auto second = std::make_unique<RawLocalClient>(SocketPath(kName));
    ASSERT_TRUE(WaitUntil([&] { return connected.count() == 2; }));
    EXPECT_EQ(m_server->findChildren<IpcClient*>().size(), 2);
    first.reset();
    second.reset();
    ASSERT_TRUE(WaitUntil([&] { return m_server->findChildren<IpcClient*>().isEmpty(); }));
    EXPECT_EQ(connected.count(), 2);
}

TEST_F(IpcServerTest, ASecondServerOnTheSameNameTakesItOver)
{
    IpcServer second(m_manager, m_presentation);
    ASSERT_TRUE(second.Initialize(QString::fromLatin1(kName)));
    QSignalSpy firstConnected(m_server.get(), &IpcServer::SignalNewIncomingConnection);
    auto peer = Connect(second);
    PumpEventsFor(50ms);
    EXPECT_EQ(firstConnected.count(), 0);
}

TEST_F(IpcServerTest, AFailedListenNamesTheProcessServerAndAsksToQuit)
{
    IpcServer server;
    QSignalSpy quit(&server, &IpcServer::SignalQuitProcess);
    EXPECT_FALSE(server.Initialize(QString::fromStdString(m_dir.File("missing/folder/NAME"))));
    EXPECT_EQ(quit.count(), 1);
    const auto lines = m_log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].group, EGroupValueWarning);
    EXPECT_TRUE(std::regex_match(
        lines[0].message,
        std::regex("Unable to listen at VIRTUAL_MONITOR_SERVER\\. QLocalServer error: '.+'\\. "
                   "SocketError enum -?[0-9]+\\. Exiting process\\.\\.\\. ")))
        << lines[0].message;
}

// The relay's own server has nothing behind it.
class RelayIpcServerTest : public IpcServerTest
{
protected:
    void SetUp() override
    {
        m_server = std::make_unique<IpcServer>();
        ASSERT_TRUE(m_server->Initialize(QString::fromLatin1(kName)));
        m_log->Clear();
    }
};

TEST_F(RelayIpcServerTest, RequestsThatNeedAnInterfaceGetTheGeneralFailure)
{
    auto peer = Connect(*m_server);
    QByteArray create;
    IpcClient::BuildRequestMessage(&create, CreateConference, 1280, 720);
    EXPECT_EQ(Exchange(*peer, create, 11), Hex("0000000ba13d0180000000"));
    EXPECT_EQ(Exchange(*peer, Request(DestroyConference), 11), Hex("0000000ba13f0180000000"));
    EXPECT_EQ(Exchange(*peer, Request(CreateExtendedPresentation), 11),
              Hex("0000000ba13e0180000000"));
    EXPECT_EQ(Exchange(*peer, Request(DestroyExtendedPresentation), 11),
              Hex("0000000ba1400180000000"));
    QByteArray resolution;
    IpcClient::BuildRequestMessage(&resolution, SetResolution, 1920, 1080, 250);
    EXPECT_EQ(Exchange(*peer, resolution, 11), Hex("0000000ba1440180000000"));
    QByteArray cage;
    IpcClient::BuildRequestMessage(&cage, SetCursorCage, 1, 7LL);
    EXPECT_EQ(Exchange(*peer, cage, 27), Hex("0000001ba14301"
                                             "80000000"
                                             "00000000000000000000000000000000"));
    EXPECT_EQ(Exchange(*peer, Request(RequestCalibrate), 12), Hex("0000000ca147018000000000"));
}

TEST_F(RelayIpcServerTest, QuitProcessIsServedWithoutInterfaces)
{
    QSignalSpy quit(m_server.get(), &IpcServer::SignalQuitProcess);
    auto peer = Connect(*m_server);
    EXPECT_EQ(Exchange(*peer, Request(QuitProcess), 11), Hex("0000000ba1480180000000"));
    EXPECT_EQ(quit.count(), 1);
}

TEST_F(RelayIpcServerTest, APeerThatSendsNothingIsOnlySignalled)
{
    QSignalSpy connected(m_server.get(), &IpcServer::SignalNewIncomingConnection);
    RawLocalClient peer(SocketPath(kName));
    ASSERT_TRUE(WaitUntil([&] { return connected.count() == 1; }));
    PumpEventsFor(100ms);
    EXPECT_TRUE(peer.ReadAvailable().isEmpty());
    EXPECT_TRUE(m_log->Lines().empty());
}

} // namespace
} // namespace velorane::test
