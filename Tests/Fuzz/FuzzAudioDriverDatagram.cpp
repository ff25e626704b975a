// Datagrams from the local audio driver, as the relay's driver thread
// receives them on kyrPort + 8: the input cut into datagrams of at most
// 3537 bytes (what one receive takes) at points the fuzzer chooses, each
// handed to the audio manager as the driver thread hands it. Speaker data
// is encoded at once, as the transport would when it writes the command.

#include "Common/Audio/Src/DriverMessages.h"
#include "Tests/Fuzz/AudioFuzzSupport.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <algorithm>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    quorvan::velorane::relay::RelayAudioManager& manager = velorane::fuzz::AudioManager();
    FuzzedDataProvider input(data, size);
    for (const QByteArray& piece : velorane::fuzz::SplitStream(input)) {
        const size_t length =
            std::min(static_cast<size_t>(piece.size()), quorvan::driver::kMaxDriverDatagram);
        manager.OnDriverDatagram(reinterpret_cast<const uint8_t*>(piece.constData()), length);
    }
    return 0;
}
