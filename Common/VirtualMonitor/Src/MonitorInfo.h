#pragma once

// What the virtual monitor manager tells of the monitor for the requests
// whose replies carry a rectangle.

#include "Common/VirtualMonitor/Src/VmRect.h"

#include <QString>

#include <cstdint>

namespace quorvan::velorane::virtualmonitor {

struct tMonitorInfo
{
    uint8_t monitorTag = 0;
    // Not sent.
    QString name;
    tVmRect bounds;
};

} // namespace quorvan::velorane::virtualmonitor
