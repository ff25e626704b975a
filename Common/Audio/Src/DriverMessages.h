#pragma once

// The UDP messages between the relay and the local audio driver, all on
// 127.0.0.1 and big-endian, and the audio payloads the Kyr sends back. The
// driver sends speaker audio and announces to kyrPort + 8; the relay sends
// microphone audio to kyrPort + 7 and the Kyr's address to port 9002.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorvan::driver {

constexpr int kSpeakerPortOffset = 8;
constexpr int kMicrophonePortOffset = 7;
constexpr int kControlPort = 9002;

// Driver to relay: the command byte, then its body.
enum DriverCommand : uint8_t
{
    DriverCommandSpeakerData = 2,
    DriverCommandAnnounce = 3,
};
constexpr size_t kMaxDriverDatagram = 3537;
// A speaker datagram: the command, an 8-byte time stamp in ms, samples.
constexpr size_t kMinSpeakerDatagram = 10;

// 16-bit stereo at 48 kHz throughout.
constexpr int kChannels = 2;
constexpr int kSampleRate = 48000;
constexpr size_t kBytesPerFrame = 4;

// Relay to driver: an 8-byte time stamp in frames, then at most 882 frames.
constexpr size_t kMaxMicrophoneFrames = 882;
constexpr size_t kMicrophoneHeader = 8;
constexpr size_t kMaxMicrophoneDatagram = kMicrophoneHeader + kMaxMicrophoneFrames * kBytesPerFrame;

// The Kyr's microphone response: time stamp, frame count, then samples.
constexpr size_t kMicrophoneResponseHeader = 12;

// "a.b.c.d" packed with a in the top byte; 0 for anything else.
uint32_t PackDottedQuad(const std::string& address);

// The address message for port 9002: address, port, text length, text.
// All zero and no text tells the driver the relay is going away.
std::vector<uint8_t> BuildKyrAddressMessage(uint32_t ip, uint16_t port, const std::string& text);

// Writes one microphone datagram of frames (at most 882) host-order stereo
// frames into out, which holds kMaxMicrophoneDatagram bytes; returns its
// length.
size_t BuildMicrophoneDatagram(uint64_t timestamp, const int16_t* samples, size_t frames,
                               uint8_t* out);

// Turns count big-endian 16-bit samples into host order.
void ReadBigEndianSamples(const uint8_t* data, size_t count, int16_t* samples);

} // namespace quorvan::driver
