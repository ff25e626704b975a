// Every way the program ends leaves the desktop as it found it: the
// monitor removed and the screen at its old size. And the ways it doesn't
// end: a client that vanishes mid-request.

#include "Tests/VirtualDisplay/VirtualDisplayScene.h"

#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/RawLocalClient.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

using namespace velorane::test;
using namespace std::chrono_literals;
using quorvan::EGroupInformation;
using quorvan::EGroupSevere;
namespace vm = quorvan::velorane::virtualmonitor;

namespace {

constexpr auto kArrival = 15s;
constexpr auto kExit = 15s;

class VirtualDisplayLifecycleTest : public ::testing::Test
{
protected:
    // A 1920 desktop that the monitor grows to 3200, with the monitor on
    // it.
    void StartWithMonitor(const std::vector<std::string>& arguments = {})
    {
        ASSERT_TRUE(m_scene.StartX(3200, 1080));
        ASSERT_TRUE(m_scene.ShowOutputAt1920(false));
        ASSERT_TRUE(m_scene.StartProgram(arguments));
        ASSERT_TRUE(m_scene.CreateMonitor(1280, 720));
        ASSERT_EQ(m_scene.Screen(), (ScreenSize{3200, 1080}));
    }

    // Ended with that code, the monitor gone and the screen back.
    void ExpectEndedCleanly(int expectedCode)
    {
        int code = -1;
        ASSERT_TRUE(m_scene.Program().WaitForExit(kExit, &code)) << m_scene.LogText();
        EXPECT_EQ(code, expectedCode);
        EXPECT_FALSE(m_scene.VirtualMonitor().has_value());
        EXPECT_EQ(m_scene.Monitors().size(), 1u);
        EXPECT_EQ(m_scene.Screen(), (ScreenSize{1920, 1080}));
        EXPECT_EQ(
            m_scene.CountLogEventually(EGroupInformation, "----------------END----------------"),
            1u);
    }

    VirtualDisplayScene m_scene;
};

} // namespace

TEST_F(VirtualDisplayLifecycleTest, QuitProcessAnswersThenRemovesTheMonitorAndEnds)
{
    StartWithMonitor();
    QByteArray request;
    vm::IpcClient::BuildRequestMessage(&request, vm::QuitProcess);
    // The protocol answers QuitProcess with the general failure.
    EXPECT_EQ(m_scene.Exchange(request).toHex().toStdString(), "0000000ba1480180000000");
    ExpectEndedCleanly(0);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation, "Ending: QuitProcess"), 1u);
}

class VirtualDisplaySignalTest : public VirtualDisplayLifecycleTest,
                                 public ::testing::WithParamInterface<int>
{
};

TEST_P(VirtualDisplaySignalTest, RemovesTheMonitorAndEndsIt)
{
    StartWithMonitor();
    ASSERT_EQ(kill(m_scene.Program().Pid(), GetParam()), 0);
    ExpectEndedCleanly(0);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation,
                                         std::string("Received SIG") + sigabbrev_np(GetParam())),
              1u);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation, "Ending: termination signal"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Termination, VirtualDisplaySignalTest,
                         ::testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string("SIG") + sigabbrev_np(info.param);
                         });

// A second termination signal while the first one's clean-up waits on the
// X server (stopped here) ends the program at once: the monitor stays, and
// the next start removes it.
TEST_F(VirtualDisplayLifecycleTest, SecondSignalDuringTheCleanUpEndsItAtOnce)
{
    StartWithMonitor();
    const pid_t server = m_scene.X().Pid();
    ASSERT_GT(server, 0);
    ASSERT_EQ(kill(server, SIGSTOP), 0);
    struct Resume
    {
        pid_t pid;
        ~Resume() { kill(pid, SIGCONT); }
    } resume{server};

    const pid_t program = m_scene.Program().Pid();
    ASSERT_EQ(kill(program, SIGTERM), 0);
    // Logged before the clean-up starts and after the signals are let in.
    ASSERT_EQ(m_scene.CountLogEventually(EGroupInformation, "Ending: termination signal"), 1u)
        << m_scene.LogText();
    ASSERT_EQ(kill(program, SIGTERM), 0);
    int code = -1;
    ASSERT_TRUE(m_scene.Program().WaitForExit(kExit, &code)) << m_scene.LogText();
    EXPECT_EQ(code, 128 + SIGTERM);
    kill(server, SIGCONT);

    EXPECT_TRUE(m_scene.VirtualMonitor().has_value());
    EXPECT_EQ(m_scene.CountLog(EGroupInformation, "----------------END----------------"), 0u);
}

TEST_F(VirtualDisplayLifecycleTest, ClientThatVanishesMidRequestLeavesItServing)
{
    StartWithMonitor();
    {
        // Half a SetResolution, then the client is gone.
        RawLocalClient client(m_scene.SocketPath("VIRTUAL_MONITOR_SERVER"));
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(QByteArray::fromHex("00000010a1440000000400")));
    }
    {
        // A whole request whose answer nobody reads.
        QByteArray request;
        vm::IpcClient::BuildRequestMessage(&request, vm::RequestCalibrate);
        RawLocalClient client(m_scene.SocketPath("VIRTUAL_MONITOR_SERVER"));
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(request));
    }
    // Without -c no relay is tied to the program: it keeps its monitor and
    // answers the next one.
    const Calibration calibration = m_scene.RequestCalibrate();
    EXPECT_TRUE(calibration.found);
    EXPECT_EQ(calibration.rect.x, 1920);
    EXPECT_TRUE(m_scene.Program().Running());
    EXPECT_TRUE(m_scene.VirtualMonitor().has_value());
}

TEST_F(VirtualDisplayLifecycleTest, XServerThatGoesAwayEndsItWithOneLine)
{
    StartWithMonitor();
    const std::string display = m_scene.X().Name();
    m_scene.X().Stop();

    int code = -1;
    ASSERT_TRUE(m_scene.Program().WaitForExit(kExit, &code)) << m_scene.LogText();
    EXPECT_EQ(code, 1);
    EXPECT_EQ(
        m_scene.CountLogEventually(EGroupSevere, "Lost the connection to the X display " + display),
        1u);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation, "Ending: the X display is gone"), 1u);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation, "----------------END----------------"),
              1u);
}

TEST_F(VirtualDisplayLifecycleTest, WithoutAnXDisplayItEndsAtOnceAndSaysSo)
{
    ASSERT_TRUE(m_scene.StartX(1920, 1080));
    ChildProcess program;
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneVirtualDisplay")};
    options.environment = m_scene.Environment();
    options.environment["DISPLAY"] = ":65000";
    options.outputFile = m_scene.Dir().File("nodisplay.out");
    ASSERT_TRUE(program.Start(options));
    int code = -1;
    ASSERT_TRUE(program.WaitForExit(kExit, &code));
    EXPECT_EQ(code, 1);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupSevere,
                                         "Unable to start: unable to open the X display "
                                         "\":65000\""),
              1u);
}

TEST_F(VirtualDisplayLifecycleTest, WithoutRandrItEndsAtOnceAndSaysSo)
{
    PrivateXServer::Options withoutRandr;
    withoutRandr.folder = m_scene.Dir().Path();
    withoutRandr.arguments = {"-extension", "RANDR"};
    PrivateXServer x;
    ASSERT_TRUE(x.Start(withoutRandr));
    ChildProcess program;
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneVirtualDisplay")};
    options.environment = m_scene.Environment();
    options.environment["DISPLAY"] = x.Name();
    // libXrandr leaks its per-display record when the server has no RandR
    // (libXext frees it at XCloseDisplay only when the extension exists):
    // this one run of the program doesn't look for leaks.
    options.environment["ASAN_OPTIONS"] = "detect_leaks=0:abort_on_error=1";
    options.outputFile = m_scene.Dir().File("norandr.out");
    ASSERT_TRUE(program.Start(options));
    int code = -1;
    ASSERT_TRUE(program.WaitForExit(kExit, &code));
    EXPECT_EQ(code, 1);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupSevere, "Unable to start: the X display \"" +
                                                           x.Name() +
                                                           "\" has RandR 0.0, and monitors "
                                                           "need 1.5"),
              1u)
        << program.Output();
}

// The relay's standalone mode: the relay listens on CONFERENCE_SERVER and
// starts the program with -c; the program's connection says it is ready
// for requests, and the relay sends them at once.
TEST_F(VirtualDisplayLifecycleTest, ConferenceModeConnectsWhenReadyAndEndsWithTheRelay)
{
    ASSERT_TRUE(m_scene.StartX(3200, 1080));
    ASSERT_TRUE(m_scene.ShowOutputAt1920(false));
    QLocalServer relay;
    ASSERT_TRUE(relay.listen(QString::fromStdString(m_scene.SocketPath("CONFERENCE_SERVER"))));
    ASSERT_TRUE(m_scene.StartProgram({"-c"}, false));

    ASSERT_TRUE(relay.waitForNewConnection(20000)) << m_scene.Program().Output();
    QLocalSocket* link = relay.nextPendingConnection();
    ASSERT_NE(link, nullptr);
    // No wait for anything else: connected means serving.
    EXPECT_EQ(m_scene.SetResolution(1280, 720), 0);
    EXPECT_EQ(m_scene.CreateConference(1280, 720), 0);
    ASSERT_TRUE(WaitFor([&] { return m_scene.VirtualMonitor().has_value(); }, kArrival));
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation, "Connected to CONFERENCE_SERVER"), 1u);

    // The relay ends (normally or not): its end of the link closes.
    link->abort();
    ExpectEndedCleanly(0);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation,
                                         "CONFERENCE_SERVER closed the link: the relay is gone"),
              1u);
}

TEST_F(VirtualDisplayLifecycleTest, ConferenceModeWithoutTheRelaysServerEnds)
{
    ASSERT_TRUE(m_scene.StartX(3200, 1080));
    ASSERT_TRUE(m_scene.StartProgram({"-c"}, false));
    int code = -1;
    ASSERT_TRUE(m_scene.Program().WaitForExit(kExit, &code)) << m_scene.LogText();
    EXPECT_EQ(code, 1);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation,
                                         "Ending: the relay's server can't be reached"),
              1u);
    EXPECT_NE(m_scene.LogText().find("Unable to connect to CONFERENCE_SERVER: "),
              std::string::npos);
}
