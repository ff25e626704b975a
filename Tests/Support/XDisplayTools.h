#pragma once

// The X command-line tools a test uses on a display of its own: xrandr to
// list, set, move and delete RandR monitors and to size the screen and its
// output, xwininfo to find where a window is. Each tool runs as a child
// process with DISPLAY set; its output is kept in a folder of this object.
//
// Set the monitor of our virtual display program with
// SetMonitor("VELORANE-2399-160-1902", 1920, 0, 1280, 720).

#include "Tests/Support/TempDir.h"

#include <string>
#include <vector>

namespace velorane::test {

// One line of `xrandr --listmonitors`.
struct ListedMonitor
{
    std::string name;
    bool primary = false;
    bool automatic = false;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    std::vector<std::string> outputs;
};

struct WindowGeometry
{
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool viewable = false;
};

class XDisplayTools
{
public:
    explicit XDisplayTools(std::string display);

    // The tool's exit code (a bare name is looked for in /usr/bin and
    // the like), -1 when it couldn't run or took over 20 s; its
    // standard output and error in *output.
    int Run(const std::vector<std::string>& argv, std::string* output = nullptr);

    std::vector<ListedMonitor> ListMonitors();
    bool FindMonitor(const std::string& name, ListedMonitor* monitor);
    // An output-less monitor; its physical size is taken at 96 dots per inch.
    // With primary, it becomes the primary monitor.
    bool SetMonitor(const std::string& name, int x, int y, int width, int height,
                    bool primary = false);
    bool DeleteMonitor(const std::string& name);
    // The server refuses to set a monitor over one of the same name: this
    // deletes it, then sets it at the new place.
    bool MoveMonitor(const std::string& name, int x, int y, int width, int height);
    bool SetScreenSize(int width, int height);
    // The screen's size now; false when xrandr couldn't tell.
    bool ScreenSize(int* width, int* height);
    // Gives the first output a mode of this size and sets it, leaving the
    // screen at screenWidth by screenHeight.
    bool SetOutputSize(int width, int height, int screenWidth, int screenHeight);

    // The first top-level window with this name (WM_NAME).
    bool FindWindow(const std::string& name, WindowGeometry* geometry);

    // `xrandr --listmonitors` as it printed, for test messages.
    std::string MonitorsText();

    const std::string& Display() const { return m_display; }

private:
    std::string m_display;
    TempDir m_dir;
    int m_runs = 0;
};

// Parses the lines of `xrandr --listmonitors`.
std::vector<ListedMonitor> ParseListedMonitors(const std::string& text);

} // namespace velorane::test
