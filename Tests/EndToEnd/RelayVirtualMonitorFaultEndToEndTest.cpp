// Faults on the road of the virtual monitor, with the real executables on an
// X server of the test's own: our virtual display program killed while the
// relay runs, and the display arrangement changed under the relay by
// another program (a monitor added, removed, laid over the virtual one or
// taking its place, the virtual monitor made primary). The relay logs what
// it sees, doesn't end or spin, and its window stays on the virtual
// monitor, or where it was when it can't follow it.
//
// The relay runs without the Kyr here: nothing but the display watch keeps
// it busy. Its log limits each site to a few lines in five seconds, so each
// test makes only a change or two.

#include "Tests/EndToEnd/RelayDisplayTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const QRect kMonitor(1920, 0, 1280, 720);
// Another monitor a person or a desktop tool sets.
const std::string kOther = "OTHER";

class RelayVirtualMonitorFaultEndToEndTest : public RelayDisplayTest
{
protected:
    // The relay, started by client-sim, has its window on the program's
    // monitor right of the output. The screen is screenWidth wide.
    void StartOnTheProgramsMonitor(int screenWidth)
    {
        ASSERT_NO_FATAL_FAILURE(StartDisplay(screenWidth));
        ASSERT_TRUE(m_scene.StartVirtualDisplayProgram()) << m_scene.VirtualDisplay().Output();
        ASSERT_TRUE(m_scene.StartClient({"wait:60000", "kill"}, RelayArguments(false)));
        ASSERT_NO_FATAL_FAILURE(ExpectTheProgramsMonitorAt(kMonitor));
        ASSERT_NO_FATAL_FAILURE(ExpectWindowPlacedOn(kMonitor));
        m_relay = RelayStartedByClient();
        ASSERT_GT(m_relay, 0);
    }

    // How often the window was told to go somewhere new.
    size_t WindowMoves() const { return CountLogFrom("SetDimensions"); }

    // Nothing moves for a while, and the window is still at window.
    void ExpectSettledWithTheWindowAt(const QRect& window)
    {
        const std::string before = m_tools->MonitorsText();
        const size_t moves = WindowMoves();
        std::this_thread::sleep_for(1500ms);
        EXPECT_EQ(m_tools->MonitorsText(), before);
        EXPECT_EQ(WindowMoves(), moves) << m_scene.LogText();
        EXPECT_TRUE(WindowAt(window)) << m_tools->MonitorsText();
    }

    // The relay has logged the change with these flags (count times in
    // all); then nothing moves, and the virtual monitor and the window on
    // it stay right of the output.
    void ExpectHeardAndLeftInPlace(const std::string& flags, size_t count)
    {
        EXPECT_TRUE(WaitFor([&] { return CountReconfigurations(flags) == count; }, 10s))
            << m_scene.LogText();
        ExpectSettledWithTheWindowAt(kMonitor);
        EXPECT_TRUE(MonitorAt(1920, 0)) << m_tools->MonitorsText();
    }

    bool OtherAt(int x, int y)
    {
        ListedMonitor other;
        return m_tools->FindMonitor(kOther, &other) && other.x == x && other.y == y;
    }

    // The client goes and the relay ends as always.
    void ExpectTheRelayEnds()
    {
        m_scene.Client().Kill();
        ASSERT_TRUE(WaitForLog(kInformation, "----------------END----------------", 30s))
            << m_scene.LogText();
    }

    pid_t m_relay = -1;
};

TEST_F(RelayVirtualMonitorFaultEndToEndTest, AKilledProgramLeavesTheWindowWhereItWas)
{
    ASSERT_NO_FATAL_FAILURE(StartOnTheProgramsMonitor(3200));
    kill(m_scene.VirtualDisplay().Pid(), SIGKILL);
    ASSERT_TRUE(m_scene.VirtualDisplay().WaitForExit(10s));

    // Nobody took the monitor down: X keeps it, and the window stays on it.
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(MonitorAt(1920, 0)) << m_tools->MonitorsText();
    EXPECT_TRUE(WindowAt(kMonitor));
    ExpectIdle(m_relay);

    // The relay learns of it at its end, when the program can't take the
    // monitor down, and ends all the same.
    ASSERT_NO_FATAL_FAILURE(ExpectTheRelayEnds());
    EXPECT_EQ(CountLog(kSevere, "RETURN Result: 0x80000000 - IPC communication not established "
                                "with server name: VIRTUAL_MONITOR_SERVER"),
              1u)
        << m_scene.LogText();
    EXPECT_EQ(CountLog(kSevere, "RETURN Result: 0x80000000 - Failed to destroy Velorane "
                                "Conference virtual monitor"),
              1u);

    // The program's next start takes the monitor it left away.
    ASSERT_TRUE(m_scene.StartVirtualDisplayProgram());
    EXPECT_TRUE(WaitFor([&] { return !VirtualMonitor().has_value(); }, 20s))
        << m_tools->MonitorsText();
    EXPECT_TRUE(WaitForProgramLog(
        kWarning, "Removed the virtual monitor VELORANE-2399-160-1902 that an earlier run left",
        10s));
}

TEST_F(RelayVirtualMonitorFaultEndToEndTest, AKilledStandaloneProgramLeavesTheRelayRunning)
{
    ASSERT_NO_FATAL_FAILURE(AdoptDetachedPrograms());
    ASSERT_NO_FATAL_FAILURE(StartDisplay(3200));
    auto arguments = RelayArguments(false);
    arguments.push_back("-n");
    ASSERT_TRUE(m_scene.StartRelay(arguments));
    ASSERT_NO_FATAL_FAILURE(ExpectTheProgramsMonitorAt(kMonitor));
    ASSERT_TRUE(WaitFor([&] { return (m_adopted = ProgramPid()) > 0; }, 10s)) << m_scene.LogText();
    ASSERT_NO_FATAL_FAILURE(ExpectWindowPlacedOn(kMonitor));

    kill(m_adopted, SIGKILL);
    EXPECT_EQ(WaitForAdoptedExit(m_adopted, 10s), 128 + SIGKILL);
    m_adopted = -1;
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(m_scene.Relay().Running());
    EXPECT_TRUE(WindowAt(kMonitor));
    ExpectIdle(m_scene.Relay().Pid());

    // Told to end, the relay can't have the monitor taken down, says so and
    // ends as always.
    ASSERT_EQ(kill(m_scene.Relay().Pid(), SIGTERM), 0);
    int code = -1;
    ASSERT_TRUE(m_scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << m_scene.Relay().Output();
    EXPECT_EQ(CountLog(kSevere, "RETURN Result: 0x80000000 - Failed to destroy Velorane "
                                "Conference virtual monitor"),
              1u)
        << m_scene.LogText();
    EXPECT_TRUE(MonitorAt(1920, 0));
}

TEST_F(RelayVirtualMonitorFaultEndToEndTest, AMonitorAddedAndRemovedIsLoggedAndLeavesTheWindow)
{
    ASSERT_NO_FATAL_FAILURE(StartOnTheProgramsMonitor(4480));
    ASSERT_TRUE(m_tools->SetMonitor(kOther, 3200, 0, 1280, 720));
    // Heard like the virtual monitor's own arrival; the arrangement it asks
    // for moves nothing.
    ExpectHeardAndLeftInPlace("flags=0x10( kCGDisplayAddFlag)", 2);
    ASSERT_TRUE(m_tools->DeleteMonitor(kOther));
    ExpectHeardAndLeftInPlace("flags=0x20( kCGDisplayRemoveFlag)", 1);
    ASSERT_NO_FATAL_FAILURE(ExpectTheRelayEnds());
}

TEST_F(RelayVirtualMonitorFaultEndToEndTest, AMonitorLaidOverTheVirtualOneIsUnMirroredAway)
{
    ASSERT_NO_FATAL_FAILURE(StartOnTheProgramsMonitor(4480));
    // The newer of two monitors on one rectangle is the copy.
    ASSERT_TRUE(m_tools->SetMonitor(kOther, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitFor([&] { return OtherAt(3200, 0); }, 10s)) << m_tools->MonitorsText();
    ExpectHeardAndLeftInPlace("flags=0x410( kCGDisplayAddFlag kCGDisplayMirrorFlag)", 1);
    ASSERT_NO_FATAL_FAILURE(ExpectTheRelayEnds());
}

// The virtual monitor is moved away and, before the relay puts it back,
// another monitor of its size takes its place.
TEST_F(RelayVirtualMonitorFaultEndToEndTest, AMonitorInTheVirtualOnesPlaceLeavesItRightOfThem)
{
    ASSERT_NO_FATAL_FAILURE(StartOnTheProgramsMonitor(4480));
    ASSERT_TRUE(m_tools->MoveMonitor(kVirtualMonitor, 3200, 0, 1280, 720));
    ASSERT_TRUE(m_tools->SetMonitor(kOther, 1920, 0, 1280, 720));

    // Whichever came first, the two end side by side, the virtual monitor
    // right of the other, with the window on it, and stay so.
    const QRect right(3200, 0, 1280, 720);
    ASSERT_TRUE(WaitFor([&] { return MonitorAt(3200, 0) && WindowAt(right); }, 10s))
        << m_tools->MonitorsText() << m_scene.LogText();
    ExpectSettledWithTheWindowAt(right);
    EXPECT_TRUE(MonitorAt(3200, 0)) << m_tools->MonitorsText();
    EXPECT_TRUE(OtherAt(1920, 0));
    ExpectIdle(m_relay);
    ASSERT_NO_FATAL_FAILURE(ExpectTheRelayEnds());
}

TEST_F(RelayVirtualMonitorFaultEndToEndTest, AVirtualMonitorMadePrimaryIsPutBackButNotFollowed)
{
    ASSERT_NO_FATAL_FAILURE(StartOnTheProgramsMonitor(3200));
    const size_t reports = CountLogFrom("OnDisplayConfigurationDone");
    // Another program makes it the primary monitor, somewhere else.
    ASSERT_TRUE(m_tools->DeleteMonitor(kVirtualMonitor));
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 0, 360, 1280, 720, true));

    // Put back right of the output, still primary; the window, told
    // nothing, stays where it was, which is there.
    ASSERT_TRUE(WaitFor([&] { return MonitorAt(1920, 0); }, 10s)) << m_tools->MonitorsText();
    ExpectSettledWithTheWindowAt(kMonitor);
    EXPECT_TRUE(VirtualMonitor()->primary);
    EXPECT_EQ(CountLogFrom("OnDisplayConfigurationDone"), reports) << m_scene.LogText();
    EXPECT_GE(CountReconfigurations("flags=0x14( kCGDisplaySetMainFlag kCGDisplayAddFlag)") +
                  CountReconfigurations("flags=0x6( kCGDisplayMovedFlag kCGDisplaySetMainFlag)"),
              1u)
        << m_scene.LogText();
    ASSERT_NO_FATAL_FAILURE(ExpectTheRelayEnds());
}

} // namespace
