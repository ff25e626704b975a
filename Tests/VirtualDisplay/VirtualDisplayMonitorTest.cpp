// The virtual monitor on a real X server: VeloraneVirtualDisplay as a
// process, driven over its socket as the relay drives it, and what the
// server shows read back with xrandr.

#include "Tests/VirtualDisplay/VirtualDisplayScene.h"

#include "Common/Logger/Src/Logger.h"

#include <gtest/gtest.h>

#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;
using quorvan::EGroupInformation;
using quorvan::EGroupWarning;

namespace {

constexpr auto kArrival = 15s;

// A desktop of one 1920x1080 monitor on a screen that may grow to 3200.
void StartGrowableDesktop(VirtualDisplayScene& scene)
{
    ASSERT_TRUE(scene.StartX(3200, 1080));
    ASSERT_TRUE(scene.ShowOutputAt1920(false));
    ASSERT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
}

bool WaitForMonitor(const VirtualDisplayScene& scene)
{
    return WaitFor([&] { return scene.VirtualMonitor().has_value(); }, kArrival);
}

} // namespace

TEST(VirtualDisplayMonitorTest, CreateConferenceAnswersAtOnceAndTheMonitorArrivesRightOfTheOthers)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    // A long arrival delay, so that "not yet there" can be seen.
    ASSERT_TRUE(scene.StartProgram({"--arrival-delay", "3000"}));

    EXPECT_EQ(scene.SetResolution(1280, 720), 0);
    EXPECT_EQ(scene.CreateConference(1280, 720), 0);
    EXPECT_FALSE(scene.VirtualMonitor().has_value()) << "the monitor came with the reply";

    ASSERT_TRUE(WaitForMonitor(scene)) << scene.Program().Output();
    const ListedMonitor monitor = *scene.VirtualMonitor();
    EXPECT_EQ(monitor.x, 1920);
    EXPECT_EQ(monitor.y, 0);
    EXPECT_EQ(monitor.width, 1280);
    EXPECT_EQ(monitor.height, 720);
    EXPECT_EQ(monitor.outputs, "") << "backed by no output";
    EXPECT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));

    EXPECT_EQ(
        scene.CountLogEventually(EGroupInformation, "SetResolution: 1280x720 (monitor tag 250)"),
        1u);
    const std::string announced =
        "CreateConference: the virtual monitor VELORANE-2399-160-1902 of 1280x720 arrives in "
        "3000 ms";
    const std::string added =
        "Added the virtual monitor VELORANE-2399-160-1902: x=[1920] y=[0] w=[1280] h=[720]";
    ASSERT_TRUE(scene.WaitForLog(EGroupInformation, added, 5s)) << scene.LogText();
    EXPECT_EQ(scene.CountLogEventually(EGroupInformation, announced), 1u);
    EXPECT_EQ(scene.CountLogEventually(
                  EGroupInformation,
                  "Grew the screen from 1920x1080 to 3200x1080 for the virtual monitor"),
              1u);
    // The log's clock is in milliseconds: the arrival is never early.
    const long long announcedAt = scene.LogTimeOf(announced);
    const long long addedAt = scene.LogTimeOf(added);
    ASSERT_GE(announcedAt, 0);
    ASSERT_GE(addedAt, 0);
    EXPECT_GE((addedAt - announcedAt + 86400000) % 86400000, 2999);
}

TEST(VirtualDisplayMonitorTest, WithoutSetResolutionTheMonitorTakesCreateConferencesSize)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram());

    EXPECT_EQ(scene.CreateConference(1024, 600), 0);
    ASSERT_TRUE(WaitForMonitor(scene));
    const ListedMonitor monitor = *scene.VirtualMonitor();
    EXPECT_EQ(monitor.x, 1920);
    EXPECT_EQ(monitor.y, 0);
    EXPECT_EQ(monitor.width, 1024);
    EXPECT_EQ(monitor.height, 600);
    EXPECT_EQ(scene.Screen(), (ScreenSize{2944, 1080}));
}

TEST(VirtualDisplayMonitorTest, ScreenWithRoomToTheRightIsLeftAsItIs)
{
    VirtualDisplayScene scene;
    ASSERT_TRUE(scene.StartX(3200, 1080));
    ASSERT_TRUE(scene.ShowOutputAt1920(true));
    ASSERT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));
    ASSERT_TRUE(scene.StartProgram());

    ASSERT_TRUE(scene.CreateMonitor(1280, 720));
    EXPECT_EQ(scene.VirtualMonitor()->x, 1920);
    EXPECT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));

    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));
    // Lines are written in order: once the removal is in, the screen's
    // line would be too.
    ASSERT_TRUE(scene.WaitForLog(
        EGroupInformation, "DestroyConference: removed the virtual monitor VELORANE-2399-160-1902",
        10s));
    EXPECT_EQ(scene.CountLog(EGroupInformation, "Gave the screen back its size of 1920x1080"), 0u);
}

TEST(VirtualDisplayMonitorTest, SetResolutionResizesTheMonitorWhereItStands)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram());
    ASSERT_TRUE(scene.CreateMonitor(1280, 720));

    EXPECT_EQ(scene.SetResolution(1024, 768), 0);
    ListedMonitor monitor = *scene.VirtualMonitor();
    EXPECT_EQ(monitor.x, 1920);
    EXPECT_EQ(monitor.y, 0);
    EXPECT_EQ(monitor.width, 1024);
    EXPECT_EQ(monitor.height, 768);
    EXPECT_EQ(scene.CountLogEventually(
                  EGroupInformation,
                  "Resized the virtual monitor VELORANE-2399-160-1902: x=[1920] y=[0] "
                  "w=[1024] h=[768]"),
              1u);

    // Moved by someone else (as the relay rearranges the displays): it is
    // resized where it now is.
    int code = -1;
    scene.Xrandr(std::string("--delmonitor ") + kMonitorName, &code);
    ASSERT_EQ(code, 0);
    scene.Xrandr(std::string("--setmonitor ") + kMonitorName + " 1024/271x768/203+2000+100 none",
                 &code);
    ASSERT_EQ(code, 0);
    EXPECT_EQ(scene.SetResolution(800, 600), 0);
    monitor = *scene.VirtualMonitor();
    EXPECT_EQ(monitor.x, 2000);
    EXPECT_EQ(monitor.y, 100);
    EXPECT_EQ(monitor.width, 800);
    EXPECT_EQ(monitor.height, 600);
}

TEST(VirtualDisplayMonitorTest, DestroyConferenceRemovesTheMonitorAndGivesTheScreenBack)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram());
    ASSERT_TRUE(scene.CreateMonitor(1280, 720));
    ASSERT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));

    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Monitors().size(), 1u);
    EXPECT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
    EXPECT_EQ(scene.CountLogEventually(
                  EGroupInformation,
                  "DestroyConference: removed the virtual monitor VELORANE-2399-160-1902"),
              1u);
    EXPECT_EQ(
        scene.CountLogEventually(EGroupInformation, "Gave the screen back its size of 1920x1080"),
        1u);

    // Nothing left to remove is no failure.
    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);
    EXPECT_EQ(scene.CountLogEventually(EGroupInformation,
                                       "DestroyConference: there was no virtual monitor to remove"),
              1u);
    EXPECT_TRUE(scene.Program().Running());
}

// A relay that died leaves the monitor (the program keeps it until told);
// the next relay watches the displays from right after its requests and
// must see the monitor arrive to place its window.
TEST(VirtualDisplayMonitorTest, CreateConferenceWithTheMonitorThereUnplugsItAndItArrivesAgain)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram({"--arrival-delay", "1000"}));
    ASSERT_TRUE(scene.CreateMonitor(1280, 720));
    ASSERT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));

    // The next relay's requests.
    EXPECT_EQ(scene.SetResolution(1280, 720), 0);
    EXPECT_EQ(scene.CreateConference(1280, 720), 0);
    EXPECT_FALSE(scene.VirtualMonitor().has_value()) << "still there after the reply";
    // The screen keeps its size for the monitor's return.
    EXPECT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));

    ASSERT_TRUE(WaitForMonitor(scene)) << scene.LogText();
    const ListedMonitor monitor = *scene.VirtualMonitor();
    EXPECT_EQ(monitor.x, 1920);
    EXPECT_EQ(monitor.y, 0);
    EXPECT_EQ(monitor.width, 1280);
    EXPECT_EQ(monitor.height, 720);
    EXPECT_EQ(scene.CountLogEventually(EGroupInformation,
                                       "CreateConference: unplugged the virtual monitor "
                                       "VELORANE-2399-160-1902 that was there; it arrives again "
                                       "in 1000 ms"),
              1u);
    const std::string added =
        "Added the virtual monitor VELORANE-2399-160-1902: x=[1920] y=[0] w=[1280] h=[720]";
    ASSERT_TRUE(WaitFor([&] { return scene.CountLog(EGroupInformation, added) == 2; }, 10s))
        << scene.LogText();

    // Taken down, the screen still gets its first size back.
    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
}

// The same, but taken down while the monitor is unplugged for its return:
// the screen it grew still goes back to its first size.
TEST(VirtualDisplayMonitorTest, DestroyConferenceWhileTheMonitorIsAwayGivesTheScreenBack)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram({"--arrival-delay", "3000"}));
    ASSERT_TRUE(scene.CreateMonitor(1280, 720));
    ASSERT_EQ(scene.Screen(), (ScreenSize{3200, 1080}));

    EXPECT_EQ(scene.CreateConference(1280, 720), 0);
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);

    EXPECT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
    EXPECT_EQ(scene.Monitors().size(), 1u);
    EXPECT_EQ(scene.CountLogEventually(EGroupInformation,
                                       "DestroyConference: there was no virtual monitor to remove"),
              1u);
    EXPECT_EQ(
        scene.CountLogEventually(EGroupInformation, "Gave the screen back its size of 1920x1080"),
        1u);
    // Nor does the cancelled arrival come later.
    std::this_thread::sleep_for(3500ms);
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
}

TEST(VirtualDisplayMonitorTest, DestroyConferenceBeforeTheArrivalCancelsIt)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram({"--arrival-delay", "1000"}));
    EXPECT_EQ(scene.CreateConference(1280, 720), 0);
    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);

    // Well past the arrival time, the monitor still hasn't come.
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
}

TEST(VirtualDisplayMonitorTest, RequestCalibrateAnswersNotFoundThenFoundWithTheRectangle)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    ASSERT_TRUE(scene.StartProgram());

    Calibration before = scene.RequestCalibrate();
    ASSERT_TRUE(before.parsed);
    EXPECT_EQ(before.result, 0);
    EXPECT_FALSE(before.found);
    EXPECT_EQ(before.reply.toHex().toStdString(),
              "0000000c" // size 12
              "a147"     // RequestCalibrate
              "01"       // reply
              "00000000" // result: the outcome travels in found
              "00");     // not found
    EXPECT_EQ(scene.CountLogEventually(EGroupInformation, "RequestCalibrate: no virtual monitor"),
              1u);

    ASSERT_TRUE(scene.CreateMonitor(1280, 720));
    Calibration after = scene.RequestCalibrate();
    ASSERT_TRUE(after.parsed);
    EXPECT_EQ(after.reply.toHex().toStdString(),
              "0000001c"   // size 28
              "a147"       // RequestCalibrate
              "01"         // reply
              "00000000"   // result
              "01"         // found
              "00000780"   // x 1920
              "00000000"   // y 0
              "00000500"   // width 1280
              "000002d0"); // height 720
    EXPECT_EQ(scene.CountLogEventually(EGroupInformation,
                                       "RequestCalibrate: the virtual monitor is at "
                                       "x=[1920] y=[0] w=[1280] h=[720]"),
              1u);
}

TEST(VirtualDisplayMonitorTest, ScreenThatCannotGrowLeavesNoMonitorAndSaysWhy)
{
    VirtualDisplayScene scene;
    // Xvfb's screen can't grow past the size it started with.
    ASSERT_TRUE(scene.StartX(1920, 1080));
    ASSERT_TRUE(scene.StartProgram());

    EXPECT_EQ(scene.SetResolution(1280, 720), 0);
    EXPECT_EQ(scene.CreateConference(1280, 720), 0);
    ASSERT_TRUE(scene.WaitForLog(
        EGroupWarning,
        "Unable to add the virtual monitor VELORANE-2399-160-1902 of 1280x720 at x=[1920]: the "
        "screen is 1920x1080 and this X server keeps it within 1920x1080",
        kArrival))
        << scene.LogText();
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.Screen(), (ScreenSize{1920, 1080}));
    EXPECT_FALSE(scene.RequestCalibrate().found);
    EXPECT_EQ(scene.Send(quorvan::velorane::virtualmonitor::DestroyConference), 0);
    EXPECT_TRUE(scene.Program().Running());
}

TEST(VirtualDisplayMonitorTest, MonitorLeftByAnEarlierRunIsRemovedAtStart)
{
    VirtualDisplayScene scene;
    StartGrowableDesktop(scene);
    int code = -1;
    scene.Xrandr(std::string("--setmonitor ") + kMonitorName + " 640/169x480/127+0+0 none", &code);
    ASSERT_EQ(code, 0);
    ASSERT_TRUE(scene.VirtualMonitor().has_value());

    ASSERT_TRUE(scene.StartProgram());
    EXPECT_FALSE(scene.VirtualMonitor().has_value());
    EXPECT_EQ(scene.CountLogEventually(EGroupWarning,
                                       "Removed the virtual monitor VELORANE-2399-160-1902 "
                                       "that an earlier run left"),
              1u);
    EXPECT_FALSE(scene.RequestCalibrate().found);
}
