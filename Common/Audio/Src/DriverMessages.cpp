#include "Common/Audio/Src/DriverMessages.h"

#include "Common/Audio/Src/ByteBuffer.h"

#include <algorithm>
#include <cstdio>

namespace quorvan::driver {

uint32_t PackDottedQuad(const std::string& address)
{
    int parts[4] = {0, 0, 0, 0};
    if (std::sscanf(address.c_str(), "%d.%d.%d.%d", &parts[0], &parts[1], &parts[2], &parts[3]) !=
        4) {
        return 0;
    }
    // Unsigned arithmetic: a part out of range spills into its neighbour as
    // the packing always did, without a signed overflow.
    return (static_cast<uint32_t>(parts[0]) << 24) | (static_cast<uint32_t>(parts[1]) << 16) |
           (static_cast<uint32_t>(parts[2]) << 8) | static_cast<uint32_t>(parts[3]);
}

std::vector<uint8_t> BuildKyrAddressMessage(uint32_t ip, uint16_t port, const std::string& text)
{
    std::vector<uint8_t> message(14 + text.size());
    ByteBuffer<uint8_t> writer(message.data(), message.size());
    writer.WriteBigEndian(ip);
    writer.WriteBigEndian(port);
    writer.WriteBigEndian(static_cast<uint64_t>(text.size()));
    writer.WriteBytes(text.data(), text.size());
    return message;
}

size_t BuildMicrophoneDatagram(uint64_t timestamp, const int16_t* samples, size_t frames,
                               uint8_t* out)
{
    frames = std::min(frames, kMaxMicrophoneFrames);
    ByteBuffer<uint8_t> writer(out, kMaxMicrophoneDatagram);
    writer.WriteBigEndian(timestamp);
    for (size_t i = 0; i < frames * kChannels; ++i) {
        writer.WriteBigEndian(samples[i]);
    }
    return writer.Position();
}

void ReadBigEndianSamples(const uint8_t* data, size_t count, int16_t* samples)
{
    for (size_t i = 0; i < count; ++i) {
        samples[i] =
            static_cast<int16_t>(static_cast<uint16_t>((data[2 * i] << 8) | data[2 * i + 1]));
    }
}

} // namespace quorvan::driver
