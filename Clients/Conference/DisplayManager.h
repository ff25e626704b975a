#pragma once

// Finds the virtual monitor among the machine's displays and keeps the
// display arrangement right when it changes. The virtual monitor is an
// ordinary display to the desktop, so it can end up mirrored, as the main
// display or anywhere in the arrangement. This class keeps the displays as
// they stood when it was made (the stocked list), puts them back after a
// change with the virtual monitor to the right of them all, un-mirrors, and
// tells the relay window through a callback where the virtual monitor lies.
//
// Threads: the GUI thread. The platform delivers reconfiguration calls
// there, the work they schedule runs there 200 ms later, and the relay
// window calls FindVM from there. mMutex is recursive because
// RequestCalibrate holds it across FindVM, DetectDisplays and
// IsDisplayRelayVirtualMonitor, which take it too, and across the callback.
//
// Lifetime: scheduled work is bound to an object this class owns, so work
// still pending when the manager is deleted never runs. RemoveHook stops
// new notifications only.

#include "Clients/Conference/IDisplayPlatform.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class QObject;

namespace quorvan::velorane::relay {

// One online display, always held by a shared pointer.
struct tDisplayInfo
{
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    uint32_t displayId = 0;
    // Stored, read by nothing.
    uint32_t mirrorOf = 0;
    // Stored, read by nothing.
    bool isMain = false;
};

using DisplayList = std::vector<std::shared_ptr<tDisplayInfo>>;

class DisplayManager
{
public:
    using ConfigurationDoneCallback = void (*)(void* context, int x, int y, int w, int h);

    // What the scheduled work does.
    enum ScheduleMode : int
    {
        ScheduleUnMirror = 0,
        ScheduleArrange = 1,
    };
    static constexpr int kScheduleDelayMs = 200;
    static constexpr uint32_t kMaxDisplays = 32;
    // The virtual monitor's fixed identity.
    static constexpr uint32_t kVirtualMonitorVendor = 2399;
    static constexpr uint32_t kVirtualMonitorModel = 160;
    static constexpr const char* kVirtualMonitorSerialPrefix = "1902";

    // On the platform of the desktop in use.
    DisplayManager();
    explicit DisplayManager(std::unique_ptr<IDisplayPlatform> platform);
    ~DisplayManager();
    DisplayManager(const DisplayManager&) = delete;
    DisplayManager& operator=(const DisplayManager&) = delete;

    void ClearList();
    // The online displays now, sorted by x; empty when the platform can't
    // list them. The stocked list is left alone.
    DisplayList DetectDisplays();
    // The virtual monitor's id, 0 when there is none.
    unsigned FindVM();
    bool IsDisplayRelayVirtualMonitor(unsigned displayId);
    int GetDisplayBounds(unsigned displayId, double* left, double* top, double* right,
                         double* bottom);
    int SetDisplayOrigin(unsigned displayId, int x, int y);

    void SetConfigurationDoneCB(ConfigurationDoneCallback callback, void* context);
    void SetHook();
    void RemoveHook();

    // Tells the callback where the virtual monitor is.
    void RequestCalibrate();
    void HandleConfigureDone();
    // Stages the stocked displays at their old places and the virtual
    // monitor at y = 0 beyond the sum of their widths.
    void restoreMain(DisplayConfig* config, unsigned virtualMonitorId);

    // Handed to the platform; userInfo is the manager.
    static void ReconfigCallback(uint32_t displayId, uint32_t flags, void* userInfo);
    // The text logged for a set of change flags.
    static std::string FlagsText(uint32_t flags);

    const DisplayList& StockedList() const { return mDisplayList; }
    IDisplayPlatform& Platform() { return *mPlatform; }

private:
    void RunScheduled(int mode, unsigned displayId);

    std::unique_ptr<IDisplayPlatform> mPlatform;
    DisplayList mDisplayList;
    ConfigurationDoneCallback mConfigurationDoneCB = nullptr;
    void* mConfigurationDoneContext = nullptr;
    std::recursive_mutex mMutex;
    // Scheduled work runs only while this lives; it goes first.
    std::unique_ptr<QObject> mScheduleContext;
};

} // namespace quorvan::velorane::relay
