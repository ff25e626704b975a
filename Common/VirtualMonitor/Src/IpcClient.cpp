#include "Common/VirtualMonitor/Src/IpcClient.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Linux/Src/LocalSocketPath.h"

#include <QElapsedTimer>
#include <QLocalSocket>
#include <QThread>

#include <string>

namespace quorvan::velorane::virtualmonitor {

IpcClient::IpcClient(QObject* parent) : QObject(parent) {}

IpcClient::IpcClient(const QString& serverName, QObject* parent) : QObject(parent)
{
    Initialize(serverName);
}

IpcClient::IpcClient(QLocalSocket* socket, const QString& /*serverName*/, QObject* parent)
    : QObject(parent)
{
    mSocket = socket;
    _Initialize();
}

// The socket goes with its Qt parent: this object, or the server that
// accepted it.
IpcClient::~IpcClient() = default;

void IpcClient::Initialize(const QString& serverName)
{
    if (mInitialized) {
        return;
    }
    mSocket = new QLocalSocket(this);
    mSocket->setServerName(serverName);
    _Initialize();
}

void IpcClient::Initialize(QLocalSocket* socket)
{
    if (mInitialized) {
        return;
    }
    if (!socket) {
        mInitialized = false;
        return;
    }
    mSocket = socket;
    _Initialize();
}

void IpcClient::_Initialize()
{
    if (!mSocket) {
        return;
    }
    connect(this, &IpcClient::_SignalSend, this, &IpcClient::_SendRequest, Qt::QueuedConnection);
    connect(mSocket, &QLocalSocket::disconnected, this, &IpcClient::onDisconnected);
    mInitialized = true;
}

QString IpcClient::ServerName() const
{
    // The name without the folder it lives in.
    const QString name = mSocket ? mSocket->serverName() : QString();
    return name.mid(name.lastIndexOf(QLatin1Char('/')) + 1);
}

bool IpcClient::setAsynchronousMode()
{
    if (!mInitialized || !mSocket) {
        VLOG(EGroupValueWarning, "IpcClient is not initialized");
        return false;
    }
    connect(mSocket, &QIODevice::readyRead, this, &IpcClient::onRecv);
    return true;
}

bool IpcClient::ConnectToServer(int timeoutMs)
{
    if (!mInitialized || !mSocket) {
        VLOG(EGroupValueWarning, "IpcClient is not initialized");
        return false;
    }
    // A bare name lives in the user's own runtime folder, not in the shared
    // /tmp where Qt would look for it.
    const std::string path =
        quorvan::platform::LocalSocketPath(mSocket->serverName().toStdString());
    mSocket->connectToServer(QString::fromStdString(path), QIODevice::ReadWrite);
    return mSocket->waitForConnected(timeoutMs);
}

void IpcClient::SendRequest(const QByteArray& data)
{
    Q_EMIT _SignalSend(data);
}

bool IpcClient::SendRequestBlocking(const QByteArray& data, QByteArray* reply)
{
    if (!reply) {
        VLOG(EGroupValueWarning,
             "Out data QByteArray parameter is NULL. Unable to Send request to Server");
        return false;
    }
    if (data.isEmpty()) {
        VLOG(EGroupValueWarning,
             "In data QByteArray parameter is empty. Unable to Send request to Server");
        return false;
    }
    return _SendRequestBlocking(data, reply);
}

// Waits without an event loop, so nothing else on this thread runs
// meanwhile: at most the 5 s budget plus one poll. The first time-out means
// no byte came, the second that the reply stayed incomplete.
bool IpcClient::_SendRequestBlocking(const QByteArray& data, QByteArray* reply)
{
    if (!mInitialized || !mSocket) {
        VLOG(EGroupValueWarning, "IpcClient is not initialized");
        return false;
    }
    if (mSocket->state() != QLocalSocket::ConnectedState) {
        VLOG(EGroupValueWarning, "IpcClient is not connected to %s", qPrintable(ServerName()));
        return false;
    }
    if (!reply) {
        VLOG(EGroupValueWarning, "Output QByteArray supplied is nullptr");
        return false;
    }
    if (mSocket->write(data) < 1) {
        VLOG(EGroupValueWarning, "IpcClient failed to write to %s", qPrintable(ServerName()));
        return false;
    }

    QElapsedTimer timer;
    timer.start();
    if (!mSocket->waitForReadyRead(kReplyTimeoutMs)) {
        VLOG(EGroupValueWarning, "IpcClient timed out waiting for reply");
        // The socket may have gone already when the peer hung up.
        if (mSocket) {
            mSocket->disconnectFromServer();
        }
        return false;
    }
    int size = 0;
    *reply = mSocket->readAll();
    if (ParseData(*reply, size)) {
        return true;
    }
    while (!timer.hasExpired(kReplyTimeoutMs) && mSocket) {
        // Without an event loop the socket only takes in what has arrived
        // when asked; a zero wait asks without blocking.
        mSocket->waitForReadyRead(0);
        reply->append(mSocket->readAll());
        if (reply->size() > kMaxUnparsedBytes) {
            break;
        }
        QThread::msleep(kReplyPollMs);
        if (ParseData(*reply, size)) {
            return true;
        }
    }
    VLOG(EGroupValueWarning, "IpcClint timed out waiting for reply from server");
    reply->clear();
    if (mSocket) {
        mSocket->disconnectFromServer();
    }
    return false;
}

void IpcClient::_SendRequest(QByteArray data)
{
    QByteArray reply;
    if (_SendRequestBlocking(data, &reply)) {
        Q_EMIT SignalDataReady(this, reply);
    }
}

bool IpcClient::SendReply(const QByteArray& data)
{
    if (!mInitialized || !mSocket) {
        VLOG(EGroupValueWarning, "IpcClient is not initialized");
        return false;
    }
    if (mSocket->state() != QLocalSocket::ConnectedState) {
        VLOG(EGroupValueWarning, "IpcClient is not connected to %s", qPrintable(ServerName()));
        return false;
    }
    return mSocket->write(data) > 0;
}

void IpcClient::onRecv()
{
    if (!mInitialized || !mSocket) {
        VLOG(EGroupValueWarning, "IpcClient is not initialized");
        return;
    }
    mBuffer.append(mSocket->readAll());
    int size = 0;
    while (ParseData(mBuffer, size)) {
        // A size of 0 or below would frame an empty message for ever: the
        // stream has lost its framing and can't find it again.
        if (size <= 0) {
            VLOG(EGroupValueWarning, "Dropping %d received bytes: message size %d", mBuffer.size(),
                 size);
            mBuffer.clear();
            return;
        }
        const QByteArray message = mBuffer.left(size);
        mBuffer = mBuffer.right(mBuffer.size() - size);
        Q_EMIT SignalDataReady(this, message);
    }
    if (mBuffer.size() > kMaxUnparsedBytes && mSocket) {
        // Dropped as a peer that closed would be: its disconnect cleans up.
        VLOG(EGroupValueWarning, "Dropping the link: %d bytes unparsed, more than %d",
             mBuffer.size(), kMaxUnparsedBytes);
        mBuffer.clear();
        mBuffer.squeeze();
        mSocket->abort();
    }
}

void IpcClient::onDisconnected()
{
    mInitialized = false;
    if (mSocket) {
        mSocket->deleteLater();
    }
    Q_EMIT SignalDisconnected(this);
}

} // namespace quorvan::velorane::virtualmonitor
