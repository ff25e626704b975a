#pragma once

// The name of the one monitor this program makes. The relay recognises the
// virtual monitor by vendor 2399, model 160 and a serial number beginning
// with 1902; a monitor that no output backs has no EDID to carry them, so
// they travel in its name, in decimal.

namespace quorvan::velorane::virtualdisplay {

constexpr const char* kVirtualMonitorName = "VELORANE-2399-160-1902";

} // namespace quorvan::velorane::virtualdisplay
