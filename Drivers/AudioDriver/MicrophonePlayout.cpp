#include "Drivers/AudioDriver/MicrophonePlayout.h"

#include "Drivers/AudioDriver/DriverDatagrams.h"

#include <cstring>

namespace quorvan::velorane::audiodriver {

void MicrophonePlayout::OnCycle(int16_t* samples, size_t frames)
{
    const size_t target = frames + kCushionFrames;
    size_t available = m_ring.Available();
    if (m_priming) {
        if (available < target) {
            std::memset(samples, 0, frames * kBytesPerFrame);
            return;
        }
        m_priming = false;
    }
    if (available > target + kSlackFrames) {
        const size_t skipped = m_ring.Skip(available - target);
        m_skipped.fetch_add(skipped, std::memory_order_relaxed);
        available -= skipped;
    }
    const size_t read = m_ring.Read(samples, frames);
    if (read < frames) {
        std::memset(samples + read * kChannels, 0, (frames - read) * kBytesPerFrame);
        m_underruns.fetch_add(1, std::memory_order_relaxed);
        m_priming = true;
    }
}

} // namespace quorvan::velorane::audiodriver
