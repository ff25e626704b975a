#include "Drivers/AudioDriver/AudioRing.h"

#include <algorithm>
#include <cstring>

namespace quorvan::velorane::audiodriver {

namespace {

size_t PowerOfTwoAtLeast(size_t value)
{
    size_t result = 1;
    while (result < value) {
        result <<= 1;
    }
    return result;
}

} // namespace

AudioRing::AudioRing(size_t capacityFrames)
    : m_capacityBytes(PowerOfTwoAtLeast(std::max<size_t>(capacityFrames, 1) * kFrameBytes)),
      m_data(new uint8_t[m_capacityBytes]())
{
    spa_ringbuffer_init(&m_ring);
}

size_t AudioRing::Write(const int16_t* samples, size_t frames)
{
    uint32_t index = 0;
    const int32_t filled = spa_ringbuffer_get_write_index(&m_ring, &index);
    const size_t room = (m_capacityBytes - static_cast<size_t>(std::max(filled, 0))) / kFrameBytes;
    const size_t taken = std::min(frames, room);
    if (taken < frames) {
        m_dropped.fetch_add(frames - taken, std::memory_order_relaxed);
    }
    if (taken == 0) {
        return 0;
    }
    spa_ringbuffer_write_data(&m_ring, m_data.get(), static_cast<uint32_t>(m_capacityBytes),
                              index & static_cast<uint32_t>(m_capacityBytes - 1), samples,
                              static_cast<uint32_t>(taken * kFrameBytes));
    spa_ringbuffer_write_update(
        &m_ring, static_cast<int32_t>(index + static_cast<uint32_t>(taken * kFrameBytes)));
    return taken;
}

size_t AudioRing::WriteSilence(size_t frames)
{
    static const int16_t kSilence[256 * 2] = {};
    size_t written = 0;
    while (written < frames) {
        const size_t chunk = std::min<size_t>(frames - written, 256);
        const size_t taken = Write(kSilence, chunk);
        written += taken;
        if (taken < chunk) {
            // What didn't fit was counted as dropped by Write; the rest too.
            m_dropped.fetch_add(frames - written - (chunk - taken), std::memory_order_relaxed);
            break;
        }
    }
    return written;
}

size_t AudioRing::Available() const
{
    uint32_t index = 0;
    const int32_t filled =
        spa_ringbuffer_get_read_index(const_cast<spa_ringbuffer*>(&m_ring), &index);
    return static_cast<size_t>(std::max(filled, 0)) / kFrameBytes;
}

size_t AudioRing::Read(int16_t* samples, size_t frames)
{
    return Take(samples, frames);
}

size_t AudioRing::Skip(size_t frames)
{
    return Take(nullptr, frames);
}

size_t AudioRing::Take(int16_t* samples, size_t frames)
{
    uint32_t index = 0;
    const int32_t filled = spa_ringbuffer_get_read_index(&m_ring, &index);
    const size_t taken = std::min(frames, static_cast<size_t>(std::max(filled, 0)) / kFrameBytes);
    if (taken == 0) {
        return 0;
    }
    const auto bytes = static_cast<uint32_t>(taken * kFrameBytes);
    if (samples) {
        spa_ringbuffer_read_data(&m_ring, m_data.get(), static_cast<uint32_t>(m_capacityBytes),
                                 index & static_cast<uint32_t>(m_capacityBytes - 1), samples,
                                 bytes);
    }
    spa_ringbuffer_read_update(&m_ring, static_cast<int32_t>(index + bytes));
    return taken;
}

} // namespace quorvan::velorane::audiodriver
