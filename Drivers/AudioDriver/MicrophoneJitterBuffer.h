#pragma once

// Puts the relay's microphone datagrams into the microphone ring in the
// order of their time stamps (counted in frames), with silence where a
// datagram was lost. A datagram that comes early waits until the one
// before it comes, for as long as less than kHoldFrames of audio wait
// behind the gap and a datagram came within kHoldMs; then the gap counts
// as lost and is filled with silence. A datagram for frames already played
// is dropped. A time stamp more than a second away from the expected one,
// or a datagram after kRestartMs without any, means the stream started over
// (a new relay or Kyr): the buffer follows it.
// Full policy: at most kHoldFrames plus one datagram wait here; the ring
// behind drops what doesn't fit.
//
// Threads: the main loop only.

#include "Drivers/AudioDriver/AudioRing.h"

#include <cstdint>
#include <map>
#include <vector>

namespace quorvan::velorane::audiodriver {

class MicrophoneJitterBuffer
{
public:
    static constexpr size_t kHoldFrames = 960; // 20 ms
    static constexpr int64_t kHoldMs = 40;
    static constexpr uint64_t kRestartFrames = 48000; // 1 s
    static constexpr int64_t kRestartMs = 500;

    struct Counters
    {
        uint64_t datagrams = 0;
        uint64_t lostFrames = 0; // silence put in for lost datagrams
        uint64_t lateDatagrams = 0;
        uint64_t restarts = 0;
    };

    explicit MicrophoneJitterBuffer(AudioRing& ring) : m_ring(ring) {}

    // samples holds frames interleaved stereo frames in host order.
    void Push(uint64_t stamp, const int16_t* samples, size_t frames, int64_t nowMs);
    // Gives up on a gap when nothing came for kHoldMs; called every so often.
    void Poll(int64_t nowMs);
    // Forgets the stream: the next datagram starts a new one.
    void Reset();

    const Counters& GetCounters() const { return m_counters; }

private:
    void FlushInOrder();
    void FillFirstGap();

    AudioRing& m_ring;
    std::map<uint64_t, std::vector<int16_t>> m_waiting;
    size_t m_waitingFrames = 0;
    uint64_t m_next = 0;
    bool m_started = false;
    int64_t m_lastArrivalMs = 0;
    Counters m_counters;
};

} // namespace quorvan::velorane::audiodriver
