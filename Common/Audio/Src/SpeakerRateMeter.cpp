#include "Common/Audio/Src/SpeakerRateMeter.h"

namespace quorvan {

namespace {
constexpr int64_t kSpanMs = 5001;
} // namespace

int64_t SpeakerRateMeter::Update(uint64_t frames, int64_t now)
{
    if (m_rateLastTime == 0) {
        m_rateLastTime = now;
        return m_measuredRate;
    }
    m_rateFrames += frames;
    m_rateElapsed += now - m_rateLastTime;
    m_rateLastTime = now;
    if (m_rateElapsed >= kSpanMs) {
        m_measuredRate =
            static_cast<int64_t>(m_rateFrames * 1000 / static_cast<uint64_t>(m_rateElapsed));
        m_rateFrames = 0;
        m_rateElapsed = 0;
    }
    return m_measuredRate;
}

} // namespace quorvan
