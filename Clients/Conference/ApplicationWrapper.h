#pragma once

// The one object that owns and wires the relay: it builds every part,
// connects them, starts the threads, and holds the only quit sequence. It
// holds no protocol or media logic of its own.
//
// Threads: the main thread only. The active transport lives on
// m_transportThread, the IpcClient on its own thread; they reach this
// object through queued signals.
//

#include "Clients/Conference/IpcClient.h"
#include "Clients/Conference/RelayConfig.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Clients/ConferenceTransport/Src/TcpCommunication.h"
#include "Clients/ConferenceTransport/Src/UsbCommunication.h"
#include "Common/Platform/Src/Result.h"

#include <QByteArray>
#include <QObject>

#include <memory>

class QThread;

namespace quorvan::velorane::relay {

class ConferenceTunnelManager;
class RelayAudioManager;
class RelayWindow;
class TerminationSignalWatcher;

class ApplicationWrapper : public QObject
{
    Q_OBJECT

public:
    explicit ApplicationWrapper(const RelayConfig& config);
    ~ApplicationWrapper() override;

Q_SIGNALS:
    void SignalSendRelayCommand(RelayCommandData commandData);
    void SignalSendIpcCommand(int command, QByteArray data);
    void SignalSendIpcError(RelayError error);
    void SignalQuitApplication();

private Q_SLOTS:
    RESULT EnableRelayWindow();
    RESULT DisableRelayWindow();
    void InternalQuit();
    void ExternalQuit();

private:
    void QuitApplication(bool external);
    // TCP with -t; USB otherwise.
    IConferenceTransport* ActiveTransport();
    void ConnectEverything();

    RelayConfig m_config;
    std::unique_ptr<RelayWindow> m_relayWindow;
    TcpCommunication m_tcpCommunication;
    // Always made: its hot-plug watch runs even when TCP carries the link.
    UsbCommunication m_usbCommunication;
    // Audio both ways between the local driver and the Kyr; destroyed first.
    std::unique_ptr<RelayAudioManager> m_audioManager;
    IpcClient m_ipcClient;
    QThread* m_transportThread;
    // A quit runs once; a late signal from a part being stopped is ignored.
    bool m_quitting = false;
    // Writes the tunnel file at each connection. Child of this.
    ConferenceTunnelManager* m_tunnelManager = nullptr;
    // SIGTERM and SIGINT end the relay like the client's kill. Child of this.
    TerminationSignalWatcher* m_terminationWatcher = nullptr;
};

} // namespace quorvan::velorane::relay
