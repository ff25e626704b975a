#include "Clients/Conference/ApplicationWrapper.h"

#include "Clients/Conference/ConferenceTunnelManager.h"
#include "Clients/Conference/Linux/TerminationSignalWatcher.h"
#include "Clients/Conference/RelayAudioManager.h"
#include "Clients/Conference/RelayWindow.h"
#include "Common/Logger/Src/Logger.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QThread>

namespace quorvan::velorane::relay {

namespace {
constexpr int kClientQuitCommand = 0xFE47;
constexpr uint16_t kTcpPortOffset = 3;
} // namespace

ApplicationWrapper::ApplicationWrapper(const RelayConfig& config)
    : QObject(nullptr), m_config(config), m_relayWindow(new RelayWindow(config)),
      m_transportThread(new QThread(this))
{
    // First, so that a stop asked for while the parts start up waits in the
    // watcher's pipe until the event loop runs.
    m_terminationWatcher = new TerminationSignalWatcher(this);
    connect(m_terminationWatcher, &TerminationSignalWatcher::SignalTerminationRequested, this,
            &ApplicationWrapper::ExternalQuit);

    m_tunnelManager = ConferenceTunnelManager::CreateInstance(m_config.tunnelConfig, this);
    m_audioManager = RelayAudioManager::NewInstance(m_config);

    if (m_config.useTcp) {
        m_tcpCommunication.setPassword(m_config.relayPassword);
        const QHostAddress address(QString::fromStdString(m_config.kyrIp));
        m_tcpCommunication.setHostAddress(address,
                                          static_cast<uint16_t>(m_config.kyrPort + kTcpPortOffset));
    }
    if (IConferenceTransport* transport = ActiveTransport()) {
        transport->moveToThread(m_transportThread);
    }

    ConnectEverything();

    if (!m_config.kyrIp.empty()) {
        m_transportThread->start(QThread::InheritPriority);
    } else {
        VLOG(EGroupValueWarning, "Skipping Relay communication!");
    }

    if (m_config.standalone) {
        VLOG(EGroupValueWarning, "Skipping IPC communication!");
    } else {
        m_ipcClient.Initialize();
    }

    if (m_config.shouldCreateWindow && EnableRelayWindow() < 0) {
        VLOG(EGroupValueWarning, "Failed to enable the Conference window");
    }

    QThread::currentThread()->setPriority(QThread::HighestPriority);
}

ApplicationWrapper::~ApplicationWrapper()
{
    // The audio manager goes first (the driver hears the goodbye), then the
    // window.
    m_audioManager.reset();
    m_relayWindow.reset();
}

IConferenceTransport* ApplicationWrapper::ActiveTransport()
{
    if (m_config.useTcp) {
        return &m_tcpCommunication;
    }
    return &m_usbCommunication;
}

void ApplicationWrapper::ConnectEverything()
{
    IConferenceTransport* transport = ActiveTransport();
    RelayWindow* window = m_relayWindow.get();

    if (transport) {
        connect(m_transportThread, &QThread::started, transport,
                &IConferenceTransport::slotThreadStarted);
        connect(m_transportThread, &QThread::finished, transport,
                &IConferenceTransport::slotThreadFinished);
        connect(transport, &IConferenceTransport::SignalConnectionFailed, this,
                &ApplicationWrapper::InternalQuit);
        connect(this, &ApplicationWrapper::SignalSendRelayCommand, transport,
                &IConferenceTransport::SendWithPayload);
    }
    connect(window, &RelayWindow::SignalQuitApplication, this, &ApplicationWrapper::InternalQuit);
    connect(&m_ipcClient, &IpcClient::SignalStartScrape, window,
            &RelayWindow::BeginRequestingFramesFromKyr);
    connect(&m_ipcClient, &IpcClient::SignalDesktopPixels, window,
            &RelayWindow::ReceiveFrameFromClient);
    if (transport) {
        connect(window, &RelayWindow::SignalSendRelayCommand, transport,
                &IConferenceTransport::SendWithPayload);
        connect(transport, &IConferenceTransport::DataCallback, window,
                &RelayWindow::ReceiveRelayCommandResponse);
        // AudioStart goes out at each connection, driver or not.
        connect(transport, &IConferenceTransport::SignalConnectComplete, m_audioManager.get(),
                &RelayAudioManager::StartSharing);
        connect(m_audioManager.get(), &RelayAudioManager::SignalSendRelayCommand, transport,
                &IConferenceTransport::SendWithPayload);
        connect(transport, &IConferenceTransport::DataCallback, m_audioManager.get(),
                &RelayAudioManager::OnAudioData);
    }
    connect(this, &ApplicationWrapper::SignalSendIpcCommand, &m_ipcClient,
            [this](int command, QByteArray data) { m_ipcClient.SendIPC(command, data); });
    connect(this, &ApplicationWrapper::SignalSendIpcError, &m_ipcClient, &IpcClient::SendError);
    if (transport) {
        connect(&m_ipcClient, &IpcClient::SignalConnectUsb, transport,
                &IConferenceTransport::Initialize);
    }
    connect(&m_ipcClient, &IpcClient::SignalQuitApplication, this,
            &ApplicationWrapper::ExternalQuit);
    if (transport) {
        connect(transport, &IConferenceTransport::SignalConnectComplete, m_tunnelManager,
                &ConferenceTunnelManager::Connect);
    }
    connect(
        m_tunnelManager, &ConferenceTunnelManager::OnConferenceTunnelError, this,
        [this] { Q_EMIT SignalSendIpcError(RelayErrorTunnel); }, Qt::DirectConnection);
}

RESULT ApplicationWrapper::EnableRelayWindow()
{
    const RESULT result = m_relayWindow->Initialize();
    if (result < 0) {
        return VLOG_RESULT(EGroupValueSevere, result, "Failed to initialize relay window");
    }
    if (m_config.useMonitor) {
        m_relayWindow->hide();
    } else {
        m_relayWindow->show();
    }
    return VLOG_RESULT(EGroupValueSevere, Success, "Conference window enabled!");
}

RESULT ApplicationWrapper::DisableRelayWindow()
{
    m_relayWindow->Terminate();
    return VLOG_RESULT(EGroupValueSevere, Success, "Conference window disabled!");
}

void ApplicationWrapper::InternalQuit()
{
    // A failure signal queued before the sequence disconnected its sender
    // still arrives: it is not delivered to the sequence, nor logged.
    if (m_quitting) {
        return;
    }
    VLOG(EGroupValueInformation, "Internally told to quit");
    QuitApplication(false);
}

void ApplicationWrapper::ExternalQuit()
{
    if (m_quitting) {
        return;
    }
    VLOG(EGroupValueInformation, "Externally told to quit.");
    QuitApplication(true);
}

void ApplicationWrapper::QuitApplication(bool external)
{
    if (m_quitting) {
        return;
    }
    m_quitting = true;
    m_tunnelManager->Disconnect();
    // 2. No further failure signal may re-enter this sequence.
    QObject::disconnect(&m_tcpCommunication, nullptr, nullptr, nullptr);
    QObject::disconnect(&m_usbCommunication, nullptr, nullptr, nullptr);
    // 3. The transport's slotThreadFinished runs on its thread meanwhile.
    m_transportThread->quit();
    m_transportThread->wait();
    // Also when TCP carried the link; for a USB link that isn't up it does
    // nothing.
    m_usbCommunication.Terminate();
    DisableRelayWindow();
    // SendIPC carries itself over to the IPC thread, which owns the socket.
    if (!external) {
        m_ipcClient.SendIPC(kClientQuitCommand, QByteArray());
    }
    // Ending the IPC thread drops the link, which the client link reports
    // as a disconnect: that must not start this sequence a second time.
    QObject::disconnect(&m_ipcClient, nullptr, this, nullptr);
    m_ipcClient.Terminate();
    QCoreApplication::quit();
}

} // namespace quorvan::velorane::relay
