#pragma once

// Takes what the speaker ring holds and cuts it into speaker datagrams of
// equal size, at most 882 frames each. Each carries the wall-clock time in
// ms at which its last frame was played: the time of sending, less what
// follows it in the ring. (The relay takes the packet's duration off to
// find its start, and compares it with the Kyr's clock.)
//
// Threads: the main loop only (the ring's reader side).

#include "Drivers/AudioDriver/AudioRing.h"
#include "Drivers/AudioDriver/DriverDatagrams.h"

#include <cstdint>
#include <functional>

namespace quorvan::velorane::audiodriver {

class SpeakerSender
{
public:
    using Send = std::function<void(const uint8_t* datagram, size_t size)>;

    explicit SpeakerSender(AudioRing& ring) : m_ring(ring) {}

    // Sends all the ring holds through send, stamped against nowMs; with no
    // send the audio is dropped.
    void Drain(const Send& send, int64_t nowMs);

    uint64_t Datagrams() const { return m_datagrams; }

private:
    AudioRing& m_ring;
    int16_t m_samples[kMaxSpeakerFrames * kChannels] = {};
    uint8_t m_datagram[kMaxSpeakerDatagram] = {};
    uint64_t m_datagrams = 0;
};

} // namespace quorvan::velorane::audiodriver
