#include "Drivers/VirtualDisplay/VirtualMonitorManager.h"

#include "Drivers/VirtualDisplay/VirtualMonitorIdentity.h"

#include "Common/Logger/Src/Logger.h"

namespace quorvan::velorane::virtualdisplay {

using virtualmonitor::tMonitorInfo;
using virtualmonitor::tVmRect;

VirtualMonitorManager::VirtualMonitorManager(IDesktop* desktop, int arrivalDelayMs, QObject* parent)
    : QObject(parent), mDesktop(desktop)
{
    mArrivalTimer.setSingleShot(true);
    // Never early: the monitor must come after the reply.
    mArrivalTimer.setTimerType(Qt::PreciseTimer);
    mArrivalTimer.setInterval(arrivalDelayMs);
    connect(&mArrivalTimer, &QTimer::timeout, this, &VirtualMonitorManager::Arrive);
}

VirtualMonitorManager::~VirtualMonitorManager() = default;

RESULT VirtualMonitorManager::SetResolution(int width, int height, unsigned char monitorTag)
{
    if (width <= 0 || height <= 0 || width > kMaxMonitorSide || height > kMaxMonitorSide) {
        VLOG(EGroupValueWarning,
             "SetResolution: refused %dx%d: each side must lie between 1 and %d", width, height,
             kMaxMonitorSide);
        return ResultInvalidArgument;
    }
    // There is one monitor, whatever the tag names.
    VLOG(EGroupValueInformation, "SetResolution: %dx%d (monitor tag %u)", width, height,
         static_cast<unsigned>(monitorTag));
    mWidth = width;
    mHeight = height;
    if (!mMonitorAdded || !mDesktop) {
        return Success;
    }

    // Resized where it stands now, which may be where the relay moved it.
    std::optional<tMonitorRect> current;
    std::vector<tMonitorRect> monitors;
    tScreenGeometry screen;
    if (!FindOurMonitor(&current) || !mDesktop->ListMonitors(&monitors) ||
        !mDesktop->GetScreen(&screen)) {
        VLOG(EGroupValueSevere, "Unable to resize the virtual monitor %s: %s", kVirtualMonitorName,
             mDesktop->LastError().c_str());
        return Success;
    }
    const tPlacement placement =
        current ? PlaceAt(kVirtualMonitorName, screen, current->x, current->y, width, height)
                : PlaceRightOfOthers(monitors, kVirtualMonitorName, screen, width, height);
    if (!placement.fits) {
        VLOG(EGroupValueWarning,
             "Unable to resize the virtual monitor %s to %dx%d at x=[%d] y=[%d]: the screen is "
             "%dx%d and this X server keeps it within %dx%d",
             kVirtualMonitorName, width, height, placement.monitor.x, placement.monitor.y,
             screen.width, screen.height, screen.maxWidth, screen.maxHeight);
        return Success;
    }
    if (Apply(placement)) {
        VLOG(EGroupValueInformation, "Resized the virtual monitor %s: x=[%d] y=[%d] w=[%d] h=[%d]",
             kVirtualMonitorName, placement.monitor.x, placement.monitor.y, width, height);
    }
    return Success;
}

RESULT VirtualMonitorManager::CreateConference(int width, int height)
{
    if (mWidth == 0) {
        if (width <= 0 || height <= 0 || width > kMaxMonitorSide || height > kMaxMonitorSide) {
            VLOG(EGroupValueWarning,
                 "CreateConference: refused %dx%d: each side must lie between 1 and %d", width,
                 height, kMaxMonitorSide);
            return ResultInvalidArgument;
        }
        mWidth = width;
        mHeight = height;
    }
    mConferenceCreated = true;
    // The relay that asks watches the displays from right after this reply,
    // and the monitor's arrival is what places its window. A monitor that
    // is there already (a relay that died left it, or the relay asks again)
    // would never be seen arriving: it is unplugged now and arrives again.
    // The screen keeps the size it was grown to meanwhile.
    if (mMonitorAdded && mDesktop) {
        std::optional<tMonitorRect> current;
        if (FindOurMonitor(&current) && current && !mDesktop->DeleteMonitor(kVirtualMonitorName)) {
            VLOG(EGroupValueSevere,
                 "CreateConference: unable to unplug the virtual monitor %s that is there: %s",
                 kVirtualMonitorName, mDesktop->LastError().c_str());
            return Success;
        }
        mMonitorAdded = false;
        VLOG(EGroupValueInformation,
             "CreateConference: unplugged the virtual monitor %s that was there; it arrives "
             "again in %d ms",
             kVirtualMonitorName, mArrivalTimer.interval());
    } else {
        VLOG(EGroupValueInformation,
             "CreateConference: the virtual monitor %s of %dx%d arrives in %d ms",
             kVirtualMonitorName, mWidth, mHeight, mArrivalTimer.interval());
    }
    // Counted from this reply, also when an arrival was on its way already.
    mArrivalTimer.start();
    return Success;
}

void VirtualMonitorManager::Arrive()
{
    if (!mConferenceCreated || mMonitorAdded || !mDesktop) {
        return;
    }
    std::vector<tMonitorRect> monitors;
    tScreenGeometry screen;
    if (!mDesktop->ListMonitors(&monitors) || !mDesktop->GetScreen(&screen)) {
        VLOG(EGroupValueSevere, "Unable to add the virtual monitor %s: %s", kVirtualMonitorName,
             mDesktop->LastError().c_str());
        return;
    }
    const tPlacement placement =
        PlaceRightOfOthers(monitors, kVirtualMonitorName, screen, mWidth, mHeight);
    if (!placement.fits) {
        VLOG(EGroupValueWarning,
             "Unable to add the virtual monitor %s of %dx%d at x=[%d]: the screen is %dx%d and "
             "this X server keeps it within %dx%d",
             kVirtualMonitorName, mWidth, mHeight, placement.monitor.x, screen.width, screen.height,
             screen.maxWidth, screen.maxHeight);
        return;
    }
    if (Apply(placement)) {
        VLOG(EGroupValueInformation, "Added the virtual monitor %s: x=[%d] y=[%d] w=[%d] h=[%d]",
             kVirtualMonitorName, placement.monitor.x, placement.monitor.y, placement.monitor.width,
             placement.monitor.height);
    }
}

bool VirtualMonitorManager::Apply(const tPlacement& placement)
{
    if (placement.growsScreen) {
        tScreenGeometry before;
        if (!mDesktop->GetScreen(&before)) {
            VLOG(EGroupValueSevere, "Unable to place the virtual monitor %s: %s",
                 kVirtualMonitorName, mDesktop->LastError().c_str());
            return false;
        }
        if (!mDesktop->SetScreenSize(placement.screen.width, placement.screen.height,
                                     placement.screen.mmWidth, placement.screen.mmHeight)) {
            VLOG(EGroupValueWarning,
                 "Unable to grow the screen from %dx%d to %dx%d for the virtual monitor %s: %s",
                 before.width, before.height, placement.screen.width, placement.screen.height,
                 kVirtualMonitorName, mDesktop->LastError().c_str());
            return false;
        }
        if (!mScreenBeforeGrowth) {
            mScreenBeforeGrowth = before;
        }
        mGrownWidth = placement.screen.width;
        mGrownHeight = placement.screen.height;
        VLOG(EGroupValueInformation, "Grew the screen from %dx%d to %dx%d for the virtual monitor",
             before.width, before.height, placement.screen.width, placement.screen.height);
    }
    if (!mDesktop->SetMonitor(placement.monitor)) {
        VLOG(EGroupValueSevere, "Unable to set the virtual monitor %s: %s", kVirtualMonitorName,
             mDesktop->LastError().c_str());
        return false;
    }
    mMonitorAdded = true;
    return true;
}

RESULT VirtualMonitorManager::DestroyConference()
{
    mConferenceCreated = false;
    mArrivalTimer.stop();
    if (!mMonitorAdded) {
        VLOG(EGroupValueInformation, "DestroyConference: there was no virtual monitor to remove");
        // A CreateConference again unplugs the monitor until it arrives
        // again; a DestroyConference in between still owes the screen the
        // size it had before the monitor grew it.
        if (mDesktop) {
            RestoreScreen();
        }
        return Success;
    }
    if (!mDesktop) {
        return ResultGeneralFailure;
    }
    std::optional<tMonitorRect> current;
    if (!FindOurMonitor(&current)) {
        VLOG(EGroupValueSevere, "Unable to remove the virtual monitor %s: %s", kVirtualMonitorName,
             mDesktop->LastError().c_str());
        return ResultGeneralFailure;
    }
    if (!current) {
        VLOG(EGroupValueInformation, "DestroyConference: the virtual monitor %s was already gone",
             kVirtualMonitorName);
    } else if (!mDesktop->DeleteMonitor(kVirtualMonitorName)) {
        VLOG(EGroupValueSevere, "Unable to remove the virtual monitor %s: %s", kVirtualMonitorName,
             mDesktop->LastError().c_str());
        return ResultGeneralFailure;
    } else {
        VLOG(EGroupValueInformation, "DestroyConference: removed the virtual monitor %s",
             kVirtualMonitorName);
    }
    mMonitorAdded = false;
    RestoreScreen();
    return Success;
}

void VirtualMonitorManager::RemoveMonitor()
{
    mArrivalTimer.stop();
    if (mConferenceCreated || mMonitorAdded) {
        DestroyConference();
    }
}

void VirtualMonitorManager::ForgetDesktop()
{
    mArrivalTimer.stop();
    mDesktop = nullptr;
    mMonitorAdded = false;
    mConferenceCreated = false;
    mScreenBeforeGrowth.reset();
}

void VirtualMonitorManager::RestoreScreen()
{
    if (!mScreenBeforeGrowth) {
        return;
    }
    const tScreenGeometry before = *mScreenBeforeGrowth;
    mScreenBeforeGrowth.reset();
    std::vector<tMonitorRect> monitors;
    tScreenGeometry screen;
    if (!mDesktop->ListMonitors(&monitors) || !mDesktop->GetScreen(&screen)) {
        VLOG(EGroupValueWarning, "Unable to give the screen back its size of %dx%d: %s",
             before.width, before.height, mDesktop->LastError().c_str());
        return;
    }
    // Someone else changed the screen since: it is theirs now.
    if (screen.width != mGrownWidth || screen.height != mGrownHeight) {
        VLOG(EGroupValueInformation,
             "Left the screen at %dx%d: it was changed after the virtual monitor grew it",
             screen.width, screen.height);
        return;
    }
    if (!FitsInScreen(monitors, before.width, before.height)) {
        VLOG(EGroupValueInformation,
             "Left the screen at %dx%d: the monitors on it no longer fit in %dx%d", screen.width,
             screen.height, before.width, before.height);
        return;
    }
    if (!mDesktop->SetScreenSize(before.width, before.height, before.mmWidth, before.mmHeight)) {
        VLOG(EGroupValueWarning, "Unable to give the screen back its size of %dx%d: %s",
             before.width, before.height, mDesktop->LastError().c_str());
        return;
    }
    VLOG(EGroupValueInformation, "Gave the screen back its size of %dx%d", before.width,
         before.height);
}

bool VirtualMonitorManager::FindOurMonitor(std::optional<tMonitorRect>* found)
{
    found->reset();
    std::vector<tMonitorRect> monitors;
    if (!mDesktop || !mDesktop->ListMonitors(&monitors)) {
        return false;
    }
    for (const tMonitorRect& monitor : monitors) {
        if (monitor.name == kVirtualMonitorName) {
            *found = monitor;
        }
    }
    return true;
}

RESULT VirtualMonitorManager::RequestCalibrate(tMonitorInfo* info)
{
    std::optional<tMonitorRect> monitor;
    if (!FindOurMonitor(&monitor) || !monitor) {
        VLOG(EGroupValueInformation, "RequestCalibrate: no virtual monitor");
        return ResultGeneralFailure;
    }
    if (info) {
        info->name = QString::fromStdString(monitor->name);
        info->bounds = tVmRect{monitor->x, monitor->y, monitor->width, monitor->height};
    }
    VLOG(EGroupValueInformation,
         "RequestCalibrate: the virtual monitor is at x=[%d] y=[%d] w=[%d] h=[%d]", monitor->x,
         monitor->y, monitor->width, monitor->height);
    return Success;
}

// Not sent by the relay; answers as RequestCalibrate does.
RESULT VirtualMonitorManager::GetMonitorInfo(tMonitorInfo* info)
{
    return RequestCalibrate(info);
}

RESULT VirtualMonitorManager::UpdateConference(int, int)
{
    VLOG(EGroupValueInformation, "UpdateConference isn't supported by this program");
    return ResultNotImplemented;
}

RESULT VirtualMonitorManager::ReserveRect(const tVmRect&)
{
    VLOG(EGroupValueInformation, "ReserveRect isn't supported by this program");
    return ResultNotImplemented;
}

RESULT VirtualMonitorManager::ReserveEmpty()
{
    VLOG(EGroupValueInformation, "ReserveEmpty isn't supported by this program");
    return ResultNotImplemented;
}

// No cursor cage on X11 here: the reply's rectangle stays zero.
RESULT VirtualMonitorManager::SetCursorCage(bool, long long, tMonitorInfo*)
{
    VLOG(EGroupValueInformation, "SetCursorCage isn't supported by this program");
    return ResultNotImplemented;
}

} // namespace quorvan::velorane::virtualdisplay
