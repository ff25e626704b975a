#pragma once

// The virtual monitor behind the protocol: one output-less monitor named
// VELORANE-2399-160-1902, placed right of every other monitor at y = 0.
// SetResolution sets its size (and resizes it when it is there);
// CreateConference answers at once and adds it a moment later, as a display
// that is plugged in appears after the fact; DestroyConference takes it
// away and gives the screen back the size it had before the monitor grew
// it. RequestCalibrate tells where it is now, whoever moved it.
//
// The requests this program doesn't serve (SetCursorCage and the
// reservations) answer ResultNotImplemented.
//
// Threads: the main thread only (the IpcServer's and the timer's).

#include "Drivers/VirtualDisplay/IDesktop.h"
#include "Drivers/VirtualDisplay/MonitorPlacement.h"

#include "Common/VirtualMonitor/Src/IVirtualMonitorManager.h"

#include <QObject>
#include <QTimer>

#include <optional>

namespace quorvan::velorane::virtualdisplay {

class VirtualMonitorManager : public QObject, public virtualmonitor::IVirtualMonitorManager
{
    Q_OBJECT

public:
    // The desktop must outlive the manager.
    VirtualMonitorManager(IDesktop* desktop, int arrivalDelayMs, QObject* parent = nullptr);
    ~VirtualMonitorManager() override;

    RESULT CreateConference(int width, int height) override;
    RESULT UpdateConference(int width, int height) override;
    RESULT DestroyConference() override;
    RESULT ReserveRect(const virtualmonitor::tVmRect& rect) override;
    RESULT ReserveEmpty() override;
    RESULT GetMonitorInfo(virtualmonitor::tMonitorInfo* info) override;
    RESULT SetResolution(int width, int height, unsigned char monitorTag) override;
    RESULT SetCursorCage(bool enable, long long windowId,
                         virtualmonitor::tMonitorInfo* info) override;
    RESULT RequestCalibrate(virtualmonitor::tMonitorInfo* info) override;

    // Takes the monitor away and puts the screen back, as at the end of a
    // conference; for the program's end. Safe to call more than once.
    void RemoveMonitor();
    // The desktop is gone: nothing there can be undone any more.
    void ForgetDesktop();

private:
    void Arrive();
    // Sets the monitor as placed, growing the screen first when needed.
    bool Apply(const tPlacement& placement);
    void RestoreScreen();
    // Our monitor as the desktop lists it now, unset when it isn't there.
    // False when the desktop couldn't be asked.
    bool FindOurMonitor(std::optional<tMonitorRect>* found);

    IDesktop* mDesktop;
    QTimer mArrivalTimer;
    // The size of the last SetResolution; 0 until one came.
    int mWidth = 0;
    int mHeight = 0;
    // From CreateConference to DestroyConference.
    bool mConferenceCreated = false;
    // Whether the monitor we set is on the desktop.
    bool mMonitorAdded = false;
    // The screen as it was before this program first grew it, and the size
    // it grew it to; unset when it never did.
    std::optional<tScreenGeometry> mScreenBeforeGrowth;
    int mGrownWidth = 0;
    int mGrownHeight = 0;
};

} // namespace quorvan::velorane::virtualdisplay
