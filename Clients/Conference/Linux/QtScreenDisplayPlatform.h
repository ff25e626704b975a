#pragma once

// The display platform where the relay has no X11 display to work with (a
// Wayland session without XWayland, Qt's offscreen platform, no display at
// all): one display, id 1, with the bounds of Qt's primary screen, main,
// mirroring nothing and with no identity, so no virtual monitor is ever
// found. Configuration transactions are accepted and change nothing, and no
// change is ever reported.
//
// Threads: the GUI thread.

#include "Clients/Conference/IDisplayPlatform.h"

namespace quorvan::velorane::relay {

class QtScreenDisplayPlatform : public IDisplayPlatform
{
public:
    static constexpr uint32_t kDisplayId = 1;

    int32_t GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                 uint32_t* count) override;
    tDisplayBounds DisplayBounds(uint32_t displayId) override;
    uint32_t DisplayMirrorsDisplay(uint32_t displayId) override;
    bool DisplayIsMain(uint32_t displayId) override;
    uint32_t DisplayVendorNumber(uint32_t displayId) override;
    uint32_t DisplayModelNumber(uint32_t displayId) override;
    uint32_t DisplaySerialNumber(uint32_t displayId) override;

    int32_t BeginDisplayConfiguration(DisplayConfigRef* config) override;
    int32_t ConfigureDisplayOrigin(DisplayConfig* config, uint32_t displayId, int32_t x,
                                   int32_t y) override;
    int32_t ConfigureDisplayMirrorOfDisplay(DisplayConfig* config, uint32_t displayId,
                                            uint32_t master) override;
    int32_t CompleteDisplayConfiguration(DisplayConfigRef config,
                                         EDisplayConfigureOption option) override;

    int32_t RegisterReconfigurationCallback(DisplayReconfigurationCallback callback,
                                            void* userInfo) override;
    int32_t RemoveReconfigurationCallback(DisplayReconfigurationCallback callback,
                                          void* userInfo) override;
};

} // namespace quorvan::velorane::relay
