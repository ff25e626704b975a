#pragma once

// Where the virtual monitor goes and what screen it needs: arithmetic over
// the monitor list and the screen's limits, without touching the desktop.

#include "Drivers/VirtualDisplay/IDesktop.h"

#include <string>
#include <vector>

namespace quorvan::velorane::virtualdisplay {

struct tPlacement
{
    // False when the screen can't hold the monitor, even grown to its
    // largest size.
    bool fits = false;
    tMonitorRect monitor;
    // The screen the monitor needs: the current one when it already lies
    // inside, else a larger one within the server's limits.
    tScreenGeometry screen;
    bool growsScreen = false;
};

// X places monitors in signed 16-bit coordinates: nothing may reach past
// this edge.
constexpr int kMaxMonitorSide = 32767;

// The monitor of that name and size at y = 0, right of every monitor in
// the list apart from one of the same name; at x = 0 when there is none.
tPlacement PlaceRightOfOthers(const std::vector<tMonitorRect>& monitors, const std::string& name,
                              const tScreenGeometry& screen, int width, int height);

// The monitor of that name and size at a given place.
tPlacement PlaceAt(const std::string& name, const tScreenGeometry& screen, int x, int y, int width,
                   int height);

// Whether every monitor of the list lies inside a screen of that size.
bool FitsInScreen(const std::vector<tMonitorRect>& monitors, int width, int height);

// A length in pixels as millimetres, at the screen's own density; 96 dots
// per inch for a screen that gives no physical size.
int PixelsToMillimetres(int pixels, int screenPixels, int screenMillimetres);

} // namespace quorvan::velorane::virtualdisplay
