#include "Common/Audio/Src/TimeOffsetFilter.h"

namespace quorvan {

namespace {

// The two clocks come from the Kyr's answer, whatever it holds: the
// arithmetic wraps in 64 bits instead of overflowing.
int64_t WrappingSubtract(int64_t a, int64_t b)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

int64_t WrappingAdd(int64_t a, int64_t b)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

} // namespace

int64_t TimeOffsetFilter::AddSample(int64_t sent, int64_t remote, int64_t now)
{
    TimeOffsetSample sample;
    sample.roundTrip = WrappingSubtract(now, sent);
    sample.time = now;
    // The Kyr read its clock about half-way through the round trip.
    sample.offset = WrappingAdd(WrappingSubtract(remote, now), sample.roundTrip / 2);

    m_offsetSamples.push_front(sample);
    // A sample equal to one present (same round trip, same time) isn't
    // ranked twice.
    m_offsetRanking.insert(sample);

    while (m_offsetSamples.size() > kMaxSamples) {
        m_offsetRanking.erase(m_offsetSamples.back());
        m_offsetSamples.pop_back();
    }

    // Dropping the older of two equal samples takes their one ranked entry
    // with it, so the ranking can run empty; the offset then stays.
    if (!m_offsetRanking.empty()) {
        m_offset = m_offsetRanking.begin()->offset;
    }
    return m_offset;
}

} // namespace quorvan
