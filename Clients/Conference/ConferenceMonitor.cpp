#include "Clients/Conference/ConferenceMonitor.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Common/VirtualMonitor/Src/ServerNames.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStringList>

namespace quorvan::velorane::relay {

using virtualmonitor::IpcClient;
using virtualmonitor::tVmRect;

namespace {
constexpr int kConnectTimeoutMs = 5000;
constexpr const char* kVirtualDisplayProgram = "/VeloraneVirtualDisplay";
} // namespace

ConferenceMonitor::ConferenceMonitor(int width, int height, QObject* parent)
    : QObject(parent), mWidth(width), mHeight(height),
      mVirtualDisplayProgram(QCoreApplication::applicationDirPath() +
                             QLatin1String(kVirtualDisplayProgram))
{
}

ConferenceMonitor::~ConferenceMonitor() = default;

// One connection per exchange: the process sees connect, one request,
// disconnect.
RESULT ConferenceMonitor::SendIpcMessage(const QByteArray& request, QByteArray& reply)
{
    IpcClient client(QString::fromLatin1(virtualmonitor::VIRTUAL_MONITOR_IPC_SERVER), nullptr);
    if (!client.ConnectToServer(kConnectTimeoutMs)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "IPC communication not established with server name: %s",
                           virtualmonitor::VIRTUAL_MONITOR_IPC_SERVER);
    }
    if (!client.SendRequestBlocking(request, &reply)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure, "Unable to send IPC command");
    }
    return Success;
}

// Each operation logs from its own lines, as the logger's rate limit counts
// per statement.
RESULT ConferenceMonitor::SendSetResolution()
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, virtualmonitor::SetResolution, mWidth, mHeight,
                                   static_cast<int>(virtualmonitor::kMonitorTag));
    QByteArray reply;
    const RESULT result = SendIpcMessage(request, reply);
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to send SetResolution");
    }
    int replyResult = 0;
    if (!IpcClient::ParseReplyMessage(&reply, &replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Unable to parse the reply of SetResolution");
    }
    if (Failed(replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, replyResult, "Failed to SetResolution");
    }
    return VLOG_RESULT(EGroupValueSevere, Success, "Set resolution succesfully");
}

RESULT ConferenceMonitor::SendCreateConference()
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, virtualmonitor::CreateConference, kConferenceWidth,
                                   kConferenceHeight);
    QByteArray reply;
    const RESULT result = SendIpcMessage(request, reply);
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to send CreateConference");
    }
    int replyResult = 0;
    if (!IpcClient::ParseReplyMessage(&reply, &replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Unable to parse the reply of CreateConference");
    }
    if (Failed(replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, replyResult, "Failed to CreateConference");
    }
    return VLOG_RESULT(EGroupValueSevere, Success, "Success");
}

RESULT ConferenceMonitor::SendDestroyConference()
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, virtualmonitor::DestroyConference);
    QByteArray reply;
    const RESULT result = SendIpcMessage(request, reply);
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to send DestroyConference");
    }
    int replyResult = 0;
    if (!IpcClient::ParseReplyMessage(&reply, &replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Unable to parse the reply of DestroyConference");
    }
    if (Failed(replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, replyResult, "Failed to DestroyConference");
    }
    return VLOG_RESULT(EGroupValueSevere, Success, "Success");
}

RESULT ConferenceMonitor::SendCreateExtendedPresentation()
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, virtualmonitor::CreateExtendedPresentation);
    QByteArray reply;
    const RESULT result = SendIpcMessage(request, reply);
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to send CreateExtendedPresentation");
    }
    int replyResult = 0;
    if (!IpcClient::ParseReplyMessage(&reply, &replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Unable to parse the reply of CreateExtendedPresentation");
    }
    if (Failed(replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, replyResult, "Failed to CreateExtendedPresentation");
    }
    return VLOG_RESULT(EGroupValueSevere, Success, "Success");
}

// Only the size of the rectangle decides: a picture of the conference's own
// size moves the window. A reply without a rectangle leaves it at zero.
RESULT ConferenceMonitor::SendRequestCalibrate()
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, virtualmonitor::RequestCalibrate);
    QByteArray reply;
    const RESULT result = SendIpcMessage(request, reply);
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to send RequestCalibrate");
    }
    int replyResult = 0;
    bool found = false;
    tVmRect rect;
    if (!IpcClient::ParseReplyMessage(&reply, &replyResult, &found, &rect)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Unable to parse the reply of RequestCalibrate");
    }
    if (Failed(replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, replyResult, "Failed to RequestCalibrate");
    }
    if (rect.width == kConferenceWidth && rect.height == kConferenceHeight) {
        Q_EMIT SignalUpdateRelayWindow(rect.x, rect.y, kConferenceWidth, kConferenceHeight);
    }
    return VLOG_RESULT(EGroupValueSevere, Success, "Set request calibrate success");
}

RESULT ConferenceMonitor::SendSetCursorCage(unsigned long long windowId)
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, virtualmonitor::SetCursorCage, 1,
                                   static_cast<long long>(windowId));
    QByteArray reply;
    const RESULT result = SendIpcMessage(request, reply);
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to send SetCursorCage");
    }
    int replyResult = 0;
    tVmRect rect;
    if (!IpcClient::ParseReplyMessage(&reply, &replyResult, &rect)) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Unable to parse the reply of SetCursorCage");
    }
    if (Failed(replyResult)) {
        return VLOG_RESULT(EGroupValueSevere, replyResult, "Failed to SetCursorCage");
    }
    Q_EMIT SignalUpdateRelayWindow(rect.x, rect.y, rect.width, rect.height);
    return VLOG_RESULT(EGroupValueSevere, Success, "Set cursor cage success");
}

RESULT ConferenceMonitor::Initialize(unsigned long long /*windowId*/)
{
    RESULT result = SendSetResolution();
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to initialize: set resolution");
    }
    // A failure here leaves the resolution set on the far side.
    result = SendCreateConference();
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to initialize: create conference");
    }
    mConferenceCreated = true;
    return VLOG_RESULT(EGroupValueSevere, Success, "Success");
}

// The server listens before the process starts, so its call back can't be
// missed. Every connection sets the monitor up again.
RESULT ConferenceMonitor::InitializeStandalone(unsigned long long windowId)
{
    if (!mIpcServer.Initialize(QString::fromLatin1(virtualmonitor::CONFERENCE_IPC_SERVER))) {
        return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                           "Failed to intialize IPC Server");
    }
    connect(
        &mIpcServer, &virtualmonitor::IpcServer::SignalNewIncomingConnection, this,
        [this, windowId]() { Initialize(windowId); }, Qt::DirectConnection);

    auto* process = new QProcess(this);
    process->setArguments(QStringList{QStringLiteral("-c")});
    process->setProgram(mVirtualDisplayProgram);
    qint64 pid = 0;
    if (process->startDetached(&pid)) {
        return VLOG_RESULT(EGroupValueSevere, Success,
                           "Velorane Virtual Display process started: pid=[%lld]",
                           static_cast<long long>(pid));
    }
    return VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure,
                       "Failed to start Velorane Virtual Dislay process");
}

RESULT ConferenceMonitor::Terminate()
{
    if (!mConferenceCreated) {
        return VLOG_RESULT(EGroupValueSevere, Success, "Terminate not needed");
    }
    RESULT result = SendDestroyConference();
    if (Failed(result)) {
        return VLOG_RESULT(EGroupValueSevere, result,
                           "Failed to destroy Velorane Conference virtual monitor");
    }
    mConferenceCreated = false;
    return VLOG_RESULT(EGroupValueSevere, Success, "Terminate success");
}

} // namespace quorvan::velorane::relay
