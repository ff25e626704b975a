#include "Clients/Conference/Linux/QtScreenDisplayPlatform.h"

#include <QGuiApplication>
#include <QRect>
#include <QScreen>

namespace quorvan::velorane::relay {

int32_t QtScreenDisplayPlatform::GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                                      uint32_t* count)
{
    if (!count) {
        return DisplayErrorIllegalArgument;
    }
    if (!displays) {
        *count = 1;
        return DisplayErrorSuccess;
    }
    *count = 0;
    if (maxDisplays > 0) {
        displays[0] = kDisplayId;
        *count = 1;
    }
    return DisplayErrorSuccess;
}

tDisplayBounds QtScreenDisplayPlatform::DisplayBounds(uint32_t displayId)
{
    // Without a QGuiApplication, or with no screen, Qt has no primary screen.
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (displayId != kDisplayId || !screen) {
        return {};
    }
    const QRect geometry = screen->geometry();
    return {double(geometry.x()), double(geometry.y()), double(geometry.width()),
            double(geometry.height())};
}

uint32_t QtScreenDisplayPlatform::DisplayMirrorsDisplay(uint32_t)
{
    return 0;
}

bool QtScreenDisplayPlatform::DisplayIsMain(uint32_t displayId)
{
    return displayId == kDisplayId;
}

uint32_t QtScreenDisplayPlatform::DisplayVendorNumber(uint32_t)
{
    return 0;
}

uint32_t QtScreenDisplayPlatform::DisplayModelNumber(uint32_t)
{
    return 0;
}

uint32_t QtScreenDisplayPlatform::DisplaySerialNumber(uint32_t)
{
    return 0;
}

int32_t QtScreenDisplayPlatform::BeginDisplayConfiguration(DisplayConfigRef* config)
{
    if (!config) {
        return DisplayErrorIllegalArgument;
    }
    *config = std::make_unique<DisplayConfig>();
    return DisplayErrorSuccess;
}

int32_t QtScreenDisplayPlatform::ConfigureDisplayOrigin(DisplayConfig* config, uint32_t displayId,
                                                        int32_t x, int32_t y)
{
    if (!config || displayId != kDisplayId) {
        return DisplayErrorIllegalArgument;
    }
    config->steps.push_back({DisplayConfig::Step::Origin, displayId, x, y, 0});
    return DisplayErrorSuccess;
}

int32_t QtScreenDisplayPlatform::ConfigureDisplayMirrorOfDisplay(DisplayConfig* config,
                                                                 uint32_t displayId,
                                                                 uint32_t master)
{
    if (!config || displayId != kDisplayId) {
        return DisplayErrorIllegalArgument;
    }
    config->steps.push_back({DisplayConfig::Step::MirrorOf, displayId, 0, 0, master});
    return DisplayErrorSuccess;
}

int32_t QtScreenDisplayPlatform::CompleteDisplayConfiguration(DisplayConfigRef config,
                                                              EDisplayConfigureOption)
{
    // One display can only stay where it is.
    return config ? DisplayErrorSuccess : DisplayErrorIllegalArgument;
}

int32_t QtScreenDisplayPlatform::RegisterReconfigurationCallback(DisplayReconfigurationCallback,
                                                                 void*)
{
    return DisplayErrorSuccess;
}

int32_t QtScreenDisplayPlatform::RemoveReconfigurationCallback(DisplayReconfigurationCallback,
                                                               void*)
{
    return DisplayErrorSuccess;
}

} // namespace quorvan::velorane::relay
