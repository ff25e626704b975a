#pragma once

// The few operations on the machine's display arrangement that the
// DisplayManager needs: list the online displays, read a display's bounds,
// mirroring, main flag and identity, move displays in a configuration
// transaction, and hear about changes. Each platform provides them in its
// own folder (Clients/Conference/Linux), and the tests use a scripted fake.
//
// Threads: the GUI thread only. Providers deliver reconfiguration calls on
// the thread that made them.

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace quorvan::velorane::relay {

// The platform's error codes: 0 is success, anything else a failure.
enum EDisplayError : int32_t
{
    DisplayErrorSuccess = 0,
    DisplayErrorFailure = 1000,
    DisplayErrorIllegalArgument = 1001,
    DisplayErrorInvalidConnection = 1002,
    DisplayErrorCannotComplete = 1004,
    DisplayErrorNotImplemented = 1006,
};

// Bits of a reconfiguration call: what happened to the display named.
enum EDisplayChangeFlags : uint32_t
{
    DisplayBeginConfigurationFlag = 0x1,
    DisplayMovedFlag = 0x2,
    DisplaySetMainFlag = 0x4,
    DisplaySetModeFlag = 0x8,
    DisplayAddFlag = 0x10,
    DisplayRemoveFlag = 0x20,
    DisplayEnabledFlag = 0x100,
    DisplayDisabledFlag = 0x200,
    DisplayMirrorFlag = 0x400,
    DisplayUnMirrorFlag = 0x800,
    DisplayDesktopShapeChangedFlag = 0x1000,
};

// How long a completed transaction lasts: for this program only, or kept.
enum EDisplayConfigureOption : int32_t
{
    DisplayConfigureForAppOnly = 0,
    DisplayConfigureForSession = 1,
    DisplayConfigurePermanently = 2,
};

// A rectangle in global display coordinates.
struct tDisplayBounds
{
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

// The changes staged in one open configuration transaction, in the order
// they were staged. Providers fill it; Complete applies it.
struct DisplayConfig
{
    struct Step
    {
        enum Kind
        {
            Origin,
            MirrorOf,
        };
        Kind kind;
        uint32_t displayId;
        int32_t x;
        int32_t y;
        // For MirrorOf: the display to mirror, 0 to stop mirroring.
        uint32_t master;
    };
    std::vector<Step> steps;
};
// An open transaction belongs to whoever began it; one dropped without
// being completed is abandoned and changes nothing.
using DisplayConfigRef = std::unique_ptr<DisplayConfig>;

using DisplayReconfigurationCallback = void (*)(uint32_t displayId, uint32_t flags, void* userInfo);

class IDisplayPlatform
{
public:
    virtual ~IDisplayPlatform() = default;

    // With displays null, *count is the number of online displays; with an
    // array, up to maxDisplays ids are written and *count says how many.
    virtual int32_t GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                         uint32_t* count) = 0;
    // An unknown display has empty bounds at 0, 0.
    virtual tDisplayBounds DisplayBounds(uint32_t displayId) = 0;
    // The display this one mirrors, 0 when none.
    virtual uint32_t DisplayMirrorsDisplay(uint32_t displayId) = 0;
    virtual bool DisplayIsMain(uint32_t displayId) = 0;
    virtual uint32_t DisplayVendorNumber(uint32_t displayId) = 0;
    virtual uint32_t DisplayModelNumber(uint32_t displayId) = 0;
    virtual uint32_t DisplaySerialNumber(uint32_t displayId) = 0;

    virtual int32_t BeginDisplayConfiguration(DisplayConfigRef* config) = 0;
    // Stages a move of the display's top left corner. A null config or an
    // unknown display is refused with DisplayErrorIllegalArgument.
    virtual int32_t ConfigureDisplayOrigin(DisplayConfig* config, uint32_t displayId, int32_t x,
                                           int32_t y) = 0;
    // Stages the end of mirroring for the display when master is 0.
    virtual int32_t ConfigureDisplayMirrorOfDisplay(DisplayConfig* config, uint32_t displayId,
                                                    uint32_t master) = 0;
    // Applies what was staged; a null config is refused.
    virtual int32_t CompleteDisplayConfiguration(DisplayConfigRef config,
                                                 EDisplayConfigureOption option) = 0;

    // Between these two calls the callback hears of every change, once per
    // display and phase, on the thread that made the provider.
    virtual int32_t RegisterReconfigurationCallback(DisplayReconfigurationCallback callback,
                                                    void* userInfo) = 0;
    virtual int32_t RemoveReconfigurationCallback(DisplayReconfigurationCallback callback,
                                                  void* userInfo) = 0;
};

// The provider of this platform for the desktop the application runs on.
// Called on the GUI thread after the QApplication exists.
std::unique_ptr<IDisplayPlatform> CreateDisplayPlatform();

using DisplayPlatformFactory = std::function<std::unique_ptr<IDisplayPlatform>()>;

} // namespace quorvan::velorane::relay
