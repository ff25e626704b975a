// The Kyr's audio payloads as the audio manager gets them from either
// transport: the last byte picks the command (microphone audio, the
// time-offset ping's answer, the answer to AudioStart, or another), the
// rest is the payload, handed to the manager's slot on this thread, the
// GUI thread's stand-in.

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Tests/Fuzz/AudioFuzzSupport.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <cstdint>

using namespace quorvan::velorane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    relay::RelayAudioManager& manager = velorane::fuzz::AudioManager();
    FuzzedDataProvider input(data, size);
    static const RelayCommand kCommands[] = {RelayCommandRequestAudio, RelayCommandTimeOffsetPing,
                                             RelayCommandAudioStart, RelayCommandSpeakerData};
    const uint8_t pick = input.ConsumeIntegral<uint8_t>();
    const RelayCommand command = kCommands[pick % 4];
    // Now and then the video service: ignored by the audio manager.
    const RelayService service = pick >= 0xF0 ? RelayServiceVideo : RelayServiceAudio;
    const std::string payload = input.ConsumeRemainingBytesAsString();
    manager.OnAudioData(service, command,
                        QByteArray(payload.data(), static_cast<int>(payload.size())));
    return 0;
}
