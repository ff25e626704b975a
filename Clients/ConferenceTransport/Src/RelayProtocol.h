#pragma once

// The vocabulary of the relay protocol between the relay and the Kyr.
// Requests go out little-endian, and their third word counts the payload
// only; responses come back big-endian, and their third word counts the
// whole message. The Kyr implements it so; both halves stay as they are.

#include <QDataStream>
#include <QMetaType>

#include <cstdint>
#include <functional>

namespace quorvan::velorane {

enum RelayService : uint32_t
{
    RelayServiceVideo = 0xBBFE4599u,
    RelayServiceAudio = 0xEABA0314u,
};

enum RelayCommand : uint32_t
{
    RelayCommandStartVideo = 0xCD01u,
    RelayCommandRequestFrame = 0xD0F9u,
    RelayCommandStopVideo = 0xEF34u,
    RelayCommandRequestAudio = 0x62EBu,
    RelayCommandTimeOffsetPing = 0xD43Eu,
    RelayCommandAudioStart = 0x1000Au,
    RelayCommandAudioStop = 0x1DEADu,
    RelayCommandSpeakerData = 0x1EF21u,
};

// Error numbers sent to the client application over the local link.
enum RelayError : int32_t
{
    RelayErrorTunnel = 3,
};

// One command on its way to the transport. Passed through queued signals,
// so it is a plain copyable value. The payload functor runs on the
// transport's thread when the command is serialised; what it captures must
// outlive that moment.
struct RelayCommandData
{
    RelayService service = RelayServiceAudio;
    RelayCommand command = RelayCommandAudioStart;
    std::function<void(QDataStream&)> payloadFunctor = &RelayCommandData::NullPayloadFunctor;

    RelayCommandData() = default;
    RelayCommandData(RelayService s, RelayCommand c,
                     std::function<void(QDataStream&)> functor = &NullPayloadFunctor)
        : service(s), command(c), payloadFunctor(std::move(functor))
    {
    }

    // A command without payload still carries its count word: one 32-bit 0.
    static void NullPayloadFunctor(QDataStream& stream);
};

} // namespace quorvan::velorane

// The short names under which the types travel through queued connections.
using RelayService = quorvan::velorane::RelayService;
using RelayCommand = quorvan::velorane::RelayCommand;
using RelayError = quorvan::velorane::RelayError;
using RelayCommandData = quorvan::velorane::RelayCommandData;

Q_DECLARE_METATYPE(quorvan::velorane::RelayCommandData)
