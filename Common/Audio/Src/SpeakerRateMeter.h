#pragma once

// The speaker rate the Kyr is told with each packet: frames per second as
// the driver delivers them, measured over spans of a little over 5 s, so the
// Kyr can follow the laptop's sound clock.
//
// Threads: the transport thread alone, where speaker packets are serialised.

#include <cstdint>

namespace quorvan {

class SpeakerRateMeter
{
public:
    // Counts a packet of frames that arrived at now (ms) and returns the
    // rate in force: 0 until the first span has ended.
    int64_t Update(uint64_t frames, int64_t now);

    int64_t MeasuredRate() const { return m_measuredRate; }

private:
    int64_t m_measuredRate = 0;
    uint64_t m_rateFrames = 0;
    int64_t m_rateElapsed = 0;
    // 0 until the first packet: it only starts the clock.
    int64_t m_rateLastTime = 0;
};

} // namespace quorvan
