#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

namespace quorvan::velorane {

void RelayCommandData::NullPayloadFunctor(QDataStream& stream)
{
    stream << static_cast<quint32>(0);
}

} // namespace quorvan::velorane
