#pragma once

// Tells the tunnel component outside the relay how to reach the Kyr: once
// the transport is connected, the Kyr's tunnel address, the password and a
// decoder switch go into a small text file at a fixed, machine-wide path.
// The relay neither starts the tunnel component nor talks to it.
//
// Threads: the main thread. Connect runs there as a queued slot of the
// transport's SignalConnectComplete; Disconnect is called directly.

#include "Clients/Conference/RelayConfig.h"
#include "Common/Platform/Src/Result.h"

#include <QObject>

namespace quorvan::velorane::relay {

class ConferenceTunnelManager : public QObject
{
    Q_OBJECT

public:
    ConferenceTunnelManager(const ConferenceTunnelConfig& config, QObject* parent);

    // Always the file-writing manager: neither config.enabled nor
    // --no-usbip turns the file off.
    static ConferenceTunnelManager* CreateInstance(const ConferenceTunnelConfig& config,
                                                   QObject* parent);

public Q_SLOTS:
    virtual RESULT Connect() = 0;
    virtual RESULT Disconnect() = 0;

Q_SIGNALS:
    // Reaches the client as error 3; nothing emits it today.
    void OnConferenceTunnelError();

protected:
    ConferenceTunnelConfig m_config;
};

} // namespace quorvan::velorane::relay
