// Value type: no shared state, any thread may use its own copies.

#include "Common/Platform/Src/UUID.h"

#include "Common/Platform/Src/Scheduler.h"

#include <cstdio>
#include <cstdlib>

namespace quorvan {

namespace {

// Hexadecimal the way strtoull reads it, with no check of what follows the
// digits; a text without digits reads as 0.
uint64_t ReadHex(const std::string& text)
{
    return std::strtoull(text.c_str(), nullptr, 16);
}

uint64_t BigEndian(const uint8_t (&bytes)[8])
{
    uint64_t value = 0;
    for (const uint8_t byte : bytes) {
        value = (value << 8) | byte;
    }
    return value;
}

void StoreBigEndian(uint64_t value, uint8_t (&bytes)[8])
{
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<uint8_t>(value >> (56 - 8 * i));
    }
}

template <typename Stream> RESULT WriteFields(const UUID& uuid, Stream* stream)
{
    if (stream == nullptr) {
        return ResultInvalidPointer;
    }
    // The stream's own results are not passed on.
    stream->WriteUInt32(uuid.data1);
    stream->WriteUInt16(uuid.data2);
    stream->WriteUInt16(uuid.data3);
    for (const uint8_t byte : uuid.data4) {
        stream->WriteUInt8(byte);
    }
    return Success;
}

template <typename Stream> RESULT ReadFields(UUID& uuid, Stream* stream)
{
    if (stream == nullptr) {
        return ResultInvalidPointer;
    }
    stream->ReadUInt32(uuid.data1);
    stream->ReadUInt16(uuid.data2);
    stream->ReadUInt16(uuid.data3);
    for (uint8_t& byte : uuid.data4) {
        stream->ReadUInt8(byte);
    }
    return Success;
}

} // namespace

UUID::UUID(uint32_t d1, uint16_t d2, uint16_t d3, uint64_t d4) : data1(d1), data2(d2), data3(d3)
{
    StoreBigEndian(d4, data4);
}

UUID::UUID(const std::string& text)
{
    Parse(text);
}

UUID& UUID::operator=(const std::string& text)
{
    Parse(text);
    return *this;
}

// No validation: each group is read as far as the dashes found allow, and
// whatever was read stays when the text runs out.
void UUID::Parse(const std::string& text)
{
    data1 = 0;
    data2 = 0;
    data3 = 0;
    StoreBigEndian(0, data4);

    const size_t first = text.find('-');
    if (first == std::string::npos) {
        return;
    }
    data1 = static_cast<uint32_t>(ReadHex(text.substr(0, first)));

    const size_t second = text.find('-', first + 1);
    if (second == std::string::npos) {
        return;
    }
    data2 = static_cast<uint16_t>(ReadHex(text.substr(first + 1, second - first - 1)));

    const size_t third = text.find('-', second + 1);
    if (third == std::string::npos) {
        return;
    }
    data3 = static_cast<uint16_t>(ReadHex(text.substr(second + 1, third - second - 1)));

    // The last two groups form data4: the dash between them is skipped.
    const size_t fourth = text.find('-', third + 1);
    if (fourth == std::string::npos) {
        return;
    }
    const std::string last = text.substr(third + 1, fourth - third - 1) + text.substr(fourth + 1);
    StoreBigEndian(ReadHex(last), data4);
}

bool UUID::operator<(const UUID& other) const
{
    if (data1 != other.data1) {
        return data1 < other.data1;
    }
    if (data2 != other.data2) {
        return data2 < other.data2;
    }
    if (data3 != other.data3) {
        return data3 < other.data3;
    }
    return BigEndian(data4) < BigEndian(other.data4);
}

bool UUID::operator==(const UUID& other) const
{
    return data1 == other.data1 && data2 == other.data2 && data3 == other.data3 &&
           BigEndian(data4) == BigEndian(other.data4);
}

void UUID::UUIDToString(std::string& out) const
{
    char text[37];
    std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  static_cast<unsigned>(data1), static_cast<unsigned>(data2),
                  static_cast<unsigned>(data3), static_cast<unsigned>(data4[0]),
                  static_cast<unsigned>(data4[1]), static_cast<unsigned>(data4[2]),
                  static_cast<unsigned>(data4[3]), static_cast<unsigned>(data4[4]),
                  static_cast<unsigned>(data4[5]), static_cast<unsigned>(data4[6]),
                  static_cast<unsigned>(data4[7]));
    out.assign(text);
}

void UUID::UUIDToWideString(std::wstring& out) const
{
    std::string text;
    UUIDToString(text);
    // The text form is plain ASCII, so each byte is one wide element.
    out.assign(text.begin(), text.end());
}

std::string UUID::str() const
{
    std::string text;
    UUIDToString(text);
    return text;
}

std::wstring UUID::wstr() const
{
    std::wstring text;
    UUIDToWideString(text);
    return text;
}

RESULT UUID::SerializeIn(IDataStream* stream)
{
    return ReadFields(*this, stream);
}

RESULT UUID::SerializeOut(IDataStream* stream) const
{
    return WriteFields(*this, stream);
}

RESULT UUID::SerializeIn(IDataStreamV1* stream)
{
    return ReadFields(*this, stream);
}

RESULT UUID::SerializeOut(IDataStreamV1* stream) const
{
    return WriteFields(*this, stream);
}

UUID UUID::Generate()
{
    return GetScheduler()->GenerateUuid();
}

std::ostream& operator<<(std::ostream& stream, const UUID& uuid)
{
    return stream << uuid.str();
}

} // namespace quorvan
