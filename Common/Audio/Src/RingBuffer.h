#pragma once

// Collects samples until a whole Opus frame is there: a single-producer,
// single-consumer ring of bytes. The stored amount is write less read
// position, plus the capacity when that is negative; equal positions mean
// empty, so at most capacity - 1 bytes fit.
//
// Threads: the positions are atomics for a writer and a reader on two
// threads; in the relay both run inside one Encode call.

#include "Common/Audio/Src/IReader.h"

#include <atomic>
#include <memory>

namespace quorvan {

class RingBuffer
{
public:
    explicit RingBuffer(size_t capacity);

    // Takes size bytes from reader; AudioError when they don't fit or the
    // reader fails, and then nothing is stored.
    int32_t Write(IReader& reader, size_t size);
    // A pointer to size stored bytes from offset on: null with 0 when fewer
    // are stored, null with AudioError when they wrap around the end.
    int32_t GetContiguous(size_t offset, size_t size, const uint8_t*& pointer) const;
    // Drops size stored bytes.
    int32_t Skip(size_t size);

    size_t Stored() const;
    size_t Capacity() const { return m_capacity; }

private:
    std::unique_ptr<uint8_t[]> m_data;
    size_t m_capacity;
    std::atomic<size_t> m_writePos{0};
    std::atomic<size_t> m_readPos{0};
};

} // namespace quorvan
