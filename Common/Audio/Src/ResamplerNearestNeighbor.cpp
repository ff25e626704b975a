#include "Common/Audio/Src/ResamplerNearestNeighbor.h"

#include "Common/Audio/Src/AudioResult.h"
#include "Common/Logger/Src/Logger.h"

#include <cstring>

namespace quorvan {

ResamplerNearestNeighbor::ResamplerNearestNeighbor(const uint8_t* input, size_t inputFrames,
                                                   size_t outputFrames, int channels)
    : m_frameSize(static_cast<size_t>(channels) * 2), m_outputFrames(outputFrames), m_input(input),
      m_inputFrames(inputFrames)
{
}

int32_t ResamplerNearestNeighbor::Read(uint8_t* destination, size_t offset, size_t size)
{
    if (m_frameSize == 0 || offset % m_frameSize != 0 || size % m_frameSize != 0) {
        VLOG(EGroupValueSevere, "bad alignment: %zu, %zu, %zu", offset, size, m_frameSize);
        return AudioError;
    }
    const size_t available = m_outputFrames * m_frameSize;
    if (offset + size > available) {
        VLOG(EGroupValueSevere, "underflow: %zu, %zu, %zu", offset, size, available);
        return AudioError;
    }
    const size_t first = offset / m_frameSize;
    const size_t last = (offset + size) / m_frameSize;
    for (size_t i = first; i < last; ++i) {
        const size_t source = i * m_inputFrames / m_outputFrames;
        std::memcpy(destination, m_input + source * m_frameSize, m_frameSize);
        destination += m_frameSize;
    }
    return 0;
}

} // namespace quorvan
