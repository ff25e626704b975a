// The relay without -m on an X server of its own, as on a desktop: the
// screen is 3200x1080 around one 1920x1080 output, vdisplay-sim answers the
// set-up requests, and the test sets the virtual monitor
// VELORANE-2399-160-1902 right of the output as our virtual display program
// does, after the replies. The relay's display watch finds it, the window
// goes onto it and shows the picture, and when the monitor is moved away
// the relay puts it back 200 ms later with the window still on it.

#include "Tests/EndToEnd/RelayDisplayTest.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const QRect kMonitor(1920, 0, 1280, 720);

class RelayDisplayEndToEndTest : public RelayDisplayTest
{
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(StartDisplay(3200)); }

    // The relay has made its display watch: the monitor can come.
    void StartRelayAndWaitForTheWatch()
    {
        ASSERT_TRUE(m_scene.StartVirtualDisplay());
        ASSERT_TRUE(StartKyr());
        ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:60000", "kill"}, RelayArguments()));
        ASSERT_TRUE(WaitForTheWatch()) << m_scene.LogText();
    }
};

TEST_F(RelayDisplayEndToEndTest, TheWindowGoesOntoTheMonitorAndStaysWhenItIsMovedAway)
{
    ASSERT_NO_FATAL_FAILURE(StartRelayAndWaitForTheWatch());
    // Hidden until the monitor is there.
    WindowGeometry window;
    EXPECT_FALSE(m_tools->FindWindow(kRelayWindow, &window) && window.viewable);

    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_NO_FATAL_FAILURE(ExpectWindowPlacedOn(kMonitor));
    // The window shows kyr-sim's picture on the monitor's area.
    ExpectPictureOn(kMonitor);
    // Moved away by another program, the monitor is put back right of the
    // output, where the window still is.
    ASSERT_NO_FATAL_FAILURE(ExpectMovedAwayMonitorPutBack(kMonitor));

    // A monitor that goes leaves the window where it was.
    ASSERT_TRUE(m_tools->DeleteMonitor(kVirtualMonitor));
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(WindowAt(kMonitor));
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
    ASSERT_TRUE(StartKyr());
    auto arguments = RelayArguments();
    arguments.push_back("-n");
    ASSERT_TRUE(m_scene.StartStandaloneRelay(arguments));
    // The display process is started, calls back and is asked for the
    // conference; the watch was made before any of that.
    const std::string record = m_scene.Dir().File("vdisplay.rec");
    ASSERT_TRUE(WaitForFileContaining(record, "command 2 CreateConference 1280 720", 30s))
        << m_scene.Relay().Output();
    ASSERT_TRUE(WaitForTheWatch()) << m_scene.LogText();

    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_NO_FATAL_FAILURE(ExpectWindowPlacedOn(kMonitor));

    // The relay ends with the Kyr and takes the conference down.
    m_scene.Kyr().Kill();
    int code = -1;
    ASSERT_TRUE(m_scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << m_scene.Relay().Output();
    ASSERT_TRUE(WaitForFileContaining(record, "command 3 DestroyConference", 10s))
        << ReadFile(record);
}

} // namespace
