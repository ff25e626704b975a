#include "Clients/Conference/DisabledConferenceTunnelManager.h"

namespace quorvan::velorane::relay {

DisabledConferenceTunnelManager::DisabledConferenceTunnelManager(
    const ConferenceTunnelConfig& config, QObject* parent)
    : ConferenceTunnelManager(config, parent)
{
}

RESULT DisabledConferenceTunnelManager::Connect()
{
    return Success;
}

RESULT DisabledConferenceTunnelManager::Disconnect()
{
    return Success;
}

} // namespace quorvan::velorane::relay
