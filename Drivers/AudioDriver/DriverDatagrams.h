#pragma once

// The driver's side of its UDP link with the relay, all on 127.0.0.1 and
// big-endian. The driver sends announces and speaker audio to the relay's
// base port + 8, receives microphone audio on base port + 7 and the Kyr's
// address (which names the base port) on port 9002.
//
// Plain functions on byte spans; any thread may call them.

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvan::velorane::audiodriver {

constexpr int kControlPort = 9002;
constexpr int kSpeakerPortOffset = 8;
constexpr int kMicrophonePortOffset = 7;
// The highest base port whose + 8 is still a port.
constexpr int kMaxBasePort = 65535 - kSpeakerPortOffset;

// 16-bit stereo at 48 kHz in both directions: a frame is 4 bytes.
constexpr int kSampleRate = 48000;
constexpr int kChannels = 2;
constexpr size_t kBytesPerFrame = 4;

// Driver to relay. The relay reads at most 3537 bytes: the command byte,
// an 8-byte time stamp in ms, and 882 frames.
constexpr uint8_t kCommandSpeakerData = 2;
constexpr uint8_t kCommandAnnounce = 3;
constexpr size_t kSpeakerHeader = 9;
constexpr size_t kMaxSpeakerFrames = 882;
constexpr size_t kMaxSpeakerDatagram = kSpeakerHeader + kMaxSpeakerFrames * kBytesPerFrame;

// Relay to driver: an 8-byte time stamp counted in frames, then samples.
constexpr size_t kMicrophoneHeader = 8;

// The Kyr's address: 4 bytes of IPv4 address (first dotted part on top),
// 2 bytes of base port, 8 bytes of text length, the text.
constexpr size_t kAddressHeader = 14;

// Writes a speaker datagram for frames (at most kMaxSpeakerFrames) of
// interleaved host-order samples into out, which holds kMaxSpeakerDatagram
// bytes. Returns its length.
size_t BuildSpeakerDatagram(uint64_t stampMs, const int16_t* samples, size_t frames, uint8_t* out);

struct RelayAddress
{
    uint32_t ip = 0;
    uint16_t basePort = 0;
    // The Kyr's password. Never logged.
    std::string password;
    // The all-zero message: the relay is going away.
    bool goodbye = false;
};

enum class AddressParse
{
    Ok,
    TooShort,       // under 14 bytes
    LengthMismatch, // the text length doesn't match the bytes that follow
    BadPort,        // a port of 0 or one whose + 8 isn't a port
};

AddressParse ParseRelayAddress(const uint8_t* data, size_t size, RelayAddress* address);
const char* AddressParseText(AddressParse result);

// A microphone datagram: its time stamp and how many whole frames follow.
// False for one too short to hold the time stamp.
bool ParseMicrophoneHeader(const uint8_t* data, size_t size, uint64_t* stamp, size_t* frames);
// Copies frames big-endian frames from the datagram's body into host order.
void ReadMicrophoneSamples(const uint8_t* data, size_t frames, int16_t* out);

// The dotted form of an address as the message carries it.
std::string DottedAddress(uint32_t ip);

} // namespace quorvan::velorane::audiodriver
