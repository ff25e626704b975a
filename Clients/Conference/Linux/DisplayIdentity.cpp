#include "Clients/Conference/Linux/DisplayIdentity.h"

#include <array>
#include <cstring>
#include <limits>

namespace quorvan::velorane::relay {

namespace {

constexpr std::array<uint8_t, 8> kEdidHeader{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr size_t kEdidIdentityEnd = 16;

// Reads a decimal number of 1 to 10 digits that fits 32 bits from text at
// position, up to the end or the separator. Advances position past it.
bool ReadNumber(const std::string& text, size_t& position, uint32_t* value)
{
    const size_t start = position;
    uint64_t number = 0;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
        number = number * 10 + static_cast<uint64_t>(text[position] - '0');
        ++position;
        if (position - start > 10 || number > std::numeric_limits<uint32_t>::max()) {
            return false;
        }
    }
    if (position == start) {
        return false;
    }
    *value = static_cast<uint32_t>(number);
    return true;
}

} // namespace

DisplayIdentity IdentityFromEdid(const uint8_t* edid, size_t length)
{
    DisplayIdentity identity;
    if (!edid || length < kEdidIdentityEnd ||
        std::memcmp(edid, kEdidHeader.data(), kEdidHeader.size()) != 0) {
        return identity;
    }
    identity.vendor = static_cast<uint32_t>(edid[8]) << 8 | edid[9];
    identity.model = static_cast<uint32_t>(edid[10]) | static_cast<uint32_t>(edid[11]) << 8;
    identity.serial = static_cast<uint32_t>(edid[12]) | static_cast<uint32_t>(edid[13]) << 8 |
                      static_cast<uint32_t>(edid[14]) << 16 | static_cast<uint32_t>(edid[15]) << 24;
    return identity;
}

DisplayIdentity IdentityFromMonitorName(const std::string& name)
{
    const std::string prefix = kVirtualMonitorNamePrefix;
    if (name.compare(0, prefix.size(), prefix) != 0) {
        return {};
    }
    size_t position = prefix.size();
    DisplayIdentity identity;
    uint32_t* fields[] = {&identity.vendor, &identity.model, &identity.serial};
    for (size_t index = 0; index < 3; ++index) {
        if (index > 0) {
            if (position >= name.size() || name[position] != '-') {
                return {};
            }
            ++position;
        }
        if (!ReadNumber(name, position, fields[index])) {
            return {};
        }
    }
    if (position != name.size()) {
        return {};
    }
    return identity;
}

std::string MonitorNameForIdentity(const DisplayIdentity& identity)
{
    return std::string(kVirtualMonitorNamePrefix) + std::to_string(identity.vendor) + "-" +
           std::to_string(identity.model) + "-" + std::to_string(identity.serial);
}

} // namespace quorvan::velorane::relay
