#include "Tests/Relay/IpcClientFixture.h"

#include "Clients/Conference/SharedConstants.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

namespace velorane::test {

using quorvan::velorane::relay::kRelayServerName;

namespace {

// QCoreApplication keeps a reference to argc, so both outlive it; the
// application itself lives until the process ends.
int g_argc = 1;
char g_argv0[] = "relay_ipc_tests";
char* g_argv[] = {g_argv0, nullptr};
QCoreApplication* g_application = nullptr;

} // namespace

FreshLogger::FreshLogger()
{
    quorvan::ReleaseLoggerInstance();
}

void IpcClientFixture::SetUpTestSuite()
{
    if (!QCoreApplication::instance()) {
        g_application = new QCoreApplication(g_argc, g_argv);
    }
    qRegisterMetaType<QSharedPointer<QByteArray>>("QSharedPointer<QByteArray>");
    qRegisterMetaType<RelayError>("RelayError");
}

IpcClientFixture::IpcClientFixture() : m_tmpDirEnv("TMPDIR", m_tempDir.Path())
{
    const QString name = QString::fromLatin1(kRelayServerName);
    m_server = std::make_unique<QLocalServer>();
    QLocalServer::removeServer(name);
    if (!m_server->listen(name)) {
        ADD_FAILURE() << "listen failed: " << m_server->errorString().toStdString();
    }
}

void IpcClientFixture::TearDown()
{
    StopClient();
}

std::string IpcClientFixture::SocketPath() const
{
    return m_tempDir.File(kRelayServerName);
}

void IpcClientFixture::MakeClient()
{
    m_client = std::make_unique<IpcClient>();
    QObject::connect(m_client.get(), &IpcClient::SignalQuitApplication, &m_recordContext,
                     [this] { ++m_quits; });
    QObject::connect(m_client.get(), &IpcClient::SignalConnectUsb, &m_recordContext,
                     [this] { ++m_connectUsbs; });
    QObject::connect(m_client.get(), &IpcClient::SignalStartScrape, &m_recordContext,
                     [this] { ++m_startScrapes; });
    QObject::connect(m_client.get(), &IpcClient::SignalDesktopPixels, &m_recordContext,
                     [this](QSharedPointer<QByteArray> pixels) { m_pixels.push_back(pixels); });

    // Connected after the client's own slot, so it runs once the parse is
    // done, on the IPC thread.
    auto* socket = m_client->findChild<QLocalSocket*>();
    ASSERT_NE(socket, nullptr);
    m_readyReads->store(0);
    auto counter = m_readyReads;
    QObject::connect(
        socket, &QLocalSocket::readyRead, socket, [counter] { ++*counter; }, Qt::DirectConnection);
}

void IpcClientFixture::StartConnectedClient()
{
    MakeClient();
    m_client->Initialize();
    ASSERT_TRUE(m_server->hasPendingConnections() || m_server->waitForNewConnection(5000));
    m_peer = m_server->nextPendingConnection();
    ASSERT_NE(m_peer, nullptr);
    // Runs once the thread's start-up, and with it the connect, is over.
    QMetaObject::invokeMethod(
        m_client.get(), [] {}, Qt::BlockingQueuedConnection);
}

void IpcClientFixture::StopClient()
{
    if (m_client) {
        m_client->Terminate();
        m_client.reset();
    }
    if (m_peer) {
        m_peer->abort();
        delete m_peer;
        m_peer = nullptr;
    }
    // Signals the client posted on its way out don't outlive the test.
    QCoreApplication::processEvents();
}

bool IpcClientFixture::WaitUntil(const std::function<bool()>& done,
                                 std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(static_cast<qint64>(timeout.count()));
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        // Counters that the IPC thread bumps post nothing here, so the loop
        // looks again every few milliseconds.
        QEventLoop loop;
        QTimer::singleShot(5, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

void IpcClientFixture::SendToRelay(const QByteArray& bytes)
{
    ASSERT_NE(m_peer, nullptr);
    const int before = m_readyReads->load();
    ASSERT_EQ(m_peer->write(bytes), bytes.size());
    m_peer->flush();
    ASSERT_TRUE(WaitUntil([&] { return m_readyReads->load() > before; }));
    // The parse posted its signals before the count went up.
    QCoreApplication::processEvents();
}

QByteArray IpcClientFixture::ReceiveFromRelay(int count)
{
    if (!m_peer) {
        ADD_FAILURE() << "no client connected";
        return QByteArray();
    }
    EXPECT_TRUE(WaitUntil([&] { return m_peer->bytesAvailable() >= count; }))
        << "only " << m_peer->bytesAvailable() << " of " << count << " bytes came";
    return m_peer->readAll();
}

QByteArray Hex(const char* text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

QByteArray Header(int32_t size, int32_t command)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << size << command;
    return bytes;
}

} // namespace velorane::test
