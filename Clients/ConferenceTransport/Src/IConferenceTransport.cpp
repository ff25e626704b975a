#include "Clients/ConferenceTransport/Src/IConferenceTransport.h"

#include "Common/Logger/Src/Logger.h"

#include <QDataStream>

namespace quorvan::velorane {

namespace {
constexpr uint32_t kHeaderSize = 12;
}

bool IConferenceTransport::Send(RelayService service, RelayCommand command)
{
    return SendWithPayload(RelayCommandData(service, command));
}

QByteArray IConferenceTransport::SerializeCommand(const RelayCommandData& commandData)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << static_cast<quint32>(commandData.service) << static_cast<quint32>(commandData.command);
    commandData.payloadFunctor(stream);
    return bytes;
}

uint32_t IConferenceTransport::HandleResponse(uint32_t bytesReceived,
                                              QSharedPointer<const QByteArray> data)
{
    if (bytesReceived < kHeaderSize) {
        VLOG(EGroupValueSevere, "Response received was too small! bytesReceived=[%d]",
             static_cast<int>(bytesReceived));
        return 0;
    }
    // Never trust the count past what the buffer really holds.
    if (!data || static_cast<uint32_t>(data->size()) < kHeaderSize) {
        return 0;
    }

    QDataStream stream(*data);
    stream.setByteOrder(QDataStream::BigEndian);
    quint32 service = 0;
    quint32 command = 0;
    quint32 size = 0;
    stream >> service >> command >> size;

    if (size > bytesReceived) {
        return 0;
    }
    QByteArray payload;
    if (size > kHeaderSize) {
        payload = data->mid(kHeaderSize, static_cast<int>(size - kHeaderSize));
    }
    Q_EMIT DataCallback(static_cast<RelayService>(service), static_cast<RelayCommand>(command),
                        payload);
    return size;
}

} // namespace quorvan::velorane
