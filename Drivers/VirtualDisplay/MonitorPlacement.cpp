#include "Drivers/VirtualDisplay/MonitorPlacement.h"

#include <algorithm>
#include <cstdint>

namespace quorvan::velorane::virtualdisplay {

int PixelsToMillimetres(int pixels, int screenPixels, int screenMillimetres)
{
    if (screenPixels <= 0 || screenMillimetres <= 0) {
        // 25.4 mm per inch at 96 pixels per inch.
        return static_cast<int>((static_cast<int64_t>(pixels) * 254 + 480) / 960);
    }
    return static_cast<int>((static_cast<int64_t>(pixels) * screenMillimetres + screenPixels / 2) /
                            screenPixels);
}

tPlacement PlaceAt(const std::string& name, const tScreenGeometry& screen, int x, int y, int width,
                   int height)
{
    tPlacement placement;
    placement.monitor.name = name;
    placement.monitor.x = x;
    placement.monitor.y = y;
    placement.monitor.width = width;
    placement.monitor.height = height;
    placement.monitor.mmWidth = PixelsToMillimetres(width, screen.width, screen.mmWidth);
    placement.monitor.mmHeight = PixelsToMillimetres(height, screen.height, screen.mmHeight);
    placement.screen = screen;

    if (x < 0 || y < 0 || width <= 0 || height <= 0) {
        return placement;
    }
    const int64_t right = static_cast<int64_t>(x) + width;
    const int64_t bottom = static_cast<int64_t>(y) + height;
    if (right > kMaxMonitorSide || bottom > kMaxMonitorSide) {
        return placement;
    }
    if (right <= screen.width && bottom <= screen.height) {
        placement.fits = true;
        return placement;
    }
    if (right > screen.maxWidth || bottom > screen.maxHeight) {
        return placement;
    }
    // Grown only as far as needed, keeping the screen's density.
    const int newWidth = static_cast<int>(std::max<int64_t>(screen.width, right));
    const int newHeight = static_cast<int>(std::max<int64_t>(screen.height, bottom));
    placement.screen.width = newWidth;
    placement.screen.height = newHeight;
    placement.screen.mmWidth = PixelsToMillimetres(newWidth, screen.width, screen.mmWidth);
    placement.screen.mmHeight = PixelsToMillimetres(newHeight, screen.height, screen.mmHeight);
    placement.growsScreen = true;
    placement.fits = true;
    return placement;
}

tPlacement PlaceRightOfOthers(const std::vector<tMonitorRect>& monitors, const std::string& name,
                              const tScreenGeometry& screen, int width, int height)
{
    int64_t right = 0;
    for (const tMonitorRect& monitor : monitors) {
        if (monitor.name == name) {
            continue;
        }
        right = std::max<int64_t>(right, static_cast<int64_t>(monitor.x) + monitor.width);
    }
    // A list that reaches past X's coordinates leaves no room; the clamp
    // makes PlaceAt say so.
    right = std::min<int64_t>(right, kMaxMonitorSide);
    return PlaceAt(name, screen, static_cast<int>(right), 0, width, height);
}

bool FitsInScreen(const std::vector<tMonitorRect>& monitors, int width, int height)
{
    for (const tMonitorRect& monitor : monitors) {
        if (static_cast<int64_t>(monitor.x) + monitor.width > width ||
            static_cast<int64_t>(monitor.y) + monitor.height > height) {
            return false;
        }
    }
    return true;
}

} // namespace quorvan::velorane::virtualdisplay
