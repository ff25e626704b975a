#pragma once

// The tunnel manager of a platform without the tunnel component: writes
// nothing. Not reached through CreateInstance.
//
// Threads: the main thread.

#include "Clients/Conference/ConferenceTunnelManager.h"

namespace quorvan::velorane::relay {

class DisabledConferenceTunnelManager : public ConferenceTunnelManager
{
    Q_OBJECT

public:
    DisabledConferenceTunnelManager(const ConferenceTunnelConfig& config, QObject* parent);

public Q_SLOTS:
    RESULT Connect() override;
    RESULT Disconnect() override;
};

} // namespace quorvan::velorane::relay
