#pragma once

// A display's identity numbers on X11: vendor, model and serial, read from
// the EDID of a RandR monitor's first output, or, for a monitor without
// outputs, from its name. Our virtual display program names its monitor
// "VELORANE-<vendor>-<model>-<serial>" in decimal, so the virtual monitor
// is "VELORANE-2399-160-1902".

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvan::velorane::relay {

struct DisplayIdentity
{
    uint32_t vendor = 0;
    uint32_t model = 0;
    uint32_t serial = 0;

    bool operator==(const DisplayIdentity& other) const
    {
        return vendor == other.vendor && model == other.model && serial == other.serial;
    }
};

constexpr const char* kVirtualMonitorNamePrefix = "VELORANE-";

// From an EDID block: vendor from bytes 8 and 9 big-endian, model from
// bytes 10 and 11 little-endian, serial from bytes 12 to 15 little-endian.
// All zero for a block shorter than 16 bytes or without the EDID header.
DisplayIdentity IdentityFromEdid(const uint8_t* edid, size_t length);

// From "VELORANE-<vendor>-<model>-<serial>", each a decimal number that
// fits 32 bits; all zero for any other name.
DisplayIdentity IdentityFromMonitorName(const std::string& name);

// The name a monitor of this identity gets.
std::string MonitorNameForIdentity(const DisplayIdentity& identity);

} // namespace quorvan::velorane::relay
