#pragma once

// RandR monitors as displays, without any X call: which monitor is main,
// which mirrors which, and what changed between two lists of them, as the
// per-display change calls the DisplayManager hears.
//
// A monitor's display id is the atom of its name. Main is the primary
// monitor; when the server names none, the first with outputs, else the
// first. Monitors with the same rectangle mirror one another: the main one,
// else the first with outputs, else the first in the server's order, is
// the original, and every other one mirrors it.

#include <cstdint>
#include <string>
#include <vector>

namespace quorvan::velorane::relay {

struct tMonitor
{
    uint32_t id = 0;
    int32_t x = 0;
    int32_t y = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t widthMm = 0;
    uint32_t heightMm = 0;
    bool primary = false;
    bool automatic = false;
    std::vector<uint32_t> outputs;
};

using MonitorList = std::vector<tMonitor>;

// Null when the list has no such monitor.
const tMonitor* FindMonitor(const MonitorList& monitors, uint32_t id);
// The main monitor's id, 0 for an empty list.
uint32_t MainMonitor(const MonitorList& monitors);
// The id of the monitor that this one mirrors, 0 when none.
uint32_t MirrorOf(const MonitorList& monitors, uint32_t id);

struct DisplayChange
{
    uint32_t displayId;
    uint32_t flags;

    bool operator==(const DisplayChange& other) const
    {
        return displayId == other.displayId && flags == other.flags;
    }
};

// The calls for going from before to after: first a begin call for every
// display that changed, then one call per display with what happened to
// it (added, moved, resized, made main, mirrored, un-mirrored, removed),
// in the order of after, removed displays last. Empty when nothing changed.
std::vector<DisplayChange> CompareMonitors(const MonitorList& before, const MonitorList& after);

// "name 1280x720+1920+0" lines for logs and test messages.
std::string DescribeMonitors(const MonitorList& monitors);

} // namespace quorvan::velorane::relay
