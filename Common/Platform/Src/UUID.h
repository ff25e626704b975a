#pragma once

#include "Common/Platform/Src/Serialize.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace quorvan {

// A 128-bit identifier with the usual text form
// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" (lower case, no braces). A plain
// value: any thread may use it; copies are not shared.
class UUID : public ISerialize, public ISerializeV1
{
public:
    UUID() = default;
    // data4 takes the 64-bit value with its most significant byte first.
    UUID(uint32_t d1, uint16_t d2, uint16_t d3, uint64_t d4);
    // Parses the text form; malformed text gives a partial or zero value.
    explicit UUID(const std::string& text);
    UUID(const UUID&) = default;
    UUID& operator=(const UUID&) = default;
    UUID& operator=(const std::string& text);
    ~UUID() override = default;

    bool operator<(const UUID& other) const;
    bool operator==(const UUID& other) const;
    bool operator!=(const UUID& other) const { return !(*this == other); }

    void UUIDToString(std::string& out) const;
    void UUIDToWideString(std::wstring& out) const;
    std::string str() const;
    std::wstring wstr() const;
    explicit operator std::string() const { return str(); }
    explicit operator std::wstring() const { return wstr(); }

    RESULT SerializeIn(IDataStream* stream) override;
    RESULT SerializeOut(IDataStream* stream) const override;
    RESULT SerializeIn(IDataStreamV1* stream) override;
    RESULT SerializeOut(IDataStreamV1* stream) const override;

    // A new random identifier, through the Scheduler.
    static UUID Generate();

    uint32_t data1 = 0;
    uint16_t data2 = 0;
    uint16_t data3 = 0;
    uint8_t data4[8] = {0, 0, 0, 0, 0, 0, 0, 0};

private:
    void Parse(const std::string& text);
};

std::ostream& operator<<(std::ostream& stream, const UUID& uuid);

} // namespace quorvan
