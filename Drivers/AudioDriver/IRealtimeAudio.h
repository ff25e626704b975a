#pragma once

// What a device node does with the samples of one graph cycle, on
// PipeWire's real-time thread: it must not block, lock or allocate.

#include <cstddef>
#include <cstdint>

namespace quorvan::velorane::audiodriver {

class IRealtimeAudio
{
public:
    virtual ~IRealtimeAudio() = default;
    // The speaker gets what applications played (read it); the microphone
    // fills the buffer with what they are to record.
    virtual void OnCycle(int16_t* samples, size_t frames) = 0;
};

} // namespace quorvan::velorane::audiodriver
