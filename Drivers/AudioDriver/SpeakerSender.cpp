#include "Drivers/AudioDriver/SpeakerSender.h"

namespace quorvan::velorane::audiodriver {

void SpeakerSender::Drain(const Send& send, int64_t nowMs)
{
    size_t remaining = m_ring.Available();
    if (!send) {
        m_ring.Skip(remaining);
        return;
    }
    while (remaining > 0) {
        // Equal parts: 1024 frames go as two of 512, not 882 and 142.
        const size_t parts = (remaining + kMaxSpeakerFrames - 1) / kMaxSpeakerFrames;
        const size_t frames = m_ring.Read(m_samples, (remaining + parts - 1) / parts);
        if (frames == 0) {
            return;
        }
        remaining -= frames;
        const auto behind = static_cast<int64_t>(remaining * 1000 / kSampleRate);
        const size_t size = BuildSpeakerDatagram(static_cast<uint64_t>(nowMs - behind), m_samples,
                                                 frames, m_datagram);
        send(m_datagram, size);
        ++m_datagrams;
    }
}

} // namespace quorvan::velorane::audiodriver
