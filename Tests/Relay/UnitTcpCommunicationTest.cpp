// The TCP transport against an in-process TLS server with a throw-away
// certificate, run on its own thread the way the relay runs it.
//
// Threads: the test body, the server and the record of the transport's
// signals live on the main thread; the transport lives on m_thread, and its
// signals reach the record queued, delivered while WaitUntil pumps events.
// m_readyReads is counted on the transport thread, after the transport's
// own readyRead slot has parsed.

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Clients/ConferenceTransport/Src/TcpCommunication.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"

#include <QByteArray>
#include <QDataStream>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueSevere;
using quorvan::EGroupValueWarning;
using quorvan::velorane::RelayCommandRequestAudio;
using quorvan::velorane::RelayCommandRequestFrame;
using quorvan::velorane::RelayCommandStartVideo;
using quorvan::velorane::RelayServiceAudio;
using quorvan::velorane::RelayServiceVideo;
using quorvan::velorane::TcpCommunication;
using namespace std::chrono_literals;

QByteArray Bytes(std::initializer_list<uint8_t> bytes)
{
    QByteArray out;
    for (uint8_t b : bytes) {
        out.append(static_cast<char>(b));
    }
    return out;
}

// A Kyr's side of the link: accepts TLS connections with the test
// certificate and records what arrives on the latest one.
class TlsServer : public QTcpServer
{
public:
    TlsServer(const QSslCertificate& certificate, const QSslKey& key)
        : m_certificate(certificate), m_key(key)
    {
    }

    QSslSocket* Peer() const { return m_peer; }
    const QByteArray& Received() const { return m_received; }
    int Connections() const { return m_connections; }
    bool PeerEncrypted() const { return m_peer && m_peer->isEncrypted(); }
    bool PeerDisconnected() const { return m_peerDisconnected; }

    void Write(const QByteArray& bytes)
    {
        ASSERT_NE(m_peer, nullptr);
        ASSERT_EQ(m_peer->write(bytes), bytes.size());
        m_peer->flush();
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QSslSocket(this);
        if (!socket->setSocketDescriptor(descriptor)) {
            delete socket;
            return;
        }
        ++m_connections;
        m_peer = socket;
        m_received.clear();
        m_peerDisconnected = false;
        socket->setLocalCertificate(m_certificate);
        socket->setPrivateKey(m_key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        QObject::connect(socket, &QSslSocket::readyRead, this,
                         [this, socket] { m_received.append(socket->readAll()); });
        QObject::connect(socket, &QSslSocket::disconnected, this,
                         [this] { m_peerDisconnected = true; });
        socket->startServerEncryption();
    }

private:
    QSslCertificate m_certificate;
    QSslKey m_key;
    QSslSocket* m_peer = nullptr;
    QByteArray m_received;
    int m_connections = 0;
    bool m_peerDisconnected = false;
};

struct Dispatched
{
    RelayService service;
    RelayCommand command;
    QByteArray payload;
};

// A response as the Kyr writes it: big-endian header, size counting it.
QByteArray Response(uint32_t service, uint32_t command, const QByteArray& payload)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::BigEndian);
    stream << static_cast<quint32>(service) << static_cast<quint32>(command)
           << static_cast<quint32>(12 + payload.size());
    stream.writeRawData(payload.constData(), payload.size());
    return bytes;
}

const QByteArray kPasswordFrame = Bytes({
    0x06, 0x00, 0x00, 0x00,       // length: 6, little-endian
    's', 'e', 'c', 'r', 'e', 't', // password bytes, no terminator
});

class UnitTcpCommunicationTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        UnitQtApplication();
        ASSERT_TRUE(QSslSocket::supportsSsl());
        s_certDir = std::make_unique<TempDir>();
        const std::string command =
            "'" + SourcePath("scripts/make-test-cert.sh") + "' '" + s_certDir->Path() + "'";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        QFile certificateFile(QString::fromStdString(s_certDir->File("kyr-sim.crt")));
        QFile keyFile(QString::fromStdString(s_certDir->File("kyr-sim.key")));
        ASSERT_TRUE(certificateFile.open(QIODevice::ReadOnly));
        ASSERT_TRUE(keyFile.open(QIODevice::ReadOnly));
        s_certificate = QSslCertificate(certificateFile.readAll(), QSsl::Pem);
        s_key = QSslKey(keyFile.readAll(), QSsl::Rsa, QSsl::Pem);
        ASSERT_FALSE(s_certificate.isNull());
        ASSERT_FALSE(s_key.isNull());
    }

    static void TearDownTestSuite() { s_certDir.reset(); }

    void TearDown() override
    {
        StopTransport();
        // A server socket destroyed before it has taken in the close leaves
        // OpenSSL state behind; let it see the close first.
        if (m_server && m_server->Peer()) {
            EXPECT_TRUE(WaitUntil([this] { return m_server->PeerDisconnected(); }, 5s));
        }
        m_server.reset();
    }

    // Listens on 127.0.0.1 at a port of the system's choice.
    void StartServer()
    {
        m_server = std::make_unique<TlsServer>(s_certificate, s_key);
        ASSERT_TRUE(m_server->listen(QHostAddress::LocalHost, 0));
    }

    // The transport on its thread, wired as the relay wires it, with every
    // signal recorded on the main thread.
    void StartTransport(const QHostAddress& address, uint16_t port,
                        const std::string& password = "secret")
    {
        m_thread = std::make_unique<QThread>();
        m_transport = new TcpCommunication();
        m_transport->setHostAddress(address, port);
        m_transport->setPassword(password);
        m_transport->moveToThread(m_thread.get());
        QObject::connect(m_thread.get(), &QThread::started, m_transport,
                         &TcpCommunication::slotThreadStarted);
        QObject::connect(m_thread.get(), &QThread::finished, m_transport,
                         &TcpCommunication::slotThreadFinished);

        QObject::connect(m_transport, &TcpCommunication::DataCallback, &m_record,
                         [this](RelayService service, RelayCommand command, QByteArray payload) {
                             m_dispatched.push_back(Dispatched{service, command, payload});
                         });
        QObject::connect(m_transport, &TcpCommunication::SignalConnectComplete, &m_record,
                         [this] { ++m_connectCompletes; });
        QObject::connect(m_transport, &TcpCommunication::SignalDisconnectComplete, &m_record,
                         [this] { ++m_disconnectCompletes; });
        QObject::connect(m_transport, &TcpCommunication::SignalConnectionFailed, &m_record, [this] {
            if (m_failures == 0) {
                m_firstFailureMs = m_sinceSend.isValid() ? m_sinceSend.elapsed() : -1;
            }
            ++m_failures;
        });
        QObject::connect(
            m_transport, &TcpCommunication::ShowErrorMessage, &m_record,
            [this](QString message) { m_errorMessages.push_back(message.toStdString()); });
        m_thread->start();
    }

    // Server and transport, connected, with the password frame received
    // and a readyRead counter on the transport's socket.
    void StartConnected()
    {
        StartServer();
        StartTransport(QHostAddress("127.0.0.1"), m_server->serverPort());
        ASSERT_TRUE(WaitUntil([this] { return m_connectCompletes == 1; }));
        ASSERT_TRUE(WaitUntil([this] { return m_server->Received().size() >= 10; }));
        auto* socket = m_transport->findChild<QSslSocket*>();
        ASSERT_NE(socket, nullptr);
        auto counter = m_readyReads;
        // Connected after the transport's own slot, so it runs once the
        // parse is done, on the transport thread.
        QObject::connect(
            socket, &QSslSocket::readyRead, socket, [counter] { ++*counter; },
            Qt::DirectConnection);
    }

    void StopTransport()
    {
        if (m_thread) {
            m_thread->quit();
            m_thread->wait();
            delete m_transport;
            m_transport = nullptr;
            m_thread.reset();
            // Deliver what the transport emitted while it ended.
            QCoreApplication::processEvents();
        }
    }

    // Runs SendWithPayload on the transport thread and returns its result.
    bool Send(const RelayCommandData& data)
    {
        bool result = false;
        m_sinceSend.start();
        QMetaObject::invokeMethod(
            m_transport, [this, data] { return m_transport->SendWithPayload(data); },
            Qt::BlockingQueuedConnection, &result);
        return result;
    }

    bool InitializeOnThread()
    {
        bool result = false;
        QMetaObject::invokeMethod(
            m_transport, [this] { return m_transport->Initialize(); }, Qt::BlockingQueuedConnection,
            &result);
        return result;
    }

    bool TerminateOnThread()
    {
        bool result = false;
        QMetaObject::invokeMethod(
            m_transport, [this] { return m_transport->Terminate(); }, Qt::BlockingQueuedConnection,
            &result);
        return result;
    }

    // Waits for the transport to have handled n readyReads and delivers
    // what those emitted.
    bool WaitForReadyReads(int n)
    {
        const bool reached = WaitUntil([this, n] { return m_readyReads->load() >= n; });
        QCoreApplication::processEvents();
        return reached;
    }

    static std::unique_ptr<TempDir> s_certDir;
    static QSslCertificate s_certificate;
    static QSslKey s_key;

    ScopedLogCapture m_capture;
    std::unique_ptr<TlsServer> m_server;
    std::unique_ptr<QThread> m_thread;
    TcpCommunication* m_transport = nullptr;
    QObject m_record;
    std::shared_ptr<std::atomic<int>> m_readyReads = std::make_shared<std::atomic<int>>(0);
    std::vector<Dispatched> m_dispatched;
    std::vector<std::string> m_errorMessages;
    int m_connectCompletes = 0;
    int m_disconnectCompletes = 0;
    int m_failures = 0;
    qint64 m_firstFailureMs = -1;
    QElapsedTimer m_sinceSend;
};

std::unique_ptr<TempDir> UnitTcpCommunicationTest::s_certDir;
QSslCertificate UnitTcpCommunicationTest::s_certificate;
QSslKey UnitTcpCommunicationTest::s_key;

// The password frame

TEST_F(UnitTcpCommunicationTest, PasswordFrameIsLengthThenBytes)
{
    EXPECT_EQ(TcpCommunication::PasswordFrame("secret"), kPasswordFrame);
}

TEST_F(UnitTcpCommunicationTest, EmptyPasswordFrameIsFourZeroBytes)
{
    EXPECT_EQ(TcpCommunication::PasswordFrame(""), Bytes({
                                                       0x00, 0x00, 0x00, 0x00, // length: 0
                                                   }));
}

// Connecting

TEST_F(UnitTcpCommunicationTest, ConnectsAndSendsThePasswordFirst)
{
    StartConnected();

    EXPECT_EQ(m_server->Connections(), 1);
    EXPECT_TRUE(m_server->PeerEncrypted());
    EXPECT_EQ(m_server->Received(), kPasswordFrame);
    EXPECT_TRUE(
        m_capture->WaitFor("Successful Socket connection to 127.0.0.1", std::chrono::seconds(5)));
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueInformation, "Successful Socket connection to 127.0.0.1"));
    EXPECT_EQ(m_connectCompletes, 1);
    EXPECT_EQ(m_failures, 0);
    EXPECT_TRUE(m_errorMessages.empty());
}

TEST_F(UnitTcpCommunicationTest, EmptyPasswordSendsAZeroLengthFrame)
{
    StartServer();
    StartTransport(QHostAddress("127.0.0.1"), m_server->serverPort(), "");

    ASSERT_TRUE(WaitUntil([this] { return m_connectCompletes == 1; }));
    ASSERT_TRUE(WaitUntil([this] { return m_server->Received().size() >= 4; }));
    EXPECT_EQ(m_server->Received(), Bytes({0x00, 0x00, 0x00, 0x00})); // length: 0
    EXPECT_EQ(m_failures, 0);
}

// The client's connect order reaches Initialize with TCP too, on the live
// socket: the password goes out again and the link reports complete again.
TEST_F(UnitTcpCommunicationTest, InitializeAgainOnALiveLinkResendsThePassword)
{
    StartConnected();

    EXPECT_TRUE(InitializeOnThread());

    EXPECT_TRUE(WaitUntil([this] { return m_connectCompletes == 2; }, 3s));
    EXPECT_TRUE(WaitUntil([this] { return m_server->Received().size() >= 20; }, 3s));
    EXPECT_EQ(m_server->Connections(), 1);
    EXPECT_EQ(m_server->Received(), kPasswordFrame + kPasswordFrame);
    EXPECT_EQ(m_errorMessages, std::vector<std::string>());
    EXPECT_EQ(m_failures, 0);
}

TEST_F(UnitTcpCommunicationTest, UnparsableAddressFailsWithoutConnecting)
{
    StartServer();
    const QHostAddress address(QStringLiteral("kyr.invalid"));
    ASSERT_TRUE(address.isNull());

    StartTransport(address, 4567);

    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 1; }));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Socket was unable to connect to :4567"));
    PumpEventsFor(200ms);
    EXPECT_EQ(m_failures, 1);
    EXPECT_EQ(m_connectCompletes, 0);
    ASSERT_EQ(m_errorMessages.size(), 1u);
    EXPECT_EQ(m_errorMessages[0], "Connection error.  Please restart Velorane and try again.");
    EXPECT_EQ(m_server->Connections(), 0);
}

TEST_F(UnitTcpCommunicationTest, NobodyListeningFails)
{
    const int port = FreeTcpPort();
    ASSERT_GT(port, 0);

    StartTransport(QHostAddress("127.0.0.1"), static_cast<uint16_t>(port));

    const std::string unable = "Socket was unable to connect to 127.0.0.1:" + std::to_string(port);
    ASSERT_TRUE(WaitUntil([&] { return m_capture->Count(unable) == 1; }));
    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 2; }));
    PumpEventsFor(200ms);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, unable));
    // The refusal reaches the error handler during the handshake wait, then
    // the failed handshake is reported: two emissions.
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, "Socket error 0"));
    EXPECT_EQ(m_failures, 2);
    EXPECT_EQ(m_connectCompletes, 0);
    EXPECT_EQ(m_errorMessages,
              (std::vector<std::string>{
                  "Please restart Velorane and try agin.",
                  "Encrypted connection failed.  Please restart Velorane and try again.",
                  "Connection error.  Please restart Velorane and try again.",
              }));
}

// A Kyr that takes the connection and never answers the handshake: after
// the 5 s wait the handshake has failed, and the link with it.
TEST_F(UnitTcpCommunicationTest, HandshakeUnansweredForFiveSecondsFails)
{
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    QElapsedTimer sinceStart;
    sinceStart.start();

    StartTransport(QHostAddress("127.0.0.1"), silent.serverPort());

    const std::string unable =
        "Socket was unable to connect to 127.0.0.1:" + std::to_string(silent.serverPort());
    ASSERT_TRUE(WaitUntil([&] { return m_capture->Count(unable) == 1; }, 15s));
    EXPECT_GE(sinceStart.elapsed(), 4500);
    PumpEventsFor(200ms);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, unable));
    EXPECT_EQ(m_connectCompletes, 0);
    // Qt reports the wait's time-out as a socket error first: two emissions.
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, "Socket error 5"));
    EXPECT_EQ(m_errorMessages,
              (std::vector<std::string>{
                  "Please restart Velorane and try agin.",
                  "Encrypted connection failed.  Please restart Velorane and try again.",
                  "Connection error.  Please restart Velorane and try again.",
              }));
    EXPECT_EQ(m_failures, 2);
    EXPECT_TRUE(silent.hasPendingConnections());
}

// Sending

TEST_F(UnitTcpCommunicationTest, SendBeforeTheThreadStartedReturnsFalse)
{
    TcpCommunication transport;
    int failures = 0;
    QObject::connect(&transport, &TcpCommunication::SignalConnectionFailed, &transport,
                     [&failures] { ++failures; });

    EXPECT_FALSE(
        transport.SendWithPayload(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));

    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(m_capture->Messages().empty());
}

TEST_F(UnitTcpCommunicationTest, RequestsArriveByteExact)
{
    StartConnected();

    EXPECT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));
    ASSERT_TRUE(WaitUntil([this] { return m_server->Received().size() >= 10 + 12; }));
    const int32_t width = 1280;
    const int32_t height = 720;
    EXPECT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandStartVideo,
                                      [width, height](QDataStream& stream) {
                                          stream << qint32(8) << qint32(width) << qint32(height);
                                      })));
    ASSERT_TRUE(WaitUntil([this] { return m_server->Received().size() >= 10 + 12 + 20; }));

    EXPECT_EQ(m_server->Received(),
              kPasswordFrame + Bytes({
                                   0x99, 0x45, 0xFE, 0xBB, // service: video
                                   0xF9, 0xD0, 0x00, 0x00, // command: request frame
                                   0x00, 0x00, 0x00, 0x00, // payload count: 0
                                   0x99, 0x45, 0xFE, 0xBB, // service: video
                                   0x01, 0xCD, 0x00, 0x00, // command: start video
                                   0x08, 0x00, 0x00, 0x00, // payload count: 8
                                   0x00, 0x05, 0x00, 0x00, // width: 1280
                                   0xD0, 0x02, 0x00, 0x00, // height: 720
                               }));
}

TEST_F(UnitTcpCommunicationTest, SendAfterAFailureReportsTheLostLink)
{
    const int port = FreeTcpPort();
    ASSERT_GT(port, 0);
    StartTransport(QHostAddress("127.0.0.1"), static_cast<uint16_t>(port));
    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 2; }));
    PumpEventsFor(100ms);
    const int failuresBefore = m_failures;
    m_errorMessages.clear();

    EXPECT_FALSE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));

    ASSERT_TRUE(WaitUntil([&] { return m_failures == failuresBefore + 1; }));
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueWarning, "Socket is not connected. Couldn't send 53497."));
    ASSERT_EQ(m_errorMessages.size(), 1u);
    EXPECT_EQ(m_errorMessages[0],
              "Conference connection has failed.  Please restart Velorane and try again.");
}

// Receiving

TEST_F(UnitTcpCommunicationTest, ResponseSplitOverTwoWritesIsDispatchedOnceAtTheSecond)
{
    StartConnected();
    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));
    const QByteArray payload = Bytes({0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00});
    const QByteArray response = Response(RelayServiceVideo, RelayCommandRequestFrame, payload);
    ASSERT_EQ(response.size(), 20);

    m_server->Write(response.left(14));
    ASSERT_TRUE(WaitForReadyReads(1));
    EXPECT_TRUE(m_dispatched.empty());

    m_server->Write(response.mid(14));
    ASSERT_TRUE(WaitForReadyReads(2));
    ASSERT_TRUE(WaitUntil([this] { return !m_dispatched.empty(); }));
    PumpEventsFor(100ms);

    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].service, RelayServiceVideo);
    EXPECT_EQ(m_dispatched[0].command, RelayCommandRequestFrame);
    EXPECT_EQ(m_dispatched[0].payload, payload);
    EXPECT_EQ(m_failures, 0);
}

TEST_F(UnitTcpCommunicationTest, SecondResponseOfOneWriteWaitsForTheNextReadyRead)
{
    StartConnected();
    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));
    const QByteArray first = Response(RelayServiceVideo, RelayCommandRequestFrame, "AAAA");
    const QByteArray second = Response(RelayServiceAudio, RelayCommandRequestAudio, "BB");
    const QByteArray third = Response(RelayServiceVideo, RelayCommandStartVideo, QByteArray());

    m_server->Write(first + second);
    ASSERT_TRUE(WaitForReadyReads(1));
    ASSERT_TRUE(WaitUntil([this] { return !m_dispatched.empty(); }));
    PumpEventsFor(100ms);
    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].service, RelayServiceVideo);
    EXPECT_EQ(m_dispatched[0].payload, QByteArray("AAAA"));

    // The next bytes bring the second one out, and the third stays behind.
    m_server->Write(third);
    ASSERT_TRUE(WaitForReadyReads(2));
    ASSERT_TRUE(WaitUntil([this] { return m_dispatched.size() >= 2; }));
    PumpEventsFor(100ms);
    ASSERT_EQ(m_dispatched.size(), 2u);
    EXPECT_EQ(m_dispatched[1].service, RelayServiceAudio);
    EXPECT_EQ(m_dispatched[1].command, RelayCommandRequestAudio);
    EXPECT_EQ(m_dispatched[1].payload, QByteArray("BB"));
}

// Time-outs and errors

TEST_F(UnitTcpCommunicationTest, NoAnswerWithinFiveSecondsTimesOut)
{
    StartConnected();

    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));

    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 1; }, 15s));
    EXPECT_GE(m_firstFailureMs, 4500);
    EXPECT_LE(m_firstFailureMs, 9000);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Socket request timed out."));
    EXPECT_EQ(m_failures, 1);
    // A time-out shows nothing to the user.
    EXPECT_TRUE(m_errorMessages.empty());
}

TEST_F(UnitTcpCommunicationTest, EachSendRestartsTheRequestTimer)
{
    StartConnected();
    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));
    QElapsedTimer sinceFirstSend;
    sinceFirstSend.start();
    PumpEventsFor(3000ms);
    ASSERT_EQ(m_failures, 0);

    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));

    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 1; }, 15s));
    // Measured from the second send, not the first.
    EXPECT_GE(m_firstFailureMs, 4500);
    EXPECT_LE(m_firstFailureMs, 9000);
    EXPECT_GE(sinceFirstSend.elapsed(), 7500);
    EXPECT_EQ(m_capture->Count("Socket request timed out."), 1u);
}

TEST_F(UnitTcpCommunicationTest, OneByteReceivedStopsTheRequestTimer)
{
    StartConnected();
    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));

    m_server->Write(Bytes({0xBB})); // first byte of a response that never completes
    ASSERT_TRUE(WaitForReadyReads(1));
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "Response received was too small! bytesReceived=[1]"));

    // Six seconds after the send: no time-out.
    PumpEventsFor(std::chrono::milliseconds(6000 - m_sinceSend.elapsed()));
    EXPECT_EQ(m_failures, 0);
    EXPECT_EQ(m_capture->Count("Socket request timed out."), 0u);
    EXPECT_TRUE(m_dispatched.empty());
}

TEST_F(UnitTcpCommunicationTest, ServerClosingIsSocketErrorOne)
{
    StartConnected();

    m_server->Peer()->disconnectFromHost();

    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 1; }));
    PumpEventsFor(200ms);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, "Socket error 1"));
    // Qt reports the TLS close and then the TCP close as two errors, and
    // each one logs once, shows its text once and reports the failure once.
    const auto errorLines = static_cast<int>(m_capture->Count("Socket error 1"));
    EXPECT_GE(errorLines, 1);
    for (const auto& message : m_capture->Messages()) {
        if (message.rfind("Socket error", 0) == 0) {
            EXPECT_EQ(message, "Socket error 1");
        }
    }
    EXPECT_EQ(m_failures, errorLines);
    EXPECT_EQ(m_errorMessages,
              std::vector<std::string>(static_cast<size_t>(errorLines),
                                       "Conference session already in progress or unknown error"));
}

// Ending

TEST_F(UnitTcpCommunicationTest, TerminateOnAnUnconnectedSocketReturnsTrueSilently)
{
    TcpCommunication neverStarted;
    EXPECT_TRUE(neverStarted.Terminate());

    const int port = FreeTcpPort();
    ASSERT_GT(port, 0);
    StartTransport(QHostAddress("127.0.0.1"), static_cast<uint16_t>(port));
    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 2; }));
    const size_t messagesBefore = m_errorMessages.size();

    EXPECT_TRUE(TerminateOnThread());

    PumpEventsFor(100ms);
    EXPECT_EQ(m_disconnectCompletes, 0);
    EXPECT_EQ(m_failures, 2);
    EXPECT_EQ(m_errorMessages.size(), messagesBefore);
}

TEST_F(UnitTcpCommunicationTest, EndingTheThreadTakesTheLinkDown)
{
    StartConnected();

    StopTransport();

    EXPECT_EQ(m_disconnectCompletes, 1);
    EXPECT_EQ(m_failures, 0);
    EXPECT_TRUE(WaitUntil([this] { return m_server->PeerDisconnected(); }));
}

// Bounds on what a peer can make the transport hold

TEST_F(UnitTcpCommunicationTest, HugeAnnouncedResponseEndsTheLinkAtOnce)
{
    StartConnected();
    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));
    QByteArray header = Response(RelayServiceVideo, RelayCommandRequestFrame, QByteArray());
    header[8] = static_cast<char>(0x80); // 2 GiB
    m_server->Write(header + QByteArray(4096, 'x'));

    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 1; }));
    PumpEventsFor(200ms);
    EXPECT_EQ(m_failures, 1);
    EXPECT_TRUE(m_capture->Contains(
        EGroupValueSevere,
        "Response of 2147483660 bytes announced, more than 4194304: closing the link"));
    EXPECT_TRUE(m_dispatched.empty());
    // Nothing more is read from the peer once the link is over.
    auto* socket = m_transport->findChild<QSslSocket*>();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->state(), QAbstractSocket::UnconnectedState);
}

TEST_F(UnitTcpCommunicationTest, BacklogPastTheBoundEndsTheLink)
{
    StartConnected();
    // Empty responses: one is taken per readyRead, and a flood of them
    // piles up behind it.
    const QByteArray one = Response(RelayServiceAudio, RelayCommandRequestAudio, QByteArray());
    QByteArray flood;
    flood.reserve(5 * 1024 * 1024);
    while (flood.size() < 5 * 1024 * 1024) {
        flood += one;
    }
    m_server->Write(flood);

    ASSERT_TRUE(WaitUntil([this] { return m_failures >= 1; }, 20s));
    PumpEventsFor(200ms);
    EXPECT_EQ(m_failures, 1);
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueSevere, "More than 4194304 bytes unread: closing the link"));
    EXPECT_LT(m_dispatched.size(), 5u * 1024u * 1024u / 12u);
}

TEST_F(UnitTcpCommunicationTest, LargestFrameStillPasses)
{
    StartConnected();
    ASSERT_TRUE(Send(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame)));
    QByteArray payload(1024 * 1024 + 64, '\0');
    for (int i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(i * 7);
    }
    m_server->Write(Response(RelayServiceVideo, RelayCommandRequestFrame, payload));
    ASSERT_TRUE(WaitUntil([this] { return !m_dispatched.empty(); }, 20s));
    EXPECT_EQ(m_dispatched[0].payload, payload);
    EXPECT_EQ(m_failures, 0);
}

} // namespace
} // namespace velorane::test
