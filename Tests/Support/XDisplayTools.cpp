#include "Tests/Support/XDisplayTools.h"

#include "Tests/Support/ChildProcess.h"

#include <cmath>
#include <cstdio>
#include <sstream>

#include <unistd.h>

namespace velorane::test {

namespace {

using namespace std::chrono_literals;

// Children are started by path, without a search.
std::string ToolPath(const std::string& name)
{
    for (const char* folder : {"/usr/bin/", "/usr/local/bin/", "/bin/"}) {
        const std::string path = folder + name;
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return name;
}

std::string Millimetres(int pixels)
{
    return std::to_string(static_cast<int>(std::lround(pixels * 25.4 / 96.0)));
}

// "1280/338x720/190+1920+0" into the rectangle.
bool ParseGeometry(const std::string& text, ListedMonitor* monitor)
{
    int mmWidth = 0;
    int mmHeight = 0;
    return std::sscanf(text.c_str(), "%d/%dx%d/%d%d%d", &monitor->width, &mmWidth, &monitor->height,
                       &mmHeight, &monitor->x, &monitor->y) == 6;
}

// The number after "label:" on a line of xwininfo.
bool ReadField(const std::string& text, const std::string& label, int* value)
{
    const size_t at = text.find(label);
    return at != std::string::npos &&
           std::sscanf(text.c_str() + at + label.size(), "%d", value) == 1;
}

} // namespace

XDisplayTools::XDisplayTools(std::string display) : m_display(std::move(display)) {}

int XDisplayTools::Run(const std::vector<std::string>& argv, std::string* output)
{
    ChildProcess tool;
    ChildProcess::Options options;
    options.argv = argv;
    if (!options.argv.empty() && options.argv[0].find('/') == std::string::npos) {
        options.argv[0] = ToolPath(options.argv[0]);
    }
    options.environment = {{"DISPLAY", m_display}};
    options.outputFile = m_dir.File("tool-" + std::to_string(m_runs++) + ".out");
    int code = -1;
    if (!tool.Start(options) || !tool.WaitForExit(20s, &code)) {
        code = -1;
    }
    if (output) {
        *output = tool.Output();
    }
    return code;
}

std::vector<ListedMonitor> ParseListedMonitors(const std::string& text)
{
    std::vector<ListedMonitor> monitors;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string index;
        std::string name;
        std::string geometry;
        if (!(words >> index >> name >> geometry) || index.empty() || index.back() != ':') {
            continue;
        }
        ListedMonitor monitor;
        // xrandr marks a monitor made from outputs by the server with "+"
        // and the primary one with "*", in that order.
        if (!name.empty() && name[0] == '+') {
            monitor.automatic = true;
            name.erase(0, 1);
        }
        if (!name.empty() && name[0] == '*') {
            monitor.primary = true;
            name.erase(0, 1);
        }
        monitor.name = name;
        if (!ParseGeometry(geometry, &monitor)) {
            continue;
        }
        std::string output;
        while (words >> output) {
            monitor.outputs.push_back(output);
        }
        monitors.push_back(std::move(monitor));
    }
    return monitors;
}

std::string XDisplayTools::MonitorsText()
{
    std::string text;
    Run({"xrandr", "--listmonitors"}, &text);
    return text;
}

std::vector<ListedMonitor> XDisplayTools::ListMonitors()
{
    return ParseListedMonitors(MonitorsText());
}

bool XDisplayTools::FindMonitor(const std::string& name, ListedMonitor* monitor)
{
    for (const auto& listed : ListMonitors()) {
        if (listed.name == name) {
            *monitor = listed;
            return true;
        }
    }
    return false;
}

bool XDisplayTools::SetMonitor(const std::string& name, int x, int y, int width, int height,
                               bool primary)
{
    const std::string geometry = std::to_string(width) + "/" + Millimetres(width) + "x" +
                                 std::to_string(height) + "/" + Millimetres(height) + "+" +
                                 std::to_string(x) + "+" + std::to_string(y);
    // xrandr makes a monitor whose name begins with "*" the primary one.
    return Run({"xrandr", "--setmonitor", (primary ? "*" : "") + name, geometry, "none"}) == 0;
}

bool XDisplayTools::DeleteMonitor(const std::string& name)
{
    return Run({"xrandr", "--delmonitor", name}) == 0;
}

bool XDisplayTools::MoveMonitor(const std::string& name, int x, int y, int width, int height)
{
    return DeleteMonitor(name) && SetMonitor(name, x, y, width, height);
}

bool XDisplayTools::SetScreenSize(int width, int height)
{
    return Run({"xrandr", "--fb", std::to_string(width) + "x" + std::to_string(height)}) == 0;
}

bool XDisplayTools::ScreenSize(int* width, int* height)
{
    // "Screen 0: minimum 1 x 1, current 3200 x 1080, maximum 3200 x 1080"
    std::string text;
    if (Run({"xrandr", "--current"}, &text) != 0) {
        return false;
    }
    const size_t at = text.find("current ");
    return at != std::string::npos &&
           std::sscanf(text.c_str() + at, "current %d x %d", width, height) == 2;
}

bool XDisplayTools::SetOutputSize(int width, int height, int screenWidth, int screenHeight)
{
    std::string text;
    if (Run({"xrandr"}, &text) != 0) {
        return false;
    }
    // The first connected output, "screen" on Xvfb.
    std::string output;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line) && output.empty()) {
        const size_t at = line.find(" connected");
        if (at != std::string::npos) {
            output = line.substr(0, at);
        }
    }
    if (output.empty()) {
        return false;
    }
    // A plain 60 Hz timing; Xvfb shows whatever it is given.
    const std::string mode = std::to_string(width) + "x" + std::to_string(height) + "_test";
    const int htotal = width + 160;
    const int vtotal = height + 30;
    char clock[32];
    std::snprintf(clock, sizeof(clock), "%.2f", htotal * vtotal * 60 / 1e6);
    const auto n = [](int value) { return std::to_string(value); };
    Run({"xrandr", "--newmode", mode, clock, n(width), n(width + 48), n(width + 80), n(htotal),
         n(height), n(height + 3), n(height + 8), n(vtotal)});
    Run({"xrandr", "--addmode", output, mode});
    return Run({"xrandr", "--fb", n(screenWidth) + "x" + n(screenHeight), "--output", output,
                "--mode", mode, "--pos", "0x0"}) == 0;
}

bool XDisplayTools::FindWindow(const std::string& name, WindowGeometry* geometry)
{
    std::string text;
    if (Run({"xwininfo", "-name", name}, &text) != 0) {
        return false;
    }
    geometry->viewable = text.find("Map State: IsViewable") != std::string::npos;
    return ReadField(text, "Absolute upper-left X:", &geometry->x) &&
           ReadField(text, "Absolute upper-left Y:", &geometry->y) &&
           ReadField(text, "Width:", &geometry->width) &&
           ReadField(text, "Height:", &geometry->height);
}

} // namespace velorane::test
