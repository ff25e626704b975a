#include "Clients/Conference/IpcClient.h"

#include "Clients/Conference/ClientIpcCommands.h"
#include "Clients/Conference/SharedConstants.h"
#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Linux/Src/LocalSocketPath.h"

#include <QDataStream>
#include <QElapsedTimer>
#include <QLocalSocket>
#include <QMetaObject>
#include <QString>
#include <QThread>

namespace quorvan::velorane::relay {

namespace {

// A size field larger than what has arrived makes the parse wait, and the
// buffer then grows only as fast as the peer sends. A QByteArray can't pass
// 2 GiB, and growing one that far throws; past this bound what arrives is
// dropped, so a broken peer costs memory but can't end the relay.
constexpr int kMaxBufferedBytes = 1 << 30;
// How often a missing client is asked for again within the connect budget.
constexpr int kConnectPollMs = 100;

} // namespace

IpcClient::IpcClient() : m_thread(new QThread(this)), m_socket(new QLocalSocket(this))
{
    // The children move along, so the socket lives on the IPC thread too.
    moveToThread(m_thread);
    connect(m_thread, &QThread::started, this, &IpcClient::ThreadStarted);
    connect(m_thread, &QThread::finished, this, &IpcClient::ThreadFinished);
    connect(m_socket, &QLocalSocket::readyRead, this, &IpcClient::IpcReadyRead);
    connect(m_socket, &QLocalSocket::disconnected, this, &IpcClient::IpcDisconnected);
}

IpcClient::~IpcClient()
{
    if (m_thread->isRunning()) {
        Terminate();
    }
}

void IpcClient::Initialize()
{
    m_thread->start(QThread::InheritPriority);
}

bool IpcClient::Terminate()
{
    m_thread->quit();
    return m_thread->wait();
}

void IpcClient::ThreadStarted()
{
    if (!m_socket) {
        return;
    }
    // One attempt with a 5-second budget: without the client the relay has
    // no reason to run. A socket file that isn't there yet fails at once on
    // this platform, so the attempt keeps asking until the budget is spent,
    // as a client that is still starting would expect.
    // The name lives in the user's own runtime folder, not in the shared /tmp.
    const QString serverPath =
        QString::fromStdString(quorvan::platform::LocalSocketPath(kRelayServerName));
    QElapsedTimer elapsed;
    elapsed.start();
    bool connected = false;
    for (;;) {
        m_socket->connectToServer(serverPath, QIODevice::ReadWrite);
        const qint64 left = m_connectTimeoutMs - elapsed.elapsed();
        connected = m_socket->waitForConnected(static_cast<int>(qMax<qint64>(left, 0)));
        if (connected || elapsed.elapsed() + kConnectPollMs >= m_connectTimeoutMs) {
            break;
        }
        m_socket->abort();
        QThread::msleep(kConnectPollMs);
    }
    if (connected) {
        VLOG(EGroupValueInformation, "IPC communication with VeloraneClient established");
    } else {
        VLOG(EGroupValueSevere, "Unable to establish IPC communication with the VeloraneClient");
        Q_EMIT SignalQuitApplication();
    }
}

void IpcClient::ThreadFinished()
{
    // Runs on the IPC thread as it ends; the thread deletes the socket on
    // its way out.
    if (m_socket) {
        m_socket->abort();
        m_socket->deleteLater();
        m_socket = nullptr;
    }
}

void IpcClient::IpcReadyRead()
{
    ReceiveBytes(m_socket ? m_socket->readAll() : QByteArray());
}

void IpcClient::ReceiveBytes(const QByteArray& incoming)
{
    if (m_buffer.size() > kMaxBufferedBytes - incoming.size()) {
        VLOG(EGroupValueWarning, "IPC buffer full, dropping %d bytes", incoming.size());
    } else {
        m_buffer.append(incoming);
    }
    // One message per arrival: a second complete one waits for more bytes.
    ParseData();
}

void IpcClient::ParseData()
{
    if (m_buffer.isEmpty()) {
        VLOG(EGroupValueWarning, "No data received");
        return;
    }
    // Not fatal: the size then reads as 0 and the bytes stay for later.
    if (m_buffer.size() < 4) {
        VLOG(EGroupValueWarning, "IPC Command received that's too short. m_buffer.size()=[%d]",
             m_buffer.size());
    }

    // QDataStream reads only what the buffer holds; a read past its end
    // gives 0.
    QDataStream stream(m_buffer);
    int32_t messageSize = 0;
    stream >> messageSize;
    if (m_buffer.size() < messageSize) {
        return;
    }
    int32_t command = 0;
    stream >> command;
    Dispatch(command, stream);

    // A size of 0 or less consumes nothing: right() of the whole length or
    // more is the whole buffer. In 64 bits, as the peer's size may be as low
    // as INT32_MIN; it is at most the buffer's size here.
    const int64_t remaining = static_cast<int64_t>(m_buffer.size()) - messageSize;
    if (remaining < m_buffer.size()) {
        m_buffer = m_buffer.right(static_cast<int>(remaining));
    }
}

void IpcClient::Dispatch(int32_t command, QDataStream& stream)
{
    switch (command) {
    case ClientIpcKillApplication:
    case ClientIpcKillApplicationSecond:
        VLOG(EGroupValueInformation, "Received KillApplication");
        Q_EMIT SignalQuitApplication();
        break;
    case ClientIpcConnectUsb:
        VLOG(EGroupValueInformation, "Received ConnectUsb");
        Q_EMIT SignalConnectUsb();
        break;
    case ClientIpcStartScrape:
        Q_EMIT SignalStartScrape();
        break;
    case ClientIpcDesktopPixels: {
        // The count and the bytes come from the stream, not from the size
        // field. A count beyond the buffer leaves the array null; QDataStream
        // grows it a megabyte at a time as bytes are really there, so a
        // forged count costs no more than that.
        auto pixels = QSharedPointer<QByteArray>::create();
        stream >> *pixels;
        Q_EMIT SignalDesktopPixels(pixels);
        break;
    }
    default:
        VLOG(EGroupValueWarning, "Unknown command: %d", command);
        break;
    }
}

bool IpcClient::SendIPC(int command, QByteArray data)
{
    // The quit sequence calls this from the main thread.
    if (QThread::currentThread() != m_thread && m_thread->isRunning()) {
        bool sent = false;
        QMetaObject::invokeMethod(
            this, [&] { sent = WriteMessage(command, data); }, Qt::BlockingQueuedConnection);
        return sent;
    }
    return WriteMessage(command, data);
}

bool IpcClient::WriteMessage(int command, const QByteArray& data)
{
    if (!m_socket || m_socket->state() != QLocalSocket::ConnectedState) {
        return false;
    }

    QByteArray message;
    QDataStream stream(&message, QIODevice::WriteOnly);
    // Only Error counts its data in the size field; any other command with
    // data goes out with 8. The client reads it so; a new command with data
    // needs its own size here.
    int32_t sizeField = kClientIpcHeaderSize;
    if (command == ClientIpcError && !data.isEmpty()) {
        sizeField = data.size() + kClientIpcHeaderWithDataSize;
    }
    stream << sizeField << static_cast<int32_t>(command);
    if (!data.isEmpty()) {
        stream << data;
    }

    const qint64 written = m_socket->write(message);
    // Out now rather than when the event loop gets to it: the quit message
    // is followed at once by Terminate, whose abort drops what is queued.
    m_socket->flush();
    // An error's -1 is non-zero as well; callers ignore the answer anyway.
    return written != 0;
}

bool IpcClient::SendError(RelayError error)
{
    const QByteArray data = QString("%1").arg(error).toLatin1();
    return SendIPC(ClientIpcError, data);
}

void IpcClient::IpcDisconnected()
{
    VLOG(EGroupValueInformation, "IPC Disconnected");
    Q_EMIT SignalQuitApplication();
}

} // namespace quorvan::velorane::relay
