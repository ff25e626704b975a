// The relay window's side of the virtual monitor: the conference monitor it
// owns, brought up by Initialize and down by Terminate, the dormant
// calibration poll, the display watch (on a scripted display platform)
// that tells the window the monitor's place, and where the window goes.

#include "Clients/Conference/ConferenceMonitor.h"
#include "Clients/Conference/DisplayManager.h"
#include "Clients/Conference/RelayConfig.h"
#include "Clients/Conference/RelayWindow.h"
#include "Tests/Relay/FakeDisplayPlatform.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/RawLocalClient.h"
#include "Tests/Support/ScopedEnv.h"
#include "Tests/Support/ScriptedLocalServer.h"
#include "Tests/Support/TempDir.h"

#include <QByteArray>
#include <QTimer>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueWarning;
using quorvan::velorane::relay::ConferenceMonitor;
using quorvan::velorane::relay::RelayConfig;
using quorvan::velorane::relay::RelayWindow;
using namespace std::chrono_literals;

Bytes HexBytes(const char* hex)
{
    const QByteArray bytes = QByteArray::fromHex(hex);
    return Bytes(bytes.begin(), bytes.end());
}

// SetResolution(1280, 720, 250), then CreateConference(1280, 720), each a
// request of its own: size, command, type 0 (request), payload.
std::vector<Bytes> SetUpRequests()
{
    return {HexBytes("00000010a144"
                     "00"
                     "00000500"
                     "000002d0"
                     "fa"),
            HexBytes("0000000fa13d0000000500000002d0")};
}

// DestroyConference: size 7, command 0xA13F, type 0, no payload.
Bytes TakeDownRequest()
{
    return HexBytes("00000007a13f00");
}

class RelayWindowMonitorTest : public ::testing::Test
{
protected:
    RelayWindowMonitorTest() { UnitQtApplication(); }

    // Answers every request with success, DestroyConference with the
    // result given.
    void Serve(uint32_t destroyResult = 0)
    {
        m_server = std::make_unique<ScriptedLocalServer>(
            m_dir.File("VIRTUAL_MONITOR_SERVER"), [destroyResult](int, const Bytes& request) {
                Bytes reply;
                AppendBigEndian32(reply, 11);
                reply.insert(reply.end(), request.begin() + 4, request.begin() + 6);
                reply.push_back(1);
                const bool destroy = request[4] == 0xA1 && request[5] == 0x3F;
                AppendBigEndian32(reply, destroy ? destroyResult : 0);
                return ScriptedReply{reply};
            });
        ASSERT_TRUE(m_server->Listening());
    }

    std::vector<Bytes> Requests() const
    {
        std::vector<Bytes> requests;
        for (const auto& request : m_server->Requests()) {
            requests.push_back(request.bytes);
        }
        return requests;
    }

    // Terminate takes the conference down with one more request, the third.
    void ExpectTakenDown(RelayWindow& window)
    {
        EXPECT_EQ(window.Terminate(), 0);
        EXPECT_FALSE(window.Monitor()->ConferenceCreated());
        ASSERT_EQ(Requests().size(), 3u);
        EXPECT_EQ(Requests()[2], TakeDownRequest());
    }

    std::vector<std::string> WindowMessages()
    {
        std::vector<std::string> messages;
        for (const auto& line : m_log->Lines()) {
            if (line.file == "Clients/Conference/RelayWindow") {
                messages.push_back(line.message);
            }
        }
        return messages;
    }

    static RelayConfig Config(bool useMonitor)
    {
        RelayConfig config;
        config.windowWidth = 1280;
        config.windowHeight = 720;
        config.useMonitor = useMonitor;
        return config;
    }

    // A window whose display watch runs on the scripted displays.
    std::unique_ptr<RelayWindow> MakeWindow(const RelayConfig& config)
    {
        return std::make_unique<RelayWindow>(config, [this] {
            ++m_platformsMade;
            return std::make_unique<FakeDisplayPlatform>(m_displays);
        });
    }

    TempDir m_dir;
    ScopedEnv m_tmpdir{"TMPDIR", m_dir.Path()};
    ScopedLogCapture m_log;
    std::unique_ptr<ScriptedLocalServer> m_server;
    std::shared_ptr<FakeDisplayScript> m_displays = std::make_shared<FakeDisplayScript>();
    int m_platformsMade = 0;
};

TEST_F(RelayWindowMonitorTest, TheWindowOwnsItsMonitorAndAStoppedCalibrationPoll)
{
    RelayWindow window(Config(true));
    ASSERT_NE(window.Monitor(), nullptr);
    EXPECT_EQ(window.Monitor()->parent(), &window);
    EXPECT_EQ(window.CalibrateTimer()->interval(), 2000);
    EXPECT_FALSE(window.CalibrateTimer()->isActive());
    EXPECT_EQ(window.Dimensions(), QRect(QPoint(0, 0), QPoint(-1, -1)));
}

TEST_F(RelayWindowMonitorTest, InitializeBringsTheMonitorUpAndTerminateTakesItDown)
{
    Serve();
    RelayWindow window(Config(true));
    EXPECT_EQ(window.Initialize(), 0);
    EXPECT_TRUE(window.Monitor()->ConferenceCreated());
    EXPECT_EQ(Requests(), SetUpRequests());
    EXPECT_FALSE(window.CalibrateTimer()->isActive());

    ExpectTakenDown(window);
}

TEST_F(RelayWindowMonitorTest, ARefusedTakeDownIsLoggedAndTheShutdownGoesOn)
{
    Serve(0xFFFFFFFEu);
    RelayWindow window(Config(true));
    ASSERT_EQ(window.Initialize(), 0);
    window.CalibrateTimer()->start(60000);
    m_log->Clear();

    EXPECT_EQ(window.Terminate(), 0);
    EXPECT_FALSE(window.CalibrateTimer()->isActive());
    EXPECT_TRUE(window.Monitor()->ConferenceCreated());
    EXPECT_EQ(Requests(), (std::vector<Bytes>{HexBytes("00000010a144"
                                                       "00"
                                                       "00000500"
                                                       "000002d0"
                                                       "fa"),
                                              HexBytes("0000000fa13d0000000500000002d0"),
                                              HexBytes("00000007a13f00")}));
    std::vector<std::string> monitorMessages;
    for (const auto& line : m_log->Lines()) {
        if (line.file == "Clients/Conference/ConferenceMonitor") {
            EXPECT_EQ(line.group, quorvan::EGroupValueSevere);
            monitorMessages.push_back(line.message);
        }
    }
    EXPECT_EQ(monitorMessages,
              (std::vector<std::string>{
                  "RETURN Result: 0xfffffffe - Failed to DestroyConference",
                  "RETURN Result: 0xfffffffe - Failed to destroy Velorane Conference virtual "
                  "monitor"}));
}

TEST_F(RelayWindowMonitorTest, StandaloneListensAndSetsTheMonitorUpWhenTheProcessCallsBack)
{
    Serve();
    RelayConfig config = Config(true);
    config.standalone = true;
    RelayWindow window(config);
    // No display program: the window goes on all the same, with the server
    // listening for a process started otherwise.
    window.Monitor()->SetVirtualDisplayProgram(
        QString::fromStdString(m_dir.File("VeloraneVirtualDisplay")));
    EXPECT_EQ(window.Initialize(), 0);
    EXPECT_TRUE(m_log->Contains(
        quorvan::EGroupValueSevere,
        "RETURN Result: 0x80000000 - Failed to start Velorane Virtual Dislay process"));
    EXPECT_TRUE(window.Monitor()->ServerListening());
    EXPECT_FALSE(window.Monitor()->ConferenceCreated());
    EXPECT_EQ(m_server->Connections(), 0);

    RawLocalClient process(m_dir.File("CONFERENCE_SERVER"));
    ASSERT_TRUE(process.Connected());
    ASSERT_TRUE(WaitUntil([&] { return Requests().size() == 2u; }, 5s));
    EXPECT_EQ(Requests(), SetUpRequests());
    EXPECT_TRUE(window.Monitor()->ConferenceCreated());

    ExpectTakenDown(window);
}

TEST_F(RelayWindowMonitorTest, WithoutTheMonitorNothingIsAskedOfTheVirtualDisplay)
{
    Serve();
    RelayWindow window(Config(false));
    EXPECT_EQ(window.Initialize(), 0);
    EXPECT_EQ(window.Terminate(), 0);
    EXPECT_EQ(m_server->Connections(), 0);
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "Skipping creation of virtual monitor!"));
    EXPECT_EQ(m_log->Count("Terminate not needed"), 0u);
}

TEST_F(RelayWindowMonitorTest, AMissingVirtualDisplayIsLoggedAndTheWindowGoesOn)
{
    RelayWindow window(Config(true));
    EXPECT_EQ(window.Initialize(), 0);
    EXPECT_TRUE(m_log->Contains(quorvan::EGroupValueSevere,
                                "RETURN Result: 0x80000000 - IPC communication not established "
                                "with server name: VIRTUAL_MONITOR_SERVER"));
    EXPECT_FALSE(window.Monitor()->ConferenceCreated());
}

TEST_F(RelayWindowMonitorTest, NewDimensionsAreStoredAndTheMonitorLookedFor)
{
    RelayWindow window(Config(true));
    // The same rectangle as the empty start does nothing at all.
    window.SetDimensions(0, 0, 0, 0);
    EXPECT_TRUE(m_log->Lines().empty());

    window.SetDimensions(10, 20, 1280, 720);
    EXPECT_EQ(window.Dimensions(), QRect(QPoint(10, 20), QPoint(1289, 739)));
    EXPECT_EQ(WindowMessages(),
              (std::vector<std::string>{"Setting dimensions: x=[10] y=[20] w=[1280] h=[720]",
                                        "Failed to find virtual monitor"}));
    EXPECT_TRUE(m_log->Contains(EGroupValueInformation,
                                "Setting dimensions: x=[10] y=[20] w=[1280] h=[720]"));
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "Failed to find virtual monitor"));
    EXPECT_FALSE(window.MonitorLocked());

    m_log->Clear();
    window.SetDimensions(10, 20, 1280, 720);
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(RelayWindowMonitorTest, TheMonitorsUpdateSignalSetsTheDimensions)
{
    RelayWindow window(Config(true));
    Q_EMIT window.Monitor()->SignalUpdateRelayWindow(-1280, 0, 1280, 720);
    EXPECT_EQ(window.Dimensions(), QRect(-1280, 0, 1280, 720));
}

TEST_F(RelayWindowMonitorTest, TheCalibrationPollAsksForTheMonitorsPlaceWhenStarted)
{
    Serve();
    RelayWindow window(Config(true));
    window.CalibrateTimer()->setInterval(10);
    window.CalibrateTimer()->start();
    ASSERT_TRUE(WaitUntil([&] { return !Requests().empty(); }, 5s));
    window.CalibrateTimer()->stop();
    EXPECT_EQ(Requests()[0], HexBytes("00000007a14700"));
}

TEST_F(RelayWindowMonitorTest, InitializeStartsTheDisplayWatchAfterTheMonitorRequests)
{
    Serve();
    m_displays->displays = {PlainDisplay(3, 0)};
    auto window = MakeWindow(Config(true));
    EXPECT_EQ(window->Displays(), nullptr);
    ASSERT_EQ(window->Initialize(), 0);
    ASSERT_NE(window->Displays(), nullptr);
    EXPECT_EQ(m_platformsMade, 1);
    // Stocked before the monitor exists, then hooked.
    EXPECT_EQ(window->Displays()->StockedList().size(), 1u);
    EXPECT_EQ(m_displays->callbacks.size(), 1u);
    EXPECT_EQ(m_displays->calls.back(), "Register()");
    EXPECT_TRUE(m_log->Contains(EGroupValueInformation, "Original Main Display id=[0x3]"));
    // The window waits, hidden, for the monitor.
    EXPECT_FALSE(window->isVisible());
    ExpectTakenDown(*window);
}

TEST_F(RelayWindowMonitorTest, TheMonitorsArrivalPlacesTheWindowOnIt)
{
    Serve();
    m_displays->displays = {PlainDisplay(3, 0)};
    auto window = MakeWindow(Config(true));
    ASSERT_EQ(window->Initialize(), 0);
    m_log->Clear();

    m_displays->displays.push_back(VirtualMonitorDisplay(7, 1920));
    m_displays->Fire(7, 0x10);
    ASSERT_TRUE(WaitUntil([&] { return window->isVisible(); }, 5s));
    EXPECT_EQ(window->Dimensions(), QRect(1920, 0, 1280, 720));
    EXPECT_EQ(window->pos(), QPoint(1920, 0));
    const auto messages = WindowMessages();
    const std::vector<std::string> placed{"DisplayManager done: x=[1920] y=[0] w=[1280] h=[720]",
                                          "Setting dimensions: x=[1920] y=[0] w=[1280] h=[720]"};
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(messages.begin(), messages.begin() + 2), placed);
    EXPECT_EQ(m_log->Count("Failed to find virtual monitor"), 0u);
    EXPECT_TRUE(m_log->Contains(EGroupValueInformation,
                                "DisplayManager done: x=[1920] y=[0] w=[1280] h=[720]"));
    ExpectTakenDown(*window);
}

TEST_F(RelayWindowMonitorTest, TerminateUnhooksAndDropsTheWatchWithWhatItHadScheduled)
{
    Serve();
    m_displays->displays = {PlainDisplay(3, 0), VirtualMonitorDisplay(7, 1920)};
    auto window = MakeWindow(Config(true));
    ASSERT_EQ(window->Initialize(), 0);
    m_displays->Fire(7, 0x2);
    m_log->Clear();
    ExpectTakenDown(*window);
    EXPECT_EQ(window->Displays(), nullptr);
    EXPECT_TRUE(m_displays->callbacks.empty());
    EXPECT_EQ(m_displays->Count("Remove()"), 1u);
    EXPECT_TRUE(m_log->Contains(EGroupValueInformation, " Clear stocked display list"));

    // The change seen just before the end would have been handled now.
    PumpEventsFor(700ms);
    EXPECT_EQ(m_displays->Count("Begin()"), 0u);
    EXPECT_FALSE(window->isVisible());
    EXPECT_EQ(m_log->Count("called HandleConfigureDone callback!"), 0u);
}

TEST_F(RelayWindowMonitorTest, NewDimensionsOnAFoundMonitorMoveAndShowTheWindow)
{
    Serve();
    m_displays->displays = {PlainDisplay(3, 0), VirtualMonitorDisplay(7, 1920)};
    auto window = MakeWindow(Config(true));
    ASSERT_EQ(window->Initialize(), 0);
    m_log->Clear();
    window->SetDimensions(1920, 0, 1280, 720);
    EXPECT_EQ(window->pos(), QPoint(1920, 0));
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(m_log->Count("Failed to find virtual monitor"), 0u);
    // Linux can't capture a display for one program: nothing to lock.
    EXPECT_FALSE(window->MonitorLocked());
    ExpectTakenDown(*window);
}

// No virtual monitor when new dimensions come: the window stays where it
// is, and the next new rectangle looks for the monitor again.
TEST_F(RelayWindowMonitorTest, AMissingMonitorLeavesTheWindowAndTheNextRectangleTriesAgain)
{
    Serve();
    m_displays->displays = {PlainDisplay(3, 0)};
    auto window = MakeWindow(Config(true));
    ASSERT_EQ(window->Initialize(), 0);
    const QPoint before = window->pos();
    m_log->Clear();
    window->SetDimensions(10, 20, 1280, 720);
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "Failed to find virtual monitor"));
    EXPECT_EQ(window->pos(), before);
    EXPECT_FALSE(window->isVisible());

    m_displays->displays.push_back(VirtualMonitorDisplay(7, 1920));
    m_log->Clear();
    window->SetDimensions(1920, 0, 1280, 720);
    EXPECT_EQ(m_log->Count("Failed to find virtual monitor"), 0u);
    EXPECT_EQ(window->pos(), QPoint(1920, 0));
    EXPECT_TRUE(window->isVisible());
    ExpectTakenDown(*window);
}

TEST_F(RelayWindowMonitorTest, WithoutTheMonitorNoDisplayWatchIsMade)
{
    auto window = MakeWindow(Config(false));
    EXPECT_EQ(window->Initialize(), 0);
    EXPECT_EQ(window->Displays(), nullptr);
    EXPECT_EQ(m_platformsMade, 0);
    EXPECT_EQ(m_log->Count("Original Main Display id=[0x0]"), 0u);
    window->SetDimensions(0, 0, 1280, 720);
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "Failed to find virtual monitor"));
    EXPECT_EQ(window->Terminate(), 0);
}

} // namespace
} // namespace velorane::test
