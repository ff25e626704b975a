#include "Common/VirtualMonitor/Src/IpcServer.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Linux/Src/LocalSocketPath.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Common/VirtualMonitor/Src/ServerNames.h"

#include <QDataStream>
#include <QLocalServer>
#include <QLocalSocket>

#include <utility>

namespace quorvan::velorane::virtualmonitor {

IpcServer::IpcServer(QObject* parent) : QObject(parent) {}

IpcServer::IpcServer(
    std::shared_ptr<IVirtualMonitorManager> manager,
    std::shared_ptr<extendedpresentation::IExtendedPresentation> extendedPresentation,
    QObject* parent)
    : QObject(parent), mManager(std::move(manager)),
      mExtendedPresentation(std::move(extendedPresentation))
{
}

IpcServer::~IpcServer() = default;

bool IpcServer::Initialize(const QString& serverName)
{
    mServer = new QLocalServer(this);
    connect(mServer, &QLocalServer::newConnection, this, &IpcServer::onNewIncomingConnection);
    // In the user's own runtime folder, and for this user only.
    const QString serverPath =
        QString::fromStdString(quorvan::platform::LocalSocketPath(serverName.toStdString()));
    mServer->setSocketOptions(QLocalServer::UserAccessOption);
    QLocalServer::removeServer(serverPath);
    if (mServer->listen(serverPath)) {
        return true;
    }
    const QAbstractSocket::SocketError error = mServer->serverError();
    const QString errorText = mServer->errorString();
    // The text names the process's own server whatever name was asked for.
    VLOG(EGroupValueWarning,
         "Unable to listen at %s. QLocalServer error: '%s'. SocketError enum %d. Exiting "
         "process... ",
         VIRTUAL_MONITOR_IPC_SERVER, qPrintable(errorText), static_cast<int>(error));
    Q_EMIT SignalQuitProcess();
    return false;
}

bool IpcServer::IsListening() const
{
    return mServer && mServer->isListening();
}

void IpcServer::onNewIncomingConnection()
{
    QLocalSocket* socket = mServer ? mServer->nextPendingConnection() : nullptr;
    if (!socket) {
        return;
    }
    auto* client = new IpcClient(this);
    connect(client, &IpcClient::SignalDataReady, this, &IpcServer::onRecv);
    connect(client, &IpcClient::SignalDisconnected, this, &IpcServer::onDisconnected);
    client->Initialize(socket);
    client->setAsynchronousMode();
    Q_EMIT SignalNewIncomingConnection();
}

void IpcServer::onDisconnected(IpcClient* client)
{
    if (client) {
        client->deleteLater();
    }
}

// The warnings of the receive path go past the logger's rate limit: every
// malformed message or lost reply from a peer is told, however many come.
void IpcServer::SendReply(IpcClient* client, const QByteArray& reply, uint16_t command)
{
    if (!client->SendReply(reply)) {
        VLOG_BYPASS(EGroupValueWarning, 0, "Unable to send reply for command: %hu",
                    static_cast<unsigned short>(command));
    }
}

void IpcServer::onRecv(IpcClient* client, const QByteArray& data)
{
    if (!client) {
        VLOG_BYPASS(EGroupValueWarning, 0, "IpcClient is NULL");
        return;
    }
    if (data.isEmpty()) {
        VLOG_BYPASS(EGroupValueWarning, 0, "Data received is empty");
        return;
    }
    if (data.size() < kHeaderSize) {
        VLOG_BYPASS(
            EGroupValueWarning, 0,
            "Data received is incomplete: message length of %d is less than minimum size %d",
            data.size(), kHeaderSize);
        return;
    }

    // Fields past the end of a short request read as zero.
    QDataStream stream(data);
    qint32 size = 0;
    qint16 rawCommand = 0;
    qint8 messageType = 0;
    stream >> size >> rawCommand >> messageType;
    const auto command = static_cast<uint16_t>(rawCommand);
    if (messageType != kMessageTypeRequest) {
        VLOG_BYPASS(EGroupValueWarning, 0, "Skipping message: Message type %hhu isn't a request",
                    static_cast<unsigned char>(messageType));
        return;
    }

    QByteArray reply;
    RESULT result = ResultGeneralFailure;
    switch (command) {
    case CreateConference: {
        qint32 width = 0;
        qint32 height = 0;
        stream >> width >> height;
        if (mManager) {
            result = mManager->CreateConference(width, height);
        }
        break;
    }
    case CreateExtendedPresentation:
        VLOG(EGroupValueInformation, "Received CreateExtendedPresentation");
        if (mExtendedPresentation) {
            result = mExtendedPresentation->CreateExtendedPresentation();
        }
        break;
    case DestroyConference:
        VLOG(EGroupValueInformation, "Received DestroyConference");
        if (mManager) {
            result = mManager->DestroyConference();
        }
        break;
    case DestroyExtendedPresentation:
        VLOG(EGroupValueInformation, "Received DestroyExtendedPresentation");
        if (mExtendedPresentation) {
            result = mExtendedPresentation->DestroyExtendedPresentation();
        }
        break;
    case SetCursorCage: {
        bool enable = false;
        qint64 windowId = 0;
        stream >> enable >> windowId;
        tMonitorInfo info;
        if (windowId != 0 && mManager) {
            result = mManager->SetCursorCage(enable, windowId, &info);
        }
        IpcClient::BuildReplyMessage(&reply, SetCursorCage, result, &info.bounds);
        SendReply(client, reply, command);
        return;
    }
    case SetResolution: {
        qint32 width = 0;
        qint32 height = 0;
        qint8 tag = 0;
        stream >> width >> height >> tag;
        if (mManager) {
            result = mManager->SetResolution(width, height, static_cast<unsigned char>(tag));
        }
        break;
    }
    case RequestCalibrate: {
        // The outcome travels in the found flag; the result says only that
        // there was a manager to ask.
        tMonitorInfo info;
        info.monitorTag = kMonitorTag;
        bool found = false;
        if (mManager) {
            found = !Failed(mManager->RequestCalibrate(&info));
            result = Success;
        }
        if (found) {
            IpcClient::BuildReplyMessage(&reply, RequestCalibrate, result, 1, &info.bounds);
        } else {
            IpcClient::BuildReplyMessage(&reply, RequestCalibrate, result, 0);
        }
        SendReply(client, reply, command);
        return;
    }
    case QuitProcess:
        Q_EMIT SignalQuitProcess();
        result = ResultGeneralFailure;
        break;
    default:
        VLOG_BYPASS(EGroupValueWarning, 0,
                    "Skipping message: Uknown command %hu, malformed message",
                    static_cast<unsigned short>(command));
        result = ResultGeneralFailure;
        break;
    }
    IpcClient::BuildReplyMessage(&reply, static_cast<Command>(command), result);
    SendReply(client, reply, command);
}

} // namespace quorvan::velorane::virtualmonitor
