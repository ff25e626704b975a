// The relay's standalone mode with the real program: the relay, started
// with -n from build/bin, starts VeloraneVirtualDisplay beside it with -c,
// sets the monitor up when it calls back, and takes it down at its end.
// The program outlives the relay only for as long as it takes to leave
// the desktop as it found it.

#include "Tests/VirtualDisplay/VirtualDisplayScene.h"

#include "Common/Logger/Src/Logger.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;
using quorvan::EGroupInformation;

namespace {

class RelayStandaloneTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // The relay starts the program detached: when the relay ends, the
        // program becomes this process's child, so its end can be awaited.
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        ASSERT_TRUE(m_scene.StartX(3200, 1080));
        ASSERT_TRUE(m_scene.ShowOutputAt1920(false));

        ChildProcess::Options options;
        options.argv = {BinaryPath("velorane-relay"), "-n", "--width", "1280", "--height", "720"};
        options.environment = m_scene.Environment();
        options.environment["QT_QPA_PLATFORM"] = "xcb";
        options.outputFile = m_scene.Dir().File("relay.out");
        ASSERT_TRUE(m_relay.Start(options));
        ASSERT_TRUE(WaitFor([&] { return m_scene.VirtualMonitor().has_value(); }, 30s))
            << m_relay.Output() << m_scene.LogText();
        // The log is written on its own thread, a moment later.
        ASSERT_TRUE(WaitFor([&] { return (m_programPid = ProgramPid()) > 0; }, 20s))
            << m_scene.LogText();
    }

    void TearDown() override
    {
        m_relay.Kill();
        if (m_programPid > 0 && !m_programEnded) {
            kill(m_programPid, SIGKILL);
            waitpid(m_programPid, nullptr, 0);
        }
    }

    // From the program's "Process id [N]".
    pid_t ProgramPid() const
    {
        static const std::regex kStarted(R"(\tProcess id \[(\d+)\]\t)");
        std::smatch match;
        const std::string log = m_scene.LogText();
        return std::regex_search(log, match, kStarted) ? std::stoi(match[1]) : -1;
    }

    // The program's exit code once it has ended; -1 when it didn't in time.
    int WaitForProgramExit()
    {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            const pid_t done = waitpid(m_programPid, &status, WNOHANG);
            if (done == m_programPid) {
                m_programEnded = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(20ms);
        }
        return -1;
    }

    void ExpectDesktopAsFound()
    {
        EXPECT_FALSE(m_scene.VirtualMonitor().has_value());
        EXPECT_EQ(m_scene.Monitors().size(), 1u);
        EXPECT_EQ(m_scene.Screen(), (ScreenSize{1920, 1080}));
    }

    VirtualDisplayScene m_scene;
    ChildProcess m_relay;
    pid_t m_programPid = -1;
    bool m_programEnded = false;
};

} // namespace

TEST_F(RelayStandaloneTest, TheRelaySetsTheMonitorUpAndTakesItDownAtItsEnd)
{
    const ListedMonitor monitor = *m_scene.VirtualMonitor();
    EXPECT_EQ(monitor.x, 1920);
    EXPECT_EQ(monitor.y, 0);
    EXPECT_EQ(monitor.width, 1280);
    EXPECT_EQ(monitor.height, 720);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation, "Connected to CONFERENCE_SERVER"), 1u);
    EXPECT_EQ(
        m_scene.CountLogEventually(EGroupInformation, "SetResolution: 1280x720 (monitor tag 250)"),
        1u);

    // The relay's ordinary end: DestroyConference, then its server goes.
    ASSERT_EQ(kill(m_relay.Pid(), SIGTERM), 0);
    int relayCode = -1;
    ASSERT_TRUE(m_relay.WaitForExit(20s, &relayCode));
    EXPECT_EQ(relayCode, 0);
    EXPECT_EQ(WaitForProgramExit(), 0) << m_scene.LogText();
    ExpectDesktopAsFound();
    EXPECT_EQ(m_scene.CountLogEventually(
                  EGroupInformation,
                  "DestroyConference: removed the virtual monitor VELORANE-2399-160-1902"),
              1u);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation,
                                         "CONFERENCE_SERVER closed the link: the relay is gone"),
              1u);
}

TEST_F(RelayStandaloneTest, ARelayThatVanishesTakesTheMonitorWithIt)
{
    m_relay.Kill();
    EXPECT_EQ(WaitForProgramExit(), 0) << m_scene.LogText();
    ExpectDesktopAsFound();
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation,
                                         "CONFERENCE_SERVER closed the link: the relay is gone"),
              1u);
}
