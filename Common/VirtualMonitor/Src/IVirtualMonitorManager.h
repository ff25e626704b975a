#pragma once

// The virtual display process's side of the protocol: what an IpcServer
// calls for each request. The operations the server doesn't call keep their
// places for that process.

#include "Common/Platform/Src/Result.h"
#include "Common/VirtualMonitor/Src/MonitorInfo.h"
#include "Common/VirtualMonitor/Src/VmRect.h"

namespace quorvan::velorane::virtualmonitor {

class IVirtualMonitorManager
{
public:
    virtual ~IVirtualMonitorManager() = default;

    virtual RESULT CreateConference(int width, int height) = 0;
    virtual RESULT UpdateConference(int width, int height) = 0;
    virtual RESULT DestroyConference() = 0;
    virtual RESULT ReserveRect(const tVmRect& rect) = 0;
    virtual RESULT ReserveEmpty() = 0;
    virtual RESULT GetMonitorInfo(tMonitorInfo* info) = 0;
    virtual RESULT SetResolution(int width, int height, unsigned char monitorTag) = 0;
    virtual RESULT SetCursorCage(bool enable, long long windowId, tMonitorInfo* info) = 0;
    virtual RESULT RequestCalibrate(tMonitorInfo* info) = 0;
};

} // namespace quorvan::velorane::virtualmonitor
