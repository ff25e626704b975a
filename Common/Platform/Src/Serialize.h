#pragma once

#include "Common/Platform/Src/Result.h"

#include <cstdint>

namespace quorvan {

// Abstract typed streams. The system needs only 8-, 16- and 32-bit values;
// UUID is the one user and no stream implementation exists in the relay.
class IDataStream
{
public:
    virtual RESULT WriteUInt8(uint8_t value) = 0;
    virtual RESULT WriteUInt16(uint16_t value) = 0;
    virtual RESULT WriteUInt32(uint32_t value) = 0;
    virtual RESULT ReadUInt8(uint8_t& value) = 0;
    virtual RESULT ReadUInt16(uint16_t& value) = 0;
    virtual RESULT ReadUInt32(uint32_t& value) = 0;
    virtual ~IDataStream() = default;
};

class IDataStreamV1
{
public:
    virtual RESULT WriteUInt8(uint8_t value) = 0;
    virtual RESULT WriteUInt16(uint16_t value) = 0;
    virtual RESULT WriteUInt32(uint32_t value) = 0;
    virtual RESULT ReadUInt8(uint8_t& value) = 0;
    virtual RESULT ReadUInt16(uint16_t& value) = 0;
    virtual RESULT ReadUInt32(uint32_t& value) = 0;
    virtual ~IDataStreamV1() = default;
};

class ISerialize
{
public:
    virtual RESULT SerializeIn(IDataStream* stream) = 0;
    virtual RESULT SerializeOut(IDataStream* stream) const = 0;
    virtual ~ISerialize() = default;
};

class ISerializeV1
{
public:
    virtual RESULT SerializeIn(IDataStreamV1* stream) = 0;
    virtual RESULT SerializeOut(IDataStreamV1* stream) const = 0;
    virtual ~ISerializeV1() = default;
};

} // namespace quorvan
