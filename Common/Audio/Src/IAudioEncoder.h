#pragma once

// Turns raw 16-bit interleaved samples of any rate into a row of 10 ms Opus
// packets at 48 kHz, each behind its big-endian 32-bit length.
//
// Threads: Encode runs on one thread at a time; the chain has no lock.

#include <cstddef>
#include <cstdint>
#include <memory>

namespace quorvan {

class IAudioEncoder
{
public:
    // An Opus encoder for channels channels of input at sampleRate; its ring
    // is allocated at once, the Opus state at the first Encode.
    static IAudioEncoder* CreateInstance(int channels, int sampleRate);

    virtual ~IAudioEncoder() = default;
    // Encodes bytes bytes of samples together with what waited from before;
    // whole packets go to output, the rest waits. 0 or AudioError; output is
    // freed and outputSize set to 0 first.
    virtual int32_t Encode(const int16_t* samples, size_t bytes, std::unique_ptr<uint8_t[]>& output,
                           size_t& outputSize) = 0;
};

} // namespace quorvan
