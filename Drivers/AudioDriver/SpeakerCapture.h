#pragma once

// The speaker's side of the real-time thread: puts what applications
// played into the speaker ring and wakes the main loop to send it.
//
// Threads: OnCycle on PipeWire's real-time thread only.

#include "Drivers/AudioDriver/AudioRing.h"
#include "Drivers/AudioDriver/IRealtimeAudio.h"

#include <functional>

namespace quorvan::velorane::audiodriver {

class SpeakerCapture : public IRealtimeAudio
{
public:
    // wake must be safe on the real-time thread (an eventfd write).
    SpeakerCapture(AudioRing& ring, std::function<void()> wake)
        : m_ring(ring), m_wake(std::move(wake))
    {
    }

    void OnCycle(int16_t* samples, size_t frames) override
    {
        m_ring.Write(samples, frames);
        m_wake();
    }

private:
    AudioRing& m_ring;
    std::function<void()> m_wake;
};

} // namespace quorvan::velorane::audiodriver
