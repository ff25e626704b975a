#include "Common/Audio/Src/RingBuffer.h"

#include "Common/Audio/Src/AudioResult.h"
#include "Common/Logger/Src/Logger.h"

namespace quorvan {

RingBuffer::RingBuffer(size_t capacity) : m_data(new uint8_t[capacity]), m_capacity(capacity) {}

size_t RingBuffer::Stored() const
{
    const size_t write = m_writePos.load();
    const size_t read = m_readPos.load();
    return write >= read ? write - read : write + m_capacity - read;
}

int32_t RingBuffer::Write(IReader& reader, size_t size)
{
    const size_t write = m_writePos.load();
    const size_t read = m_readPos.load();
    // With the read position ahead no byte is held back; otherwise one is,
    // so that a full ring doesn't look empty.
    const size_t room = read > write ? read - write : m_capacity + read - write - 1;
    if (room < size) {
        VLOG(EGroupValueSevere, "overflow: %zu > %zu", size, room);
        return AudioError;
    }
    if (write + size <= m_capacity) {
        const int32_t result = reader.Read(m_data.get() + write, 0, size);
        if (result < 0) {
            return result;
        }
        m_writePos.exchange((write + size) % m_capacity);
        return 0;
    }
    const size_t first = m_capacity - write;
    int32_t result = reader.Read(m_data.get() + write, 0, first);
    if (result < 0) {
        return result;
    }
    result = reader.Read(m_data.get(), first, size - first);
    if (result < 0) {
        return result;
    }
    m_writePos.exchange(size - first);
    return 0;
}

int32_t RingBuffer::GetContiguous(size_t offset, size_t size, const uint8_t*& pointer) const
{
    if (offset + size > Stored()) {
        pointer = nullptr;
        return 0;
    }
    const size_t start = (m_readPos.load() + offset) % m_capacity;
    if (start + size > m_capacity) {
        pointer = nullptr;
        VLOG(EGroupValueSevere, "non-contiguous read: %zu, %zu, %zu", start, size, m_capacity);
        return AudioError;
    }
    pointer = m_data.get() + start;
    return 0;
}

int32_t RingBuffer::Skip(size_t size)
{
    const size_t stored = Stored();
    if (stored < size) {
        VLOG(EGroupValueSevere, "read overflow: %zu > %zu", size, stored);
        return AudioError;
    }
    m_readPos.exchange((m_readPos.load() + size) % m_capacity);
    return 0;
}

} // namespace quorvan
