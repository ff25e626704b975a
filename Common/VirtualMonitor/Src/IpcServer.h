#pragma once

// Accepts local-socket connections, takes virtual monitor requests from
// them, has the manager behind it carry them out and answers each. In the
// virtual display process both interfaces stand behind it; the relay's
// instance has none and serves only to learn that the process has
// connected. A request that needs a missing interface is answered with the
// general failure.
//
// Threads: everything runs on the thread that owns the server, through its
// event loop; a manager's call holds up the other connections meanwhile.

#include "Common/VirtualMonitor/Src/IExtendedPresentation.h"
#include "Common/VirtualMonitor/Src/IVirtualMonitorManager.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>

class QLocalServer;

namespace quorvan::velorane::virtualmonitor {

class IpcClient;

class IpcServer : public QObject
{
    Q_OBJECT

public:
    explicit IpcServer(QObject* parent = nullptr);
    IpcServer(std::shared_ptr<IVirtualMonitorManager> manager,
              std::shared_ptr<extendedpresentation::IExtendedPresentation> extendedPresentation,
              QObject* parent = nullptr);
    ~IpcServer() override;

    // Clears a stale socket of that name and listens. A failure asks the
    // process to quit.
    bool Initialize(const QString& serverName);

    bool IsListening() const;

Q_SIGNALS:
    void SignalQuitProcess();
    void SignalNewIncomingConnection();

public Q_SLOTS:
    // One whole message from a connection; a subclass may take over.
    virtual void onRecv(IpcClient* client, const QByteArray& data);
    void onNewIncomingConnection();
    void onDisconnected(IpcClient* client);

private:
    void SendReply(IpcClient* client, const QByteArray& reply, uint16_t command);

    // Child of this object, made by Initialize.
    QLocalServer* mServer = nullptr;
    std::shared_ptr<IVirtualMonitorManager> mManager;
    std::shared_ptr<extendedpresentation::IExtendedPresentation> mExtendedPresentation;
};

} // namespace quorvan::velorane::virtualmonitor
