#include "Drivers/AudioDriver/MicrophoneJitterBuffer.h"

#include "Drivers/AudioDriver/DriverDatagrams.h"

namespace quorvan::velorane::audiodriver {

void MicrophoneJitterBuffer::Push(uint64_t stamp, const int16_t* samples, size_t frames,
                                  int64_t nowMs)
{
    if (frames == 0) {
        return;
    }
    ++m_counters.datagrams;
    const bool farAhead = m_started && stamp > m_next + kRestartFrames;
    const bool farBehind = m_started && stamp + frames + kRestartFrames < m_next;
    const bool afterPause = m_started && nowMs - m_lastArrivalMs >= kRestartMs;
    m_lastArrivalMs = nowMs;
    if (!m_started || farAhead || farBehind || afterPause) {
        if (m_started) {
            ++m_counters.restarts;
        }
        m_waiting.clear();
        m_waitingFrames = 0;
        m_next = stamp;
        m_started = true;
    }
    if (stamp + frames <= m_next) {
        ++m_counters.lateDatagrams;
        return;
    }
    if (stamp < m_next) {
        // Overlaps what was played: only its tail is new.
        const size_t played = static_cast<size_t>(m_next - stamp);
        samples += played * kChannels;
        frames -= played;
        stamp = m_next;
    }
    if (m_waiting.count(stamp) != 0) {
        ++m_counters.lateDatagrams;
        return;
    }
    m_waiting.emplace(stamp, std::vector<int16_t>(samples, samples + frames * kChannels));
    m_waitingFrames += frames;
    FlushInOrder();
    while (m_waitingFrames >= kHoldFrames) {
        FillFirstGap();
        FlushInOrder();
    }
}

void MicrophoneJitterBuffer::Poll(int64_t nowMs)
{
    if (m_waiting.empty() || nowMs - m_lastArrivalMs < kHoldMs) {
        return;
    }
    while (!m_waiting.empty()) {
        FillFirstGap();
        FlushInOrder();
    }
}

void MicrophoneJitterBuffer::Reset()
{
    m_waiting.clear();
    m_waitingFrames = 0;
    m_started = false;
}

void MicrophoneJitterBuffer::FlushInOrder()
{
    while (!m_waiting.empty()) {
        auto first = m_waiting.begin();
        const size_t frames = first->second.size() / kChannels;
        if (first->first > m_next) {
            return;
        }
        // Waiting entries start at or after m_next when they are stored,
        // and m_next only grows to the start of the next entry or past
        // entries that were played whole.
        const size_t played = static_cast<size_t>(m_next - first->first);
        if (played < frames) {
            m_ring.Write(first->second.data() + played * kChannels, frames - played);
            m_next = first->first + frames;
        }
        m_waitingFrames -= frames;
        m_waiting.erase(first);
    }
}

void MicrophoneJitterBuffer::FillFirstGap()
{
    if (m_waiting.empty()) {
        return;
    }
    const uint64_t start = m_waiting.begin()->first;
    if (start > m_next) {
        const size_t lost = static_cast<size_t>(start - m_next);
        m_counters.lostFrames += lost;
        m_ring.WriteSilence(lost);
        m_next = start;
    }
}

} // namespace quorvan::velorane::audiodriver
