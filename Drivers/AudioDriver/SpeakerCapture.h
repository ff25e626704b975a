#pragma once

// The speaker's side of the real-time thread: puts what applications
// played into the speaker ring. The main loop takes it from there on a
// timer of its own, so nothing here makes a system call.
//
// Threads: OnCycle on PipeWire's real-time thread only.

#include "Drivers/AudioDriver/AudioRing.h"
#include "Drivers/AudioDriver/IRealtimeAudio.h"

namespace quorvan::velorane::audiodriver {

class SpeakerCapture : public IRealtimeAudio
{
public:
    explicit SpeakerCapture(AudioRing& ring) : m_ring(ring) {}

    void OnCycle(int16_t* samples, size_t frames) override { m_ring.Write(samples, frames); }

private:
    AudioRing& m_ring;
};

} // namespace quorvan::velorane::audiodriver
