#include "Tests/AudioDriver/DriverWire.h"

#include "Tests/Support/AudioUdpPeer.h"

namespace velorane::test {

namespace {

void Append(std::vector<uint8_t>& out, uint64_t value, int bytes)
{
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

} // namespace

std::vector<uint8_t> AddressMessage(uint32_t ip, uint16_t basePort, const std::string& text)
{
    std::vector<uint8_t> message;
    Append(message, ip, 4);
    Append(message, basePort, 2);
    Append(message, text.size(), 8);
    message.insert(message.end(), text.begin(), text.end());
    return message;
}

std::vector<uint8_t> MicrophoneDatagram(uint64_t stamp, size_t frames, int16_t value)
{
    std::vector<uint8_t> datagram;
    Append(datagram, stamp, 8);
    for (size_t i = 0; i < 2 * frames; ++i) {
        Append(datagram, static_cast<uint16_t>(value), 2);
    }
    return datagram;
}

uint64_t BigEndian(const std::vector<uint8_t>& bytes, size_t offset, size_t size)
{
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value = (value << 8) | bytes[offset + i];
    }
    return value;
}

std::vector<int16_t> SpeakerLeft(const std::vector<uint8_t>& datagram)
{
    std::vector<int16_t> left;
    for (size_t at = 9; at + 4 <= datagram.size(); at += 4) {
        left.push_back(static_cast<int16_t>(BigEndian(datagram, at, 2)));
    }
    return left;
}

std::vector<std::vector<uint8_t>> Collect(const AudioUdpPeer& peer,
                                          std::chrono::milliseconds duration)
{
    std::vector<std::vector<uint8_t>> datagrams;
    const auto end = std::chrono::steady_clock::now() + duration;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        std::vector<uint8_t> datagram;
        if (left.count() <= 0 || !peer.Receive(datagram, left)) {
            return datagrams;
        }
        datagrams.push_back(std::move(datagram));
    }
}

size_t CountCommand(const std::vector<std::vector<uint8_t>>& datagrams, uint8_t command)
{
    size_t count = 0;
    for (const auto& datagram : datagrams) {
        count += !datagram.empty() && datagram[0] == command ? 1 : 0;
    }
    return count;
}

int64_t WallClockMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int FreeUdpPort()
{
    AudioUdpPeer probe(0);
    return probe.Bound() ? probe.Port() : 0;
}

} // namespace velorane::test
