#include "Drivers/AudioDriver/DriverDatagrams.h"

#include <cstring>

namespace quorvan::velorane::audiodriver {

namespace {

void PutBigEndian(uint8_t* out, uint64_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i) {
        out[i] = static_cast<uint8_t>(value & 0xFF);
        value >>= 8;
    }
}

uint64_t GetBigEndian(const uint8_t* in, int bytes)
{
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = (value << 8) | in[i];
    }
    return value;
}

} // namespace

size_t BuildSpeakerDatagram(uint64_t stampMs, const int16_t* samples, size_t frames, uint8_t* out)
{
    if (frames > kMaxSpeakerFrames) {
        frames = kMaxSpeakerFrames;
    }
    out[0] = kCommandSpeakerData;
    PutBigEndian(out + 1, stampMs, 8);
    uint8_t* at = out + kSpeakerHeader;
    for (size_t i = 0; i < frames * kChannels; ++i) {
        PutBigEndian(at, static_cast<uint16_t>(samples[i]), 2);
        at += 2;
    }
    return kSpeakerHeader + frames * kBytesPerFrame;
}

AddressParse ParseRelayAddress(const uint8_t* data, size_t size, RelayAddress* address)
{
    if (size < kAddressHeader) {
        return AddressParse::TooShort;
    }
    const uint64_t length = GetBigEndian(data + 6, 8);
    if (length != size - kAddressHeader) {
        return AddressParse::LengthMismatch;
    }
    RelayAddress parsed;
    parsed.ip = static_cast<uint32_t>(GetBigEndian(data, 4));
    parsed.basePort = static_cast<uint16_t>(GetBigEndian(data + 4, 2));
    parsed.goodbye = parsed.ip == 0 && parsed.basePort == 0 && length == 0;
    if (!parsed.goodbye) {
        if (parsed.basePort == 0 || parsed.basePort > kMaxBasePort) {
            return AddressParse::BadPort;
        }
        parsed.password.assign(reinterpret_cast<const char*>(data + kAddressHeader),
                               static_cast<size_t>(length));
    }
    *address = std::move(parsed);
    return AddressParse::Ok;
}

const char* AddressParseText(AddressParse result)
{
    switch (result) {
    case AddressParse::Ok:
        return "ok";
    case AddressParse::TooShort:
        return "too short";
    case AddressParse::LengthMismatch:
        return "text length doesn't match";
    case AddressParse::BadPort:
        return "no usable base port";
    }
    return "unknown";
}

bool ParseMicrophoneHeader(const uint8_t* data, size_t size, uint64_t* stamp, size_t* frames)
{
    if (size < kMicrophoneHeader) {
        return false;
    }
    *stamp = GetBigEndian(data, 8);
    *frames = (size - kMicrophoneHeader) / kBytesPerFrame;
    return true;
}

void ReadMicrophoneSamples(const uint8_t* data, size_t frames, int16_t* out)
{
    const uint8_t* at = data + kMicrophoneHeader;
    for (size_t i = 0; i < frames * kChannels; ++i) {
        out[i] = static_cast<int16_t>(GetBigEndian(at, 2));
        at += 2;
    }
}

std::string DottedAddress(uint32_t ip)
{
    return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 0xFF) + "." +
           std::to_string((ip >> 8) & 0xFF) + "." + std::to_string(ip & 0xFF);
}

} // namespace quorvan::velorane::audiodriver
