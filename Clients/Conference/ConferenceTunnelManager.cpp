#include "Clients/Conference/ConferenceTunnelManager.h"

#include "Clients/Conference/Linux/ConferenceTunnelManagerImpl.h"

namespace quorvan::velorane::relay {

ConferenceTunnelManager::ConferenceTunnelManager(const ConferenceTunnelConfig& config,
                                                 QObject* parent)
    : QObject(parent), m_config(config)
{
}

ConferenceTunnelManager*
ConferenceTunnelManager::CreateInstance(const ConferenceTunnelConfig& config, QObject* parent)
{
    return new LinuxConferenceTunnelManager(config, parent);
}

} // namespace quorvan::velorane::relay
