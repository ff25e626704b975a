#include "Common/Audio/Src/WriteBuffer.h"

#include "Common/Audio/Src/AudioResult.h"
#include "Common/Logger/Src/Logger.h"

namespace quorvan {

int32_t WriteBuffer::Skip(size_t size)
{
    if (m_position + size > m_size) {
        VLOG(EGroupValueSevere, "skip overflow: %zu, %zu, %zu", m_position, size, m_size);
        return AudioError;
    }
    m_position += size;
    return 0;
}

int32_t WriteBuffer::WriteUInt32(size_t position, uint32_t value)
{
    if (position + 4 > m_size) {
        VLOG(EGroupValueSevere, "write overflow: %zu, %d, %zu", position, 4, m_size);
        return AudioError;
    }
    m_data[position] = static_cast<uint8_t>(value >> 24);
    m_data[position + 1] = static_cast<uint8_t>(value >> 16);
    m_data[position + 2] = static_cast<uint8_t>(value >> 8);
    m_data[position + 3] = static_cast<uint8_t>(value);
    return 0;
}

} // namespace quorvan
