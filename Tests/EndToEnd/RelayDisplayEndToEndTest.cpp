// The relay without -m on an X server of its own, as on a desktop: the
// screen is 3200x1080 around one 1920x1080 output, vdisplay-sim answers the
// set-up requests, and the test sets the virtual monitor
// VELORANE-2399-160-1902 right of the output as our virtual display program
// does, after the replies. The relay's display watch finds it, the window
// goes onto it and shows the picture, and when the monitor is moved away
// the relay puts it back 200 ms later with the window still on it.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/EndToEnd/ScreenCheck.h"
#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/XDisplayTools.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kVirtualMonitor = "VELORANE-2399-160-1902";
const std::string kWindowName = "Velorane relay e2e";
const std::string kInformation = "* Information *";

std::vector<std::string> RelayArguments(int basePort)
{
    return {"-t",
            "--kyrIp",
            "127.0.0.1",
            "--relayPort",
            std::to_string(basePort),
            "--relayPassword",
            "secret",
            "--width",
            "1280",
            "--height",
            "720",
            "--name",
            kWindowName};
}

class RelayDisplayEndToEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(
            m_display.Start(PrivateXServer::WithRoomBesideOutput(m_scene.Dir().Path(), 3200)))
            << "no private X server";
        m_tools = std::make_unique<XDisplayTools>(m_display.Name());
        m_scene.ShowOnDisplay(m_display.Name());
        m_base = EndToEndScene::FreeBasePort();
    }

    bool WaitForLogLine(const std::string& message, std::chrono::seconds timeout)
    {
        return WaitFor([&] { return CountLogLines(m_scene.LogText(), kInformation, message) > 0; },
                       timeout);
    }

    // The relay's display watch has stocked the displays.
    bool WaitForTheWatch()
    {
        return WaitFor(
            [&] {
                return m_scene.LogText().find("\tOriginal Main Display id=[0x") !=
                       std::string::npos;
            },
            30s);
    }

    bool MonitorAt(int x, int y)
    {
        ListedMonitor monitor;
        return m_tools->FindMonitor(kVirtualMonitor, &monitor) && monitor.x == x && monitor.y == y;
    }

    bool WindowAt(int x, int y, int width, int height)
    {
        WindowGeometry window;
        return m_tools->FindWindow(kWindowName, &window) && window.viewable && window.x == x &&
               window.y == y && window.width == width && window.height == height;
    }

    // The relay has made its display watch: the monitor can come.
    void StartRelayAndWaitForTheWatch()
    {
        ASSERT_TRUE(m_scene.StartVirtualDisplay());
        ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret"}));
        ASSERT_TRUE(
            m_scene.StartClient({"start-scrape", "wait:60000", "kill"}, RelayArguments(m_base)));
        ASSERT_TRUE(WaitForTheWatch()) << m_scene.LogText();
    }

    // The display outlives the scene, so that the relay never sees its X
    // server vanish before it has been told to quit.
    PrivateXServer m_display;
    EndToEndScene m_scene;
    std::unique_ptr<XDisplayTools> m_tools;
    int m_base = -1;
};

TEST_F(RelayDisplayEndToEndTest, TheWindowGoesOntoTheMonitorAndStaysWhenItIsMovedAway)
{
    StartRelayAndWaitForTheWatch();
    // Hidden until the monitor is there.
    WindowGeometry window;
    EXPECT_FALSE(m_tools->FindWindow(kWindowName, &window) && window.viewable);

    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitForLogLine("DisplayManager done: x=[1920] y=[0] w=[1280] h=[720]", 30s))
        << m_scene.LogText();
    ASSERT_TRUE(WaitFor([&] { return WindowAt(1920, 0, 1280, 720); }, 20s))
        << m_tools->MonitorsText();

    // The window shows kyr-sim's picture on the monitor's area.
    int grabs = 0;
    int bars = 0;
    WaitFor(
        [&] {
            const QRect monitor(1920, 0, 1280, 720);
            const QImage area =
                GrabArea(m_display.Name(), monitor,
                         m_scene.Dir().File("grab" + std::to_string(grabs++) + ".png"));
            bars = BarsShown(area, QRect(QPoint(0, 0), monitor.size()));
            return bars == 8;
        },
        30s);
    EXPECT_EQ(bars, 8) << m_scene.LogText();

    // Moved away by another program, the monitor is put back right of the
    // output, where the window still is.
    ASSERT_TRUE(m_tools->MoveMonitor(kVirtualMonitor, 0, 360, 1280, 720));
    const auto moved = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor([&] { return MonitorAt(1920, 0); }, 20s)) << m_tools->MonitorsText();
    // Not before the relay's 200 ms delay, less what listing takes.
    EXPECT_GE(std::chrono::steady_clock::now() - moved, 150ms);
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(MonitorAt(1920, 0)) << m_tools->MonitorsText();
    EXPECT_TRUE(WindowAt(1920, 0, 1280, 720));
    EXPECT_EQ(CountLogLines(m_scene.LogText(), "* Warning     *", "Failed to find virtual monitor"),
              0u);

    // A monitor that goes leaves the window where it was.
    ASSERT_TRUE(m_tools->DeleteMonitor(kVirtualMonitor));
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(WindowAt(1920, 0, 1280, 720));
    EXPECT_TRUE(m_scene.Client().Running());

    // The client goes: the relay quits and takes the conference down.
    m_scene.Client().Kill();
    ASSERT_TRUE(WaitFor(
        [&] {
            const auto records = m_scene.VirtualDisplayRecords();
            return CountRecords(records, "command 3 DestroyConference") == 1;
        },
        30s))
        << ::testing::PrintToString(m_scene.VirtualDisplayRecords());
}

TEST_F(RelayDisplayEndToEndTest, StandaloneWatchesFromTheStartAndFollowsTheMonitor)
{
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret"}));
    auto arguments = RelayArguments(m_base);
    arguments.push_back("-n");
    ASSERT_TRUE(m_scene.StartStandaloneRelay(arguments));
    // The display process is started, calls back and is asked for the
    // conference; the watch was made before any of that.
    const std::string record = m_scene.Dir().File("vdisplay.rec");
    ASSERT_TRUE(WaitForFileContaining(record, "command 2 CreateConference 1280 720", 30s))
        << m_scene.Relay().Output();
    ASSERT_TRUE(WaitForTheWatch()) << m_scene.LogText();

    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitForLogLine("DisplayManager done: x=[1920] y=[0] w=[1280] h=[720]", 30s))
        << m_scene.LogText();
    ASSERT_TRUE(WaitFor([&] { return WindowAt(1920, 0, 1280, 720); }, 20s));

    // The relay ends with the Kyr and takes the conference down.
    m_scene.Kyr().Kill();
    int code = -1;
    ASSERT_TRUE(m_scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << m_scene.Relay().Output();
    ASSERT_TRUE(WaitForFileContaining(record, "command 3 DestroyConference", 10s))
        << ReadFile(record);
}

} // namespace
