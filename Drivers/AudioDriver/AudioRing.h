#pragma once

// A lock-free ring of 16-bit stereo frames between exactly one writer thread
// and one reader thread (PipeWire's real-time thread on one side, the main
// loop on the other), on spa_ringbuffer. Neither side ever blocks or
// allocates. Full policy: the writer drops what doesn't fit and counts it;
// only the reader may discard old frames (Skip).

#include <spa/utils/ringbuffer.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace quorvan::velorane::audiodriver {

class AudioRing
{
public:
    // capacityFrames is rounded up to a power of two.
    explicit AudioRing(size_t capacityFrames);
    AudioRing(const AudioRing&) = delete;
    AudioRing& operator=(const AudioRing&) = delete;

    size_t CapacityFrames() const { return m_capacityBytes / kFrameBytes; }

    // Writer side. Returns the frames taken; the rest is dropped.
    size_t Write(const int16_t* samples, size_t frames);
    // Writes frames of silence; same return.
    size_t WriteSilence(size_t frames);

    // Reader side.
    size_t Available() const;
    size_t Read(int16_t* samples, size_t frames);
    // Discards up to frames of the oldest frames; returns how many.
    size_t Skip(size_t frames);

    // Frames the writer had to drop since the start; any thread.
    uint64_t Dropped() const { return m_dropped.load(std::memory_order_relaxed); }

private:
    static constexpr size_t kFrameBytes = 4;

    // Reads into samples, or only discards with null.
    size_t Take(int16_t* samples, size_t frames);

    size_t m_capacityBytes;
    std::unique_ptr<uint8_t[]> m_data;
    spa_ringbuffer m_ring;
    std::atomic<uint64_t> m_dropped{0};
};

} // namespace quorvan::velorane::audiodriver
