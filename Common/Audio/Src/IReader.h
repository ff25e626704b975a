#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvan {

// A source the ring buffer reads from: size bytes, starting offset bytes
// into what the source gives, into destination. 0 or AudioError.
class IReader
{
public:
    virtual ~IReader() = default;
    virtual int32_t Read(uint8_t* destination, size_t offset, size_t size) = 0;
};

} // namespace quorvan
