#pragma once

// The relay without -m on an X server of its own, as on a desktop: a screen
// wider than its one 1920x1080 output at the left, so that the virtual
// monitor VELORANE-2399-160-1902 has room beside it (Xvfb can't grow its
// screen past the size it starts with). What the server shows is read back
// with xrandr, xwininfo and screen-grab, never with our code. The end-to-end
// tests of the relay's display watch share this fixture, whether
// vdisplay-sim or our real virtual display program serves the relay.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/XDisplayTools.h"

#include <QRect>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace velorane::test {

inline constexpr const char* kVirtualMonitor = "VELORANE-2399-160-1902";
inline constexpr const char* kRelayWindow = "Velorane relay e2e";
inline constexpr const char* kInformation = "* Information *";
inline constexpr const char* kWarning = "* Warning     *";
inline constexpr const char* kSevere = "* Severe      *";

class RelayDisplayTest : public ::testing::Test
{
protected:
    // Ends an adopted program that a failed test left behind.
    void TearDown() override;

    // An X server whose screen is screenWidth by 1080 around one 1920x1080
    // output at the left; the scene's processes show their windows there.
    // With growFromOutput the screen starts at the output's size and may
    // grow up to screenWidth.
    void StartDisplay(int screenWidth, bool growFromOutput = false);

    // The window's name and a 1280x720 picture, without -m; withKyr adds
    // the TLS link to kyr-sim on m_base.
    std::vector<std::string> RelayArguments(bool withKyr = true) const;
    bool StartKyr();

    // The log files of one log store, concatenated: the relay's is
    // "VeloraneConference", our program's "VeloraneVirtualDisplay"; both
    // write to the scene's one log folder.
    std::string LogOf(const std::string& store) const;
    // Lines of the relay's log.
    size_t CountLog(const std::string& group, const std::string& message) const;
    bool WaitForLog(const std::string& group, const std::string& message,
                    std::chrono::milliseconds timeout) const;
    // Lines of our program's log, once there (it writes them on a thread
    // of its own, a moment after the event).
    bool WaitForProgramLog(const std::string& group, const std::string& message,
                           std::chrono::milliseconds timeout) const;
    // The relay's log lines from this function.
    size_t CountLogFrom(const std::string& function) const;
    // Lines of the display watch's "Display configuration changed" whose
    // flags read as given, "flags=0x10( kCGDisplayAddFlag)".
    size_t CountReconfigurations(const std::string& flags) const;
    // The display watch has stocked the displays.
    bool WaitForTheWatch() const;
    // The number of displays the watch stocked at its start; -1 before.
    int StockedDisplays() const;

    std::optional<ListedMonitor> VirtualMonitor();
    bool MonitorAt(int x, int y);
    // The relay's window is viewable with exactly this geometry.
    bool WindowAt(const QRect& geometry);
    bool WaitForWindowAt(const QRect& geometry, std::chrono::milliseconds timeout);

    // Our program's monitor stands at monitor, backed by no output.
    void ExpectTheProgramsMonitorAt(const QRect& monitor);
    // The relay tells where the monitor is and its window goes there.
    void ExpectWindowPlacedOn(const QRect& monitor);
    // The area shows kyr-sim's eight colour bars within 30 s.
    void ExpectPictureOn(const QRect& area);
    // Another program moves the monitor away; the relay puts it back at
    // place after its 200 ms delay, and the window stays on it.
    void ExpectMovedAwayMonitorPutBack(const QRect& place);

    // Our virtual display program, as its log names it ("Process id [N]");
    // -1 until it has said so.
    pid_t ProgramPid() const;
    // Makes this process the reaper of orphans, so that the program the
    // relay starts detached can be awaited here once the relay is gone.
    void AdoptDetachedPrograms();
    // The exit code of an adopted program once it has ended; -1 when it
    // didn't within the time.
    int WaitForAdoptedExit(pid_t pid, std::chrono::milliseconds timeout);
    // The process uses next to no processor time for 2 s: whatever it
    // waits for, it doesn't spin.
    void ExpectIdle(pid_t pid);
    // The relay that client-sim started: client-sim's one child.
    pid_t RelayStartedByClient();

    // The display outlives the scene, so that the relay never sees its X
    // server vanish before it has been told to quit.
    PrivateXServer m_display;
    EndToEndScene m_scene;
    std::unique_ptr<XDisplayTools> m_tools;
    int m_base = -1;
    int m_grabs = 0;
    // The program that an adopting test found the relay started.
    pid_t m_adopted = -1;
};

} // namespace velorane::test
