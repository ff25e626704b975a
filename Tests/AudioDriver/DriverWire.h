#pragma once

// The relay's side of the driver link, built byte by byte for the tests
// that stand in for the relay: big-endian, on 127.0.0.1.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace velorane::test {

class AudioUdpPeer;

// The Kyr address message: address, base port, text length, text.
std::vector<uint8_t> AddressMessage(uint32_t ip, uint16_t basePort, const std::string& text);
// A microphone datagram: stamp in frames, then frames frames of value on
// both channels.
std::vector<uint8_t> MicrophoneDatagram(uint64_t stamp, size_t frames, int16_t value);

// The big-endian number at offset.
uint64_t BigEndian(const std::vector<uint8_t>& bytes, size_t offset, size_t size);
// The left samples of a speaker datagram.
std::vector<int16_t> SpeakerLeft(const std::vector<uint8_t>& datagram);

// Every datagram that comes within the time.
std::vector<std::vector<uint8_t>> Collect(const AudioUdpPeer& peer,
                                          std::chrono::milliseconds duration);
size_t CountCommand(const std::vector<std::vector<uint8_t>>& datagrams, uint8_t command);

int64_t WallClockMs();
// A UDP port on 127.0.0.1 that was free a moment ago.
int FreeUdpPort();

} // namespace velorane::test
