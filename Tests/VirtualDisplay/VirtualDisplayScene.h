#pragma once

// One scene for the virtual display program: a private folder (runtime
// folder for the local sockets, data folder for the logs), a private Xvfb,
// the program as a real process, and the relay's side of the protocol
// through the virtual monitor IpcClient in blocking mode, as the relay
// sends it. What the X server shows is read with xrandr, not with our code.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ScopedEnv.h"
#include "Tests/Support/TempDir.h"
#include "Tests/Support/PrivateXServer.h"

#include "Common/VirtualMonitor/Src/Command.h"
#include "Common/VirtualMonitor/Src/VmRect.h"

#include <QByteArray>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velorane::test {

constexpr const char* kMonitorName = "VELORANE-2399-160-1902";

// One line of `xrandr --listmonitors`.
struct ListedMonitor
{
    std::string name;
    int width = 0;
    int height = 0;
    int mmWidth = 0;
    int mmHeight = 0;
    int x = 0;
    int y = 0;
    // The outputs named at the end of the line; empty for none.
    std::string outputs;
};

struct ScreenSize
{
    int width = 0;
    int height = 0;
    bool operator==(const ScreenSize& other) const
    {
        return width == other.width && height == other.height;
    }
};

// What a RequestCalibrate reply said.
struct Calibration
{
    bool parsed = false;
    int result = -1;
    bool found = false;
    quorvan::velorane::virtualmonitor::tVmRect rect;
    QByteArray reply;
};

class VirtualDisplayScene
{
public:
    VirtualDisplayScene();
    ~VirtualDisplayScene();

    // The X server, width by height, its output showing all of it.
    bool StartX(int width, int height);
    PrivateXServer& X() { return m_x; }
    // Puts the output on a 1920x1080 mode, as a desktop of one 1920 monitor
    // has. With keepScreen the screen keeps its size, leaving room to the
    // right; else it shrinks to the output and may grow again up to the
    // size the server started with.
    bool ShowOutputAt1920(bool keepScreen);
    // Runs xrandr with these arguments on the scene's display; its output.
    std::string Xrandr(const std::string& arguments, int* exitCode = nullptr) const;
    std::vector<ListedMonitor> Monitors() const;
    std::optional<ListedMonitor> VirtualMonitor() const;
    ScreenSize Screen() const;

    // Starts VeloraneVirtualDisplay and, unless told otherwise, waits until
    // it serves its socket.
    bool StartProgram(const std::vector<std::string>& arguments = {}, bool waitUntilServing = true);
    ChildProcess& Program() { return m_program; }
    std::map<std::string, std::string> Environment() const;
    std::string RuntimeFolder() const { return m_dir.File("run"); }
    std::string SocketPath(const std::string& name) const { return RuntimeFolder() + "/" + name; }

    // The program's log files, concatenated; with another name, the files
    // of that log store (the relay's is "VeloraneConference").
    std::string LogText(const std::string& storeName = "VeloraneVirtualDisplay") const;
    size_t CountLog(const std::string& group, const std::string& message) const;
    // The same once at least one such line is in, or 10 s have passed: the
    // program writes its log on a thread of its own, a moment after the
    // event.
    size_t CountLogEventually(const std::string& group, const std::string& message) const;
    bool WaitForLog(const std::string& group, const std::string& message,
                    std::chrono::milliseconds timeout) const;
    // The local time of the first line with this message, in ms of the day;
    // -1 when there is none.
    long long LogTimeOf(const std::string& message) const;

    // One request on a connection of its own, as the relay sends them; the
    // whole reply, empty when there was none.
    QByteArray Exchange(const QByteArray& request) const;
    // The reply's result; 1 when no reply could be parsed.
    int Send(quorvan::velorane::virtualmonitor::Command command) const;
    int SetResolution(int width, int height) const;
    int CreateConference(int width, int height) const;
    Calibration RequestCalibrate() const;
    // SetResolution and CreateConference of that size, as the relay sends
    // them, then a wait for the monitor's arrival. False when either was
    // refused or the monitor didn't come.
    bool CreateMonitor(int width, int height) const;

    TempDir& Dir() { return m_dir; }

private:
    TempDir m_dir;
    ScopedEnv m_runtime;
    PrivateXServer m_x;
    ChildProcess m_program;
};

} // namespace velorane::test
