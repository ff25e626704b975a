// The whole road with the real executables: the relay without -m, our
// virtual display program VeloraneVirtualDisplay and kyr-sim over TLS, on
// an X server of the test's own. The program adds the monitor
// VELORANE-2399-160-1902 right of the output a moment after its reply; the
// relay's display watch, made right after the requests, sees it arrive and
// puts the window on it, where the picture shows. Moved away by another
// program, the monitor is put back, and at the relay's end it is gone.
// The same in standalone mode, where the relay starts the program itself.

#include "Tests/EndToEnd/RelayDisplayTest.h"

#include <gtest/gtest.h>

#include <string>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const QRect kMonitor(1920, 0, 1280, 720);

class RelayVirtualMonitorEndToEndTest : public RelayDisplayTest
{
protected:
    // The watch stocked the output alone and heard the monitor arrive.
    void ExpectTheArrivalWasHeard()
    {
        EXPECT_EQ(StockedDisplays(), 1) << m_scene.LogText();
        EXPECT_EQ(CountReconfigurations("flags=0x10( kCGDisplayAddFlag)"), 1u) << m_scene.LogText();
    }
};

TEST_F(RelayVirtualMonitorEndToEndTest, TheProgramsMonitorCarriesTheWindowAndThePicture)
{
    ASSERT_NO_FATAL_FAILURE(StartDisplay(3200));
    ASSERT_TRUE(m_scene.StartVirtualDisplayProgram()) << m_scene.VirtualDisplay().Output();
    ASSERT_TRUE(StartKyr());
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:60000", "kill"}, RelayArguments()));

    ASSERT_NO_FATAL_FAILURE(ExpectTheProgramsMonitorAt(kMonitor));
    ASSERT_NO_FATAL_FAILURE(ExpectWindowPlacedOn(kMonitor));
    ExpectTheArrivalWasHeard();
    ExpectPictureOn(kMonitor);
    ASSERT_NO_FATAL_FAILURE(ExpectMovedAwayMonitorPutBack(kMonitor));

    // The client goes, the relay quits and asks the program to take the
    // monitor down; the program stays for the next relay.
    m_scene.Client().Kill();
    ASSERT_TRUE(WaitFor([&] { return !VirtualMonitor().has_value(); }, 30s))
        << m_tools->MonitorsText();
    EXPECT_TRUE(WaitForProgramLog(
        kInformation, "DestroyConference: removed the virtual monitor VELORANE-2399-160-1902",
        10s));
    EXPECT_EQ(m_tools->ListMonitors().size(), 1u);
    EXPECT_TRUE(m_scene.VirtualDisplay().Running());
}

TEST_F(RelayVirtualMonitorEndToEndTest, StandaloneStartsTheProgramAndItsMonitorCarriesTheWindow)
{
    ASSERT_NO_FATAL_FAILURE(AdoptDetachedPrograms());
    // The screen starts at the output's size: the program grows it for the
    // monitor and gives it back at the end.
    ASSERT_NO_FATAL_FAILURE(StartDisplay(3200, true));
    ASSERT_TRUE(StartKyr());
    auto arguments = RelayArguments();
    arguments.push_back("-n");
    ASSERT_TRUE(m_scene.StartRelay(arguments));

    ASSERT_NO_FATAL_FAILURE(ExpectTheProgramsMonitorAt(kMonitor));
    ASSERT_TRUE(WaitFor([&] { return (m_adopted = ProgramPid()) > 0; }, 10s)) << m_scene.LogText();
    int width = 0;
    int height = 0;
    ASSERT_TRUE(m_tools->ScreenSize(&width, &height));
    EXPECT_EQ(width, 3200);
    ASSERT_NO_FATAL_FAILURE(ExpectWindowPlacedOn(kMonitor));
    ExpectTheArrivalWasHeard();
    ASSERT_NO_FATAL_FAILURE(ExpectMovedAwayMonitorPutBack(kMonitor));

    // The relay ends with the Kyr; the program takes the monitor down and
    // ends with it.
    m_scene.Kyr().Kill();
    int code = -1;
    ASSERT_TRUE(m_scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << m_scene.Relay().Output();
    EXPECT_EQ(WaitForAdoptedExit(m_adopted, 20s), 0) << m_scene.LogText();
    m_adopted = -1;
    EXPECT_FALSE(VirtualMonitor().has_value()) << m_tools->MonitorsText();
    EXPECT_EQ(m_tools->ListMonitors().size(), 1u);
    ASSERT_TRUE(m_tools->ScreenSize(&width, &height));
    EXPECT_EQ(width, 1920);
    EXPECT_TRUE(WaitForProgramLog(kInformation, "Gave the screen back its size of 1920x1080", 10s));
}

} // namespace
