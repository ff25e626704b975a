#pragma once

// The microphone's side of the real-time thread: takes frames from the
// microphone ring for each graph cycle. It starts (and starts again after
// running dry) only once the ring holds a cycle plus a cushion, so that the
// relay's bursts of about 18 ms don't run it dry every time; it plays
// silence meanwhile. When the ring holds more than a cycle, the cushion and
// the slack (the node was suspended, or the relay sends faster than the
// graph plays), the oldest frames are skipped down to a cycle plus the
// cushion: the delay stays bounded.
//
// Threads: OnCycle on PipeWire's real-time thread only; the counters from
// any thread.

#include "Drivers/AudioDriver/AudioRing.h"
#include "Drivers/AudioDriver/IRealtimeAudio.h"

#include <atomic>

namespace quorvan::velorane::audiodriver {

class MicrophonePlayout : public IRealtimeAudio
{
public:
    static constexpr size_t kCushionFrames = 1440; // 30 ms
    static constexpr size_t kSlackFrames = 4800;   // 100 ms

    explicit MicrophonePlayout(AudioRing& ring) : m_ring(ring) {}

    void OnCycle(int16_t* samples, size_t frames) override;

    // Times the ring ran dry while playing.
    uint64_t Underruns() const { return m_underruns.load(std::memory_order_relaxed); }
    // Frames skipped to keep the delay bounded.
    uint64_t Skipped() const { return m_skipped.load(std::memory_order_relaxed); }

private:
    AudioRing& m_ring;
    bool m_priming = true;
    std::atomic<uint64_t> m_underruns{0};
    std::atomic<uint64_t> m_skipped{0};
};

} // namespace quorvan::velorane::audiodriver
