#pragma once

// The clock filter of the speaker path: which offset between the Kyr's clock
// and ours the time stamps are corrected by. Each ping gives one sample; the
// offset in force comes from the fastest of the last 60 round trips, and
// among equally fast ones from the newest, since a short round trip leaves
// the least room for error in the half-way guess.
//
// Threads: used by one thread at a time (the GUI thread, where the answers
// to the pings arrive); it has no lock.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>

namespace quorvan {

// One clock measurement, all in ms.
struct TimeOffsetSample
{
    int64_t roundTrip = 0; // from sending the ping to reading the answer
    int64_t time = 0;      // our time at reading the answer
    int64_t offset = 0;    // estimate of Kyr time minus our time
};

// By round trip ascending, then by time descending. Two samples with the
// same round trip and time count as the same.
struct TimeOffsetRankingOrder
{
    bool operator()(const TimeOffsetSample& a, const TimeOffsetSample& b) const
    {
        if (a.roundTrip != b.roundTrip) {
            return a.roundTrip < b.roundTrip;
        }
        return a.time > b.time;
    }
};

class TimeOffsetFilter
{
public:
    static constexpr size_t kMaxSamples = 60;

    // Takes the answer to a ping sent at sent (our clock), stamped remote by
    // the Kyr, read at now, and returns the offset in force afterwards.
    int64_t AddSample(int64_t sent, int64_t remote, int64_t now);

    int64_t Offset() const { return m_offset; }
    const std::deque<TimeOffsetSample>& Samples() const { return m_offsetSamples; }
    const std::set<TimeOffsetSample, TimeOffsetRankingOrder>& Ranking() const
    {
        return m_offsetRanking;
    }

private:
    // Newest at the front.
    std::deque<TimeOffsetSample> m_offsetSamples;
    std::set<TimeOffsetSample, TimeOffsetRankingOrder> m_offsetRanking;
    int64_t m_offset = 0;
};

} // namespace quorvan
