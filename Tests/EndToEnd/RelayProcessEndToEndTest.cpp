// The relay as a process among others: where its local sockets live, how
// often a quit is told, what it says without a display, and how it ends on
// SIGTERM and SIGINT. Against kyr-sim, client-sim and vdisplay-sim.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/XDisplayTools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <thread>

#include <xcb/xcb.h>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

const std::string kInformation = "* Information *";
const std::string kSevere = "* Severe      *";

const std::string kQuitLineInternal = "Internally told to quit";
const std::string kQuitLineExternal = "Externally told to quit.";
// The relay's own quit message: size 8, command 0xFE47, big-endian.
const std::string kQuitMessage = "message 000000080000fe47";
// RequestFrame: video service, command 0xD0F9, no payload, little-endian.
const std::string kRequestFrame = "request 9945febbf9d0000000000000";

const std::string kNoDisplayLine =
    "No display: neither DISPLAY nor WAYLAND_DISPLAY is set. The relay needs a graphical "
    "session for its window (or QT_QPA_PLATFORM naming a platform).";

// The log helpers of the harness under the names these tests use.
size_t CountLines(const std::string& log, const std::string& group, const std::string& message)
{
    return CountLogLines(log, group, message);
}

size_t CountPrefix(const std::vector<std::string>& records, const std::string& prefix)
{
    return CountRecords(records, prefix);
}

// The run's log begins with START from main and ends with END from main.
void ExpectStartAndEnd(const std::string& log)
{
    const auto lines = ParseLogFile(log);
    ASSERT_GE(lines.size(), 3u) << log;
    EXPECT_EQ(lines.front().message, "---------------START---------------");
    EXPECT_EQ(lines.front().function, "main");
    EXPECT_EQ(lines.back().message, "----------------END----------------");
    EXPECT_EQ(lines.back().function, "main");
    EXPECT_EQ(lines.back().group, kInformation);
}

template <typename Predicate> bool WaitUntil(Predicate predicate, std::chrono::milliseconds timeout)
{
    return WaitFor(predicate, timeout);
}

bool IsSocket(const std::string& path)
{
    std::error_code error;
    return fs::is_socket(fs::symlink_status(path, error));
}

// Permission bits of a file, without the type.
unsigned Mode(const std::string& path)
{
    struct stat info
    {
    };
    if (::stat(path.c_str(), &info) != 0) {
        return 0xFFFF;
    }
    return static_cast<unsigned>(info.st_mode & 07777);
}

std::vector<std::string> TcpRelayArguments(int basePort)
{
    return {"-t",
            "-m",
            "--kyrIp",
            "127.0.0.1",
            "--relayPort",
            std::to_string(basePort),
            "--relayPassword",
            "secret"};
}

// A runtime folder apart from TMPDIR, private like the session's own.
std::string MakeRuntimeFolder(EndToEndScene& scene)
{
    const std::string folder = scene.Dir().File("run");
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace);
    scene.SetEnvironment("XDG_RUNTIME_DIR", folder);
    return folder;
}

TEST(RelayProcessEndToEndTest, ClientLinkSocketLivesInTheRuntimeFolder)
{
    EndToEndScene scene;
    const std::string runtime = MakeRuntimeFolder(scene);
    ASSERT_TRUE(scene.StartClient({"wait:500", "kill"}, {"-m"}));
    // client-sim holds it where the relay will look, open to its user only.
    const std::string socket = runtime + "/VELORANE_RELAY";
    EXPECT_NE(scene.Client().Output().find("client-sim: listening on " + socket), std::string::npos)
        << scene.Client().Output();
    EXPECT_TRUE(IsSocket(socket));
    EXPECT_EQ(Mode(socket) & 077, 0u) << std::oct << Mode(socket);
    EXPECT_FALSE(fs::exists(scene.Dir().File("tmp/VELORANE_RELAY")));

    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    EXPECT_NE(scene.Client().Output().find("relay exited with code 0"), std::string::npos);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_EQ(CountLines(log, kInformation, "IPC communication with VeloraneClient established"),
              1u)
        << log;
    EXPECT_EQ(CountLines(log, kInformation, "Received KillApplication"), 1u);
}

TEST(RelayProcessEndToEndTest, ClientInTheTemporaryFolderIsNotFoundWhenARuntimeFolderIsSet)
{
    EndToEndScene scene;
    // The client listens in TMPDIR (no runtime folder), the relay looks in
    // its runtime folder: they don't meet, and the relay gives up.
    ASSERT_TRUE(scene.StartClient({"kill"}, {}));
    ASSERT_TRUE(IsSocket(scene.Dir().File("tmp/VELORANE_RELAY")));
    MakeRuntimeFolder(scene);
    ASSERT_TRUE(scene.StartRelay({"-m"}));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_EQ(
        CountLines(log, kSevere, "Unable to establish IPC communication with the VeloraneClient"),
        1u)
        << log;
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), "connected"), 0u);
}

TEST(RelayProcessEndToEndTest, MonitorSocketsLiveInTheRuntimeFolder)
{
    EndToEndScene scene;
    const std::string runtime = MakeRuntimeFolder(scene);
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    // Standalone: the relay holds CONFERENCE_SERVER and starts the display
    // process, which holds VIRTUAL_MONITOR_SERVER and calls back.
    ASSERT_TRUE(scene.StartStandaloneRelay({"-t", "-n", "--kyrIp", "127.0.0.1", "--relayPort",
                                            std::to_string(base), "--relayPassword", "secret"}));
    const std::string record = scene.Dir().File("vdisplay.rec");
    ASSERT_TRUE(WaitForFileContaining(record, "command 2 CreateConference 1280 720", 20s))
        << ReadFile(record) << scene.Relay().Output();
    const auto records = scene.VirtualDisplayRecords();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0], "listening VIRTUAL_MONITOR_SERVER");

    const std::string conference = runtime + "/CONFERENCE_SERVER";
    EXPECT_TRUE(IsSocket(runtime + "/VIRTUAL_MONITOR_SERVER"));
    EXPECT_TRUE(IsSocket(conference));
    EXPECT_EQ(Mode(conference) & 077, 0u) << std::oct << Mode(conference);
    EXPECT_FALSE(fs::exists(scene.Dir().File("tmp/CONFERENCE_SERVER")));
    EXPECT_FALSE(fs::exists(scene.Dir().File("tmp/VIRTUAL_MONITOR_SERVER")));

    // A stop from the service manager takes the conference down as a kill
    // from the client would.
    ASSERT_EQ(::kill(scene.Relay().Pid(), SIGTERM), 0);
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << scene.Relay().Output();
    ASSERT_TRUE(WaitForFileContaining(record, "command 3 DestroyConference", 10s))
        << ReadFile(record);
    ExpectStartAndEnd(scene.LogText());
}

TEST(RelayProcessEndToEndTest, KillAndLostLinkQueuedTogetherQuitOnce)
{
    EndToEndScene scene;
    // The kill and the end of the link arrive back to back: both reach the
    // main thread queued before the first of them is handled.
    ASSERT_TRUE(scene.StartClient({"wait:300", "merge", "kill", "kill2", "disconnect"}, {"-m"}));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_GE(CountLines(log, kInformation, "Received KillApplication"), 1u) << log;
    EXPECT_EQ(CountLines(log, kInformation, kQuitLineExternal), 1u) << log;
    EXPECT_EQ(CountLines(log, kInformation, kQuitLineInternal), 0u) << log;
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), "message "), 0u);
}

TEST(RelayProcessEndToEndTest, KyrClosingDuringAStreamQuitsOnceAndTellsTheClientOnce)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    // The socket's error and the requests still on their way to a closed
    // socket each report a failure.
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret", "--close-after", "5"}));
    ASSERT_TRUE(scene.StartClient({"start-scrape", "wait:20000"}, TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), kQuitMessage), 1u);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_EQ(CountLines(log, kInformation, kQuitLineInternal), 1u) << log;
    EXPECT_EQ(CountLines(log, kInformation, kQuitLineExternal), 0u) << log;
}

// Asks the top-level window of this name to close, as a window manager's
// close button does: the client message WM_DELETE_WINDOW of WM_PROTOCOLS.
bool AskWindowToClose(XDisplayTools& tools, const std::string& name)
{
    std::string text;
    if (tools.Run({"xwininfo", "-name", name}, &text) != 0) {
        return false;
    }
    const size_t at = text.find("Window id: ");
    if (at == std::string::npos) {
        return false;
    }
    const auto window =
        static_cast<xcb_window_t>(std::strtoul(text.c_str() + at + 11, nullptr, 16));
    xcb_connection_t* connection = xcb_connect(tools.Display().c_str(), nullptr);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        return false;
    }
    const auto atom = [connection](const char* atomName) {
        xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
            connection,
            xcb_intern_atom(connection, 0, static_cast<uint16_t>(std::strlen(atomName)), atomName),
            nullptr);
        const xcb_atom_t value = reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
        std::free(reply);
        return value;
    };
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = atom("WM_PROTOCOLS");
    event.data.data32[0] = atom("WM_DELETE_WINDOW");
    event.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(connection, 0, window, XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<const char*>(&event));
    // A round trip before going: a request still unread when the
    // connection closes is dropped by the server.
    xcb_get_input_focus_reply_t* focus =
        xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr);
    const bool sent = focus != nullptr;
    std::free(focus);
    xcb_disconnect(connection);
    return sent;
}

// The window closed from outside (a window manager's close button): the
// relay ends by itself and tells the client.
TEST(RelayProcessEndToEndTest, ClosingTheWindowEndsTheRelayAndTellsTheClient)
{
    EndToEndScene scene;
    PrivateXServer display;
    PrivateXServer::Options options;
    options.folder = scene.Dir().Path();
    ASSERT_TRUE(display.Start(options)) << "no private X server";
    XDisplayTools tools(display.Name());
    scene.ShowOnDisplay(display.Name());
    const std::string name = "Velorane relay closed";
    ASSERT_TRUE(scene.StartClient({"wait:30000"}, {"-m", "--name", name}));
    WindowGeometry window;
    ASSERT_TRUE(WaitUntil([&] { return tools.FindWindow(name, &window) && window.viewable; }, 20s))
        << scene.LogText();

    ASSERT_TRUE(AskWindowToClose(tools, name));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code)) << scene.LogText();
    EXPECT_EQ(code, 0) << scene.Client().Output();
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_EQ(CountLines(log, kInformation, kQuitLineInternal), 1u) << log;
    EXPECT_EQ(CountLines(log, kInformation, kQuitLineExternal), 0u) << log;
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), kQuitMessage), 1u);
}

// The relay with no display at all: what a service or an SSH shell gives.
ChildProcess::Options WithoutDisplay(EndToEndScene& scene, const std::vector<std::string>& args)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("velorane-relay")};
    options.argv.insert(options.argv.end(), args.begin(), args.end());
    options.environment = scene.Environment();
    options.environment.erase("QT_QPA_PLATFORM");
    options.unset = {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"};
    options.outputFile = scene.Dir().File("relay.out");
    return options;
}

TEST(RelayProcessEndToEndTest, WithoutADisplayTheRelaySaysSoAndEndsWithOne)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartClient({"wait:20000"}, {}));
    ASSERT_TRUE(scene.Relay().Start(WithoutDisplay(scene, {"-m"})));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_EQ(code, 1);
    const std::string out = scene.Relay().Output();
    // Standard error holds the line as it is; the other lines of the output
    // are the log's own copy for a terminal, with their columns.
    std::istringstream stream(out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    EXPECT_EQ(std::count(lines.begin(), lines.end(), kNoDisplayLine), 1) << out;
    EXPECT_EQ(out.find("platform plugin"), std::string::npos) << out;

    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_EQ(CountLines(log, kSevere, kNoDisplayLine), 1u) << log;
    // Nothing else was started: no window, no link to the client.
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), "connected"), 0u);
}

TEST(RelayProcessEndToEndTest, WithoutADisplayHelpAndOptionErrorsStillWork)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.Relay().Start(WithoutDisplay(scene, {"--help"})));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_EQ(code, 0);
    EXPECT_NE(scene.Relay().Output().find("Print this help message and exit"), std::string::npos);

    ASSERT_TRUE(scene.Relay().Start(WithoutDisplay(scene, {"--no-such-option"})));
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_NE(code, 0);
    EXPECT_NE(code, 1) << "the option error, not the display check";
    EXPECT_EQ(scene.Relay().Output().find("No display"), std::string::npos);
    EXPECT_FALSE(scene.LogFolderExists());
}

TEST(RelayProcessEndToEndTest, ExplicitPlatformCountsAsADisplay)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartClient({"wait:500", "kill"}, {}));
    auto options = WithoutDisplay(scene, {"-m"});
    options.environment["QT_QPA_PLATFORM"] = "offscreen";
    options.unset = {"DISPLAY", "WAYLAND_DISPLAY"};
    ASSERT_TRUE(scene.Relay().Start(options));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << scene.Relay().Output();
    EXPECT_EQ(CountLines(scene.LogText(), kSevere, kNoDisplayLine), 0u);
}

struct SignalCase
{
    int number;
    const char* name;
};

// Names the case in test listings by its signal.
void PrintTo(const SignalCase& signalCase, std::ostream* out) { *out << signalCase.name; }

class RelaySignalEndToEndTest : public ::testing::TestWithParam<SignalCase>
{
protected:
    // Waits for the link to the client, sends the signal, and checks the
    // way down: exit code 0, one quit line, END last, nothing to the client.
    void SignalAndExpectOrderlyEnd()
    {
        ASSERT_TRUE(WaitUntil(
            [&] {
                return CountLines(m_scene.LogText(), kInformation,
                                  "IPC communication with VeloraneClient established") == 1;
            },
            20s))
            << m_scene.LogText();
        ASSERT_EQ(::kill(m_scene.Relay().Pid(), GetParam().number), 0);
        int code = -1;
        ASSERT_TRUE(m_scene.Relay().WaitForExit(30s, &code)) << m_scene.Relay().Output();
        EXPECT_EQ(code, 0) << m_scene.Relay().Output();

        const std::string log = m_scene.LogText();
        ExpectStartAndEnd(log);
        EXPECT_EQ(CountLines(log, kInformation, std::string("Received ") + GetParam().name), 1u)
            << log;
        EXPECT_EQ(CountLines(log, kInformation, kQuitLineExternal), 1u) << log;
        EXPECT_EQ(CountLines(log, kInformation, kQuitLineInternal), 0u) << log;
        ASSERT_TRUE(WaitUntil(
            [&] { return CountPrefix(m_scene.ClientRecords(), "disconnected") == 1; }, 10s));
        EXPECT_EQ(CountPrefix(m_scene.ClientRecords(), "message "), 0u);
    }

    EndToEndScene m_scene;
};

TEST_P(RelaySignalEndToEndTest, EndsTheIdleRelayLikeAKillFromTheClient)
{
    ASSERT_TRUE(m_scene.StartClient({"wait:30000"}, {}));
    ASSERT_TRUE(m_scene.StartRelay({"-m"}));
    SignalAndExpectOrderlyEnd();
}

TEST_P(RelaySignalEndToEndTest, EndsTheStreamingRelayLikeAKillFromTheClient)
{
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(m_scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:30000"}, {}));
    ASSERT_TRUE(m_scene.StartRelay(TcpRelayArguments(base)));
    // A stream runs: frames are being pulled over TLS.
    ASSERT_TRUE(
        WaitUntil([&] { return CountPrefix(m_scene.KyrRecords(), kRequestFrame) >= 5; }, 20s))
        << m_scene.Relay().Output();
    SignalAndExpectOrderlyEnd();
    // The Kyr saw the link end after the last request, from the relay.
    ASSERT_TRUE(WaitUntil(
        [&] { return !m_scene.KyrRecords().empty() && m_scene.KyrRecords().back() == "closed"; },
        10s));
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLines(log, kInformation, "New relay frame source: Kyr"), 1u) << log;
}

INSTANTIATE_TEST_SUITE_P(TerminationSignals, RelaySignalEndToEndTest,
                         ::testing::Values(SignalCase{SIGTERM, "SIGTERM"},
                                           SignalCase{SIGINT, "SIGINT"}),
                         [](const ::testing::TestParamInfo<SignalCase>& info) {
                             return std::string(info.param.name);
                         });

} // namespace
