#pragma once

// The desktop as this program sees it: a screen that may change size and a
// list of named monitors on it, some made by the program itself. The X11
// provider (Linux/X11Desktop) is the real one.
//
// Threads: the main thread only.

#include <string>
#include <vector>

namespace quorvan::velorane::virtualdisplay {

// One monitor: its rectangle in screen pixels and its physical size.
struct tMonitorRect
{
    std::string name;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    int mmWidth = 0;
    int mmHeight = 0;
    // Outputs that show it; 0 for a monitor that no output backs.
    int outputs = 0;
};

// The screen all monitors lie on, and the sizes the server allows it.
struct tScreenGeometry
{
    int width = 0;
    int height = 0;
    int mmWidth = 0;
    int mmHeight = 0;
    int minWidth = 0;
    int minHeight = 0;
    int maxWidth = 0;
    int maxHeight = 0;
};

class IDesktop
{
public:
    virtual ~IDesktop() = default;

    // The monitors now on the screen. False when the server couldn't be
    // asked; LastError says why.
    virtual bool ListMonitors(std::vector<tMonitorRect>* monitors) = 0;
    virtual bool GetScreen(tScreenGeometry* screen) = 0;
    virtual bool SetScreenSize(int width, int height, int mmWidth, int mmHeight) = 0;
    // Sets a monitor that no output backs. One of the same name is deleted
    // first: the server refuses to set it over an existing one.
    virtual bool SetMonitor(const tMonitorRect& monitor) = 0;
    virtual bool DeleteMonitor(const std::string& name) = 0;
    // Why the last call that returned false failed.
    virtual std::string LastError() const = 0;
};

} // namespace quorvan::velorane::virtualdisplay
