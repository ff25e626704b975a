#include "Clients/Conference/RelayAudioManager.h"

#include "Clients/Conference/RelayAudioManagerPimpl.h"
#include "Common/Platform/Src/Time.h"

#include <QDataStream>

namespace quorvan::velorane::relay {

namespace {
// The ping's payload: its own length, then our clock at the moment the
// command is written, so the wait in the transport's queue isn't counted.
void WritePingPayload(QDataStream& stream)
{
    stream << static_cast<qint32>(8) << static_cast<qint64>(UTCTime::Milliseconds());
}
} // namespace

std::unique_ptr<RelayAudioManager> RelayAudioManager::NewInstance(const RelayConfig& config)
{
    return std::unique_ptr<RelayAudioManager>(new RelayAudioManager(config));
}

RelayAudioManager::RelayAudioManager(const RelayConfig& config)
    : QObject(nullptr), m_pimpl(std::make_unique<Pimpl>(*this, config))
{
}

RelayAudioManager::~RelayAudioManager() = default;

void RelayAudioManager::OnDriverDatagram(const uint8_t* data, size_t size)
{
    m_pimpl->OnDriverDatagram(data, size);
}

void RelayAudioManager::StartSharing()
{
    m_pimpl->OnAudioStart();
}

void RelayAudioManager::OnAudioData(RelayService service, RelayCommand command, QByteArray data)
{
    m_pimpl->OnAudioData(service, command, data);
}

void RelayAudioManager::RequestAudioData()
{
    Q_EMIT SignalSendRelayCommand(RelayCommandData(RelayServiceAudio, RelayCommandRequestAudio));
}

void RelayAudioManager::RequestTimeOffsetPing()
{
    Q_EMIT SignalSendRelayCommand(
        RelayCommandData(RelayServiceAudio, RelayCommandTimeOffsetPing, &WritePingPayload));
}

} // namespace quorvan::velorane::relay
