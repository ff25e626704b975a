#include "Clients/Conference/DisplayManager.h"

#include "Common/Logger/Src/Logger.h"

#include <QObject>
#include <QTimer>

#include <algorithm>
#include <array>

namespace quorvan::velorane::relay {

namespace {

// The texts of the change bits, in the order they are written.
struct FlagText
{
    uint32_t bit;
    const char* text;
};
constexpr std::array<FlagText, 11> kFlagTexts{{
    {DisplayBeginConfigurationFlag, " kCGDisplayBeginConfigurationFlag"},
    {DisplayMovedFlag, " kCGDisplayMovedFlag"},
    {DisplaySetMainFlag, " kCGDisplaySetMainFlag"},
    {DisplaySetModeFlag, " kCGDisplaySetModeFlag"},
    {DisplayAddFlag, " kCGDisplayAddFlag"},
    {DisplayRemoveFlag, " kCGDisplayRemoveFlag"},
    {DisplayEnabledFlag, " kCGDisplayEnabledFlag"},
    {DisplayDisabledFlag, " kCGDisplayDisabledFlag"},
    {DisplayMirrorFlag, " kCGDisplayMirrorFlag"},
    {DisplayUnMirrorFlag, " kCGDisplayUnMirrorFlag"},
    {DisplayDesktopShapeChangedFlag, " kCGDisplayDesktopShapeChangedFlag"},
}};

} // namespace

DisplayManager::DisplayManager() : DisplayManager(CreateDisplayPlatform()) {}

DisplayManager::DisplayManager(std::unique_ptr<IDisplayPlatform> platform)
    : mPlatform(std::move(platform)), mScheduleContext(std::make_unique<QObject>())
{
    mDisplayList = DetectDisplays();
    // The first entry is the leftmost display, main or not. With no display
    // at all there is no first entry: the id logged is then 0.
    const uint32_t firstId = mDisplayList.empty() ? 0 : mDisplayList.front()->displayId;
    VLOG(EGroupValueInformation, "Original Main Display id=[0x%x]", firstId);
}

DisplayManager::~DisplayManager()
{
    // Pending work dies first: it can't run into a half-destroyed manager.
    mScheduleContext.reset();
    VLOG(EGroupValueInformation, " Clear stocked display list");
    ClearList();
}

void DisplayManager::ClearList()
{
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    mDisplayList.clear();
}

DisplayList DisplayManager::DetectDisplays()
{
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    DisplayList displays;
    uint32_t count = 0;
    if (mPlatform->GetOnlineDisplayList(kMaxDisplays, nullptr, &count) != DisplayErrorSuccess) {
        return displays;
    }
    // The separator is the full-width colon, U+FF1A.
    VLOG(EGroupValueInformation,
         "DetectDisplays\xEF\xBC\x9A"
         "total Displays=[%d]",
         static_cast<int>(count));

    std::array<uint32_t, kMaxDisplays> ids{};
    count = 0;
    if (mPlatform->GetOnlineDisplayList(kMaxDisplays, ids.data(), &count) != DisplayErrorSuccess) {
        return displays;
    }
    count = std::min(count, kMaxDisplays);
    for (uint32_t index = 0; index < count; ++index) {
        const uint32_t id = ids[index];
        const tDisplayBounds bounds = mPlatform->DisplayBounds(id);
        auto info = std::make_shared<tDisplayInfo>();
        info->x = bounds.x;
        info->y = bounds.y;
        info->width = (bounds.x + bounds.width) - bounds.x;
        info->height = (bounds.y + bounds.height) - bounds.y;
        info->displayId = id;
        info->mirrorOf = mPlatform->DisplayMirrorsDisplay(id);
        info->isMain = mPlatform->DisplayIsMain(id);
        displays.push_back(std::move(info));
    }
    // The order among equal x is left open.
    std::sort(displays.begin(), displays.end(),
              [](const auto& a, const auto& b) { return a->x < b->x; });
    return displays;
}

unsigned DisplayManager::FindVM()
{
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    for (const auto& display : DetectDisplays()) {
        if (IsDisplayRelayVirtualMonitor(display->displayId)) {
            return display->displayId;
        }
    }
    return 0;
}

bool DisplayManager::IsDisplayRelayVirtualMonitor(unsigned displayId)
{
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    if (mPlatform->DisplayVendorNumber(displayId) != kVirtualMonitorVendor) {
        return false;
    }
    if (mPlatform->DisplayModelNumber(displayId) != kVirtualMonitorModel) {
        return false;
    }
    // The serial's decimal text must begin with the prefix: 1902 and
    // 190255 match, 21902 and 190 don't.
    return std::to_string(mPlatform->DisplaySerialNumber(displayId))
               .find(kVirtualMonitorSerialPrefix) == 0;
}

int DisplayManager::GetDisplayBounds(unsigned displayId, double* left, double* top, double* right,
                                     double* bottom)
{
    const tDisplayBounds bounds = mPlatform->DisplayBounds(displayId);
    if (left) {
        *left = bounds.x;
    }
    if (top) {
        *top = bounds.y;
    }
    if (right) {
        *right = bounds.x + bounds.width;
    }
    if (bottom) {
        *bottom = bounds.y + bounds.height;
    }
    return 0;
}

int DisplayManager::SetDisplayOrigin(unsigned displayId, int x, int y)
{
    DisplayConfigRef config;
    int32_t result = mPlatform->BeginDisplayConfiguration(&config);
    if (result != DisplayErrorSuccess) {
        return result;
    }
    result = mPlatform->ConfigureDisplayOrigin(config.get(), displayId, x, y);
    if (result != DisplayErrorSuccess) {
        // Abandoned, not cancelled: dropping it applies nothing.
        return result;
    }
    return mPlatform->CompleteDisplayConfiguration(std::move(config), DisplayConfigureForAppOnly);
}

void DisplayManager::SetConfigurationDoneCB(ConfigurationDoneCallback callback, void* context)
{
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    mConfigurationDoneCB = callback;
    mConfigurationDoneContext = context;
}

void DisplayManager::SetHook()
{
    mPlatform->RegisterReconfigurationCallback(&DisplayManager::ReconfigCallback, this);
}

void DisplayManager::RemoveHook()
{
    mPlatform->RemoveReconfigurationCallback(&DisplayManager::ReconfigCallback, this);
}

void DisplayManager::RequestCalibrate()
{
    VLOG(EGroupValueInformation, " -- Do Calibrate");
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    if (!mConfigurationDoneCB || !mConfigurationDoneContext) {
        return;
    }
    const unsigned virtualMonitor = FindVM();
    if (virtualMonitor == 0) {
        return;
    }
    const tDisplayBounds bounds = mPlatform->DisplayBounds(virtualMonitor);
    // A virtual monitor that has become the main display isn't followed.
    if (mPlatform->DisplayIsMain(virtualMonitor)) {
        return;
    }
    VLOG(EGroupValueInformation,
         "New Virtual Monitor Position: x=[%.2f] y=[%.2f] w=[%.2f] h=[%.2f]", bounds.x, bounds.y,
         bounds.width, bounds.height);
    // Still under the lock: the window's own lock comes after this one.
    mConfigurationDoneCB(mConfigurationDoneContext, static_cast<int>(bounds.x),
                         static_cast<int>(bounds.y), static_cast<int>(bounds.width),
                         static_cast<int>(bounds.height));
}

void DisplayManager::HandleConfigureDone()
{
    VLOG(EGroupValueInformation, "called HandleConfigureDone callback!");
    RequestCalibrate();
}

void DisplayManager::restoreMain(DisplayConfig* config, unsigned virtualMonitorId)
{
    // The results aren't looked at: a display that can't move stays.
    double runningWidth = 0;
    for (const auto& display : mDisplayList) {
        mPlatform->ConfigureDisplayOrigin(config, display->displayId,
                                          static_cast<int32_t>(display->x),
                                          static_cast<int32_t>(display->y));
        runningWidth += display->width;
    }
    if (virtualMonitorId != 0) {
        mPlatform->ConfigureDisplayOrigin(config, virtualMonitorId,
                                          static_cast<int32_t>(runningWidth), 0);
    }
}

std::string DisplayManager::FlagsText(uint32_t flags)
{
    if (flags == DisplayBeginConfigurationFlag) {
        return "kCGDisplayBeginConfigurationFlag";
    }
    std::string text;
    for (const auto& entry : kFlagTexts) {
        if (flags & entry.bit) {
            text += entry.text;
        }
    }
    return text;
}

void DisplayManager::ReconfigCallback(uint32_t displayId, uint32_t flags, void* userInfo)
{
    auto* manager = static_cast<DisplayManager*>(userInfo);
    if (!manager) {
        return;
    }
    VLOG(EGroupValueInformation,
         "Display configuration changed, calibrate displays 0x%x flags=0x%x(%s)", displayId, flags,
         FlagsText(flags).c_str());

    int mode = ScheduleArrange;
    unsigned carriedId = 0;
    if (flags & DisplayMirrorFlag) {
        // Whatever display reports a mirror is un-mirrored.
        mode = ScheduleUnMirror;
        carriedId = displayId;
    } else if (flags & (DisplayMovedFlag | DisplayAddFlag)) {
        mode = ScheduleArrange;
        carriedId = manager->IsDisplayRelayVirtualMonitor(displayId) ? displayId : 0;
    } else {
        return;
    }
    // Bound to the manager's context: deleting the manager cancels it.
    QTimer::singleShot(kScheduleDelayMs, Qt::PreciseTimer, manager->mScheduleContext.get(),
                       [manager, mode, carriedId] { manager->RunScheduled(mode, carriedId); });
}

void DisplayManager::RunScheduled(int mode, unsigned displayId)
{
    DisplayConfigRef config;
    mPlatform->BeginDisplayConfiguration(&config);
    if (mode == ScheduleArrange) {
        restoreMain(config.get(), displayId);
    } else {
        mPlatform->ConfigureDisplayMirrorOfDisplay(config.get(), displayId, 0);
    }
    // An arrangement is kept, an un-mirroring is for this program only.
    mPlatform->CompleteDisplayConfiguration(std::move(config), mode == ScheduleArrange
                                                                   ? DisplayConfigurePermanently
                                                                   : DisplayConfigureForAppOnly);
    HandleConfigureDone();
}

} // namespace quorvan::velorane::relay
