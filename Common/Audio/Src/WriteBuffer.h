#pragma once

// Lays out the encoder's output in an array it doesn't own: a position
// that only moves forward, and big-endian length words written behind it.
//
// Threads: used inside one Encode call.

#include <cstddef>
#include <cstdint>

namespace quorvan {

class WriteBuffer
{
public:
    WriteBuffer(uint8_t* data, size_t size) : m_size(size), m_data(data) {}

    int32_t Skip(size_t size);
    // Four bytes, big-endian, at position; the position doesn't move.
    int32_t WriteUInt32(size_t position, uint32_t value);

    size_t Position() const { return m_position; }
    size_t Remaining() const { return m_size - m_position; }
    uint8_t* Current() const { return m_data + m_position; }

private:
    size_t m_size;
    size_t m_position = 0;
    uint8_t* m_data;
};

} // namespace quorvan
