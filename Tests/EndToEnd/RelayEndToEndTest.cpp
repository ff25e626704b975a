// The relay executable from the command line to the Kyr and back, against
// kyr-sim and client-sim.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";
const std::string kWarning = "* Warning     *";
const std::string kSevere = "* Severe      *";

// The quit message: size 8, command 0xFE47, big-endian.
const std::string kQuitMessage = "message 000000080000fe47";
// RequestFrame: video service, command 0xD0F9, no payload (count 0), all
// little-endian.
const std::string kRequestFrame = "request 9945febbf9d0000000000000";
// StartVideo at 1280x720: service, command 0xCD01, count 8, width, height.
const std::string kStartVideo = "request 9945febb01cd00000800000000050000d0020000";
// AudioStart: audio service, command 0x1000A, count 0.
const std::string kAudioStart = "request 1403baea0a00010000000000";
// StopVideo: service, command 0xEF34, count 0.
const std::string kStopVideo = "request 9945febb34ef000000000000";

struct LogLine
{
    std::string group;
    std::string function;
    std::string message;
};

std::vector<LogLine> ParseLog(const std::string& text)
{
    std::vector<LogLine> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        std::vector<std::string> columns;
        size_t start = 0;
        for (;;) {
            const size_t tab = line.find('\t', start);
            columns.push_back(line.substr(start, tab - start));
            if (tab == std::string::npos) {
                break;
            }
            start = tab + 1;
        }
        if (columns.size() == 7) {
            lines.push_back({columns[2], columns[3], columns[4]});
        } else if (columns.size() == 4) {
            lines.push_back({columns[2], "", columns[3]});
        }
    }
    return lines;
}

bool HasLine(const std::string& log, const std::string& group, const std::string& message)
{
    const auto lines = ParseLog(log);
    return std::any_of(lines.begin(), lines.end(),
                       [&](const LogLine& l) { return l.group == group && l.message == message; });
}

size_t CountPrefix(const std::vector<std::string>& records, const std::string& prefix)
{
    return static_cast<size_t>(std::count_if(
        records.begin(), records.end(), [&](const auto& r) { return r.rfind(prefix, 0) == 0; }));
}

std::vector<std::string> TcpRelayArguments(int basePort, const std::string& password = "secret")
{
    return {"-t",
            "-m",
            "--kyrIp",
            "127.0.0.1",
            "--relayPort",
            std::to_string(basePort),
            "--relayPassword",
            password};
}

// Every run starts and ends its log the same way.
void ExpectStartAndEnd(const std::string& log)
{
    const auto lines = ParseLog(log);
    ASSERT_GE(lines.size(), 3u) << log;
    EXPECT_EQ(lines.front().group, kInformation);
    EXPECT_EQ(lines.front().message, "---------------START---------------");
    EXPECT_EQ(lines.front().function, "main");
    EXPECT_EQ(lines[1].function, "main");
    EXPECT_EQ(lines.back().function, "main");
    EXPECT_EQ(lines[1].message.rfind("Velorane Conference Version - ", 0), 0u) << lines[1].message;
    EXPECT_EQ(lines.back().message, "----------------END----------------");
    EXPECT_EQ(lines.back().group, kInformation);
}

TEST(RelayEndToEndTest, HelpExitsBeforeAnyLogFile)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartRelay({"--help"}));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_EQ(code, 0);
    const std::string out = scene.Relay().Output();
    EXPECT_NE(out.find("Velorane Conference"), std::string::npos) << out;
    EXPECT_NE(out.find("-h,--help"), std::string::npos) << out;
    EXPECT_NE(out.find("Print this help message and exit"), std::string::npos) << out;
    EXPECT_NE(out.find("--relayPort UINT"), std::string::npos) << out;
    EXPECT_FALSE(scene.LogFolderExists());
}

TEST(RelayEndToEndTest, BadOptionExitsBeforeAnyLogFile)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartRelay({"--no-such-option"}));
    int code = 0;
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_NE(code, 0);
    EXPECT_NE(scene.Relay().Output().find("--no-such-option"), std::string::npos);
    EXPECT_FALSE(scene.LogFolderExists());
}

TEST(RelayEndToEndTest, PortAbove16BitsIsRefusedByTheParser)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartRelay({"--relayPort", "70000"}));
    int code = 0;
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_NE(code, 0);
    EXPECT_FALSE(scene.LogFolderExists());
}

TEST(RelayEndToEndTest, NegatedFlagWithANumberPast64BitsIsRefusedByTheParser)
{
    // CLI11 lets std::out_of_range out of the negated flags' conversion; the
    // relay still ends with the parser's message and code, not by abort.
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartRelay({"--no-monitor=-5555555555555555555555"}));
    int code = 0;
    ASSERT_TRUE(scene.Relay().WaitForExit(20s, &code));
    EXPECT_NE(code, 0);
    EXPECT_NE(scene.Relay().Output().find("Could not convert: a flag's value is out of range\n"
                                          "Run with --help for more information."),
              std::string::npos)
        << scene.Relay().Output();
    EXPECT_FALSE(scene.LogFolderExists());
}

TEST(RelayEndToEndTest, NoClientEndsTheRelayAfterFiveSeconds)
{
    EndToEndScene scene;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(scene.StartRelay({"-m"}));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(code, 0);
    EXPECT_GE(elapsed, 4500ms);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kWarning, "Skipping Relay communication!")) << log;
    EXPECT_TRUE(
        HasLine(log, kSevere, "Unable to establish IPC communication with the VeloraneClient"))
        << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Externally told to quit.")) << log;
    EXPECT_TRUE(HasLine(log, kWarning, "Skipping creation of virtual monitor!")) << log;
}

TEST(RelayEndToEndTest, StartScrapePullsFramesUntilKill)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"start-scrape", "wait:2000", "kill"}, TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();

    // The audio manager's AudioStart goes out once at the connection, on
    // its own way to the transport; the video requests are the rest.
    EXPECT_EQ(CountPrefix(scene.KyrRecords(), kAudioStart), 1u);
    const auto kyr = scene.KyrVideoRecords();
    ASSERT_GE(kyr.size(), 3u);
    // Length 6, little-endian, then "secret".
    EXPECT_EQ(kyr[0], "password 06000000736563726574");
    EXPECT_EQ(kyr[1], kStartVideo);
    // One request every 66 ms for about two seconds, whatever the answers
    // do: 30 on time. The bounds leave room for a machine so loaded (the
    // sanitizer tree beside other tests) that the GUI thread falls behind.
    const size_t requests = CountPrefix(kyr, kRequestFrame);
    EXPECT_GE(requests, 8u);
    EXPECT_LE(requests, 40u);
    for (size_t i = 2; i < kyr.size(); ++i) {
        EXPECT_TRUE(kyr[i] == kRequestFrame || kyr[i] == "closed") << kyr[i];
    }

    // A kill from the client gets nothing back.
    const auto client = scene.ClientRecords();
    EXPECT_EQ(CountPrefix(client, "message "), 0u);

    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kInformation, "Successful Socket connection to 127.0.0.1")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "IPC communication with VeloraneClient established"));
    EXPECT_TRUE(HasLine(log, kInformation, "New relay frame source: Kyr"));
    EXPECT_TRUE(HasLine(log, kInformation, "Received KillApplication"));
    EXPECT_TRUE(HasLine(log, kInformation, "Externally told to quit."));
    EXPECT_FALSE(HasLine(log, kInformation, "Internally told to quit"));
    // Frames come in order from kyr-sim.
    EXPECT_EQ(log.find("Frame out of order"), std::string::npos);
    // The password never reaches the log.
    EXPECT_EQ(log.find("secret"), std::string::npos);
}

TEST(RelayEndToEndTest, SecondKillCommandEndsTheRelayAlike)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"wait:300", "kill2"}, TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), "message "), 0u);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kInformation, "Received KillApplication"));
    EXPECT_TRUE(HasLine(log, kInformation, "Externally told to quit."));
}

TEST(RelayEndToEndTest, LostClientEndsTheRelayWithNothingSent)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"wait:300", "disconnect"}, TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), "message "), 0u);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kInformation, "IPC Disconnected"));
    EXPECT_TRUE(HasLine(log, kInformation, "Externally told to quit."));
}

TEST(RelayEndToEndTest, KyrClosingTheSocketEndsTheRelayAndTellsTheClient)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret", "--close-after", "3"}));
    ASSERT_TRUE(scene.StartClient({"start-scrape", "wait:20000"}, TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const auto client = scene.ClientRecords();
    EXPECT_EQ(CountPrefix(client, kQuitMessage), 1u);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kSevere, "Socket error 1")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Internally told to quit"));
}

TEST(RelayEndToEndTest, WrongPasswordIsRefusedByClosingAndTheRelayEnds)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "right"}));
    ASSERT_TRUE(
        scene.StartClient({"start-scrape", "wait:20000"}, TcpRelayArguments(base, "wrong")));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const auto kyr = scene.KyrVideoRecords();
    ASSERT_FALSE(kyr.empty());
    EXPECT_EQ(kyr[0], "password 05000000" + Hex("wrong"));
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), kQuitMessage), 1u);
    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kSevere, "Socket error 1")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Internally told to quit"));
}

TEST(RelayEndToEndTest, EmptyPasswordSendsAFourByteFrame)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base));
    ASSERT_TRUE(scene.StartClient({"wait:500", "kill"}, TcpRelayArguments(base, "")));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const auto kyr = scene.KyrVideoRecords();
    ASSERT_FALSE(kyr.empty());
    EXPECT_EQ(kyr[0], "password 00000000");
}

TEST(RelayEndToEndTest, FiveSecondsWithoutAnAnswerEndTheRelay)
{
    // The pull timer restarts the request timer with every request, so the
    // time-out shows once the client takes over the frames: StopVideo is the
    // last request, and the Kyr never answers anything.
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret", "--stall-after", "0"}));
    ASSERT_TRUE(scene.StartClient({"start-scrape", "wait:300", "pixels-frame:0:16", "wait:20000"},
                                  TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const auto kyr = scene.KyrVideoRecords();
    ASSERT_GE(kyr.size(), 3u);
    EXPECT_EQ(kyr[1], kStartVideo);
    EXPECT_EQ(CountPrefix(kyr, kStopVideo), 1u);
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), kQuitMessage), 1u);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kInformation, "New relay frame source: Client"));
    EXPECT_TRUE(HasLine(log, kWarning, "Socket request timed out.")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Internally told to quit"));
}

TEST(RelayEndToEndTest, BasePort65535WrapsToPortTwo)
{
    EndToEndScene scene;
    if (!scene.StartKyr(65535, {"--password", "secret"})) {
        GTEST_SKIP() << "port 2 can't be bound here (not root): " << scene.Kyr().Output();
    }
    ASSERT_TRUE(scene.StartClient({"wait:500", "kill"}, TcpRelayArguments(65535)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const auto kyr = scene.KyrVideoRecords();
    ASSERT_FALSE(kyr.empty());
    EXPECT_EQ(kyr[0], "password 06000000736563726574");
    EXPECT_TRUE(
        HasLine(scene.LogText(), kInformation, "Successful Socket connection to 127.0.0.1"));
}

TEST(RelayEndToEndTest, AddressThatDoesNotParseEndsTheRelay)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartClient(
        {"wait:20000"}, {"-t", "-m", "--kyrIp", "not-an-address", "--relayPort", "1000"}));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), kQuitMessage), 1u);
    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kWarning, "Socket was unable to connect to :1003")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Internally told to quit"));
}

TEST(RelayEndToEndTest, GarbageAndForgedSizesFromTheKyrNeverCrashTheRelay)
{
    for (const auto& fault : std::vector<std::vector<std::string>>{{"--garbage-after", "2"},
                                                                   {"--huge-size"},
                                                                   {"--small-size"},
                                                                   {"--split"},
                                                                   {"--merge"}}) {
        EndToEndScene scene;
        const int base = EndToEndScene::FreeBasePort();
        std::vector<std::string> options{"--password", "secret"};
        options.insert(options.end(), fault.begin(), fault.end());
        ASSERT_TRUE(scene.StartKyr(base, options));
        // A stream that loses its framing ends the relay by itself, and
        // client-sim ends with it, so the long wait costs nothing unless the
        // relay hangs on; the kill is for the faults it survives.
        const bool survived = fault[0] == "--split" || fault[0] == "--merge";
        ASSERT_TRUE(scene.StartClient({"start-scrape", survived ? "wait:800" : "wait:30000", "kill"},
                                      TcpRelayArguments(base)));
        int code = -1;
        ASSERT_TRUE(scene.Client().WaitForExit(60s, &code)) << fault[0];
        EXPECT_EQ(code, 0) << fault[0] << "\n" << scene.Client().Output();
        const std::string log = scene.LogText();
        ExpectStartAndEnd(log);
        if (survived) {
            EXPECT_TRUE(HasLine(log, kInformation, "Externally told to quit.")) << fault[0];
        } else {
            // The stream has lost its framing: sooner or later a size word
            // announces more than the relay can hold, and the link ends as a
            // close would, with the client told.
            const auto lines = ParseLog(log);
            EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                    [](const LogLine& line) {
                                        return line.group == kSevere &&
                                               line.message.rfind("Response of ", 0) == 0 &&
                                               line.message.find(
                                                   " bytes announced, more than 4194304: closing "
                                                   "the link") != std::string::npos;
                                    }),
                      1)
                << fault[0] << log;
            EXPECT_TRUE(HasLine(log, kInformation, "Internally told to quit")) << fault[0];
            EXPECT_EQ(CountPrefix(scene.ClientRecords(), kQuitMessage), 1u) << fault[0];
        }
        if (fault[0] == "--huge-size") {
            EXPECT_TRUE(HasLine(log, kSevere,
                                "Response of 4294967280 bytes announced, more than 4194304: "
                                "closing the link"))
                << log;
        }
        if (fault[0] == "--garbage-after") {
            EXPECT_TRUE(HasLine(log, kSevere, "Response received was too small! bytesReceived=[7]"))
                << log;
        }
        if (fault[0] == "--split" || fault[0] == "--merge") {
            EXPECT_EQ(log.find("Frame out of order"), std::string::npos) << fault[0];
        }
    }
}

TEST(RelayEndToEndTest, ClientMessagesSplitAndMergedAreHandled)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    // StartScrape in two writes; then an unknown command merged with an
    // Error: one message per read, so the Error waits in the buffer and comes
    // out with the next read, which leaves the first kill waiting in turn
    // until the second kill arrives.
    ASSERT_TRUE(scene.StartClient({"split:3", "start-scrape", "wait:300", "merge", "unknown:4660",
                                   "error-to-relay", "wait:300", "kill", "wait:300", "kill"},
                                  TcpRelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kInformation, "New relay frame source: Kyr"));
    EXPECT_TRUE(HasLine(log, kWarning, "Unknown command: 4660")) << log;
    EXPECT_TRUE(HasLine(log, kWarning, "Unknown command: 65104")) << log;
    const auto lines = ParseLog(log);
    const auto kills = std::count_if(lines.begin(), lines.end(), [](const LogLine& l) {
        return l.message == "Received KillApplication";
    });
    EXPECT_EQ(kills, 1);
    // The Error is reported only after the unknown command.
    EXPECT_LT(log.find("Unknown command: 4660"), log.find("Unknown command: 65104"));
    EXPECT_EQ(CountPrefix(scene.KyrRecords(), kStartVideo), 1u);
}

} // namespace

namespace {

// Without the client link (standalone) the relay that loses the Kyr still
// ends by itself: the quit message finds no link, and the quit goes on.
TEST(RelayEndToEndTest, StandaloneRelayLosingTheKyrEndsWithNoClientToTell)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret", "--close-after", "0"}));
    std::vector<std::string> arguments = TcpRelayArguments(base);
    arguments.push_back("-n");
    ASSERT_TRUE(scene.StartRelay(arguments));
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(40s, &code)) << scene.Relay().Output();
    EXPECT_EQ(code, 0) << scene.Relay().Output();
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kWarning, "Skipping IPC communication!")) << log;
    EXPECT_TRUE(HasLine(log, kSevere, "Socket error 1")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Internally told to quit")) << log;
    EXPECT_FALSE(HasLine(log, kInformation, "IPC communication with VeloraneClient established"));
}

// Over USB with no Kyr address the transport's thread never starts: a
// ConnectUsb from the client is queued to it and does nothing.
TEST(RelayEndToEndTest, ConnectUsbWithoutAnAddressDoesNothing)
{
    EndToEndScene scene;
    ASSERT_TRUE(scene.StartClient({"connect-usb", "wait:1000", "kill"}, {"-m"}));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    const std::string log = scene.LogText();
    ExpectStartAndEnd(log);
    EXPECT_TRUE(HasLine(log, kWarning, "Skipping Relay communication!")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Received ConnectUsb")) << log;
    // Connect was never called: it would have named libusb's version.
    EXPECT_EQ(log.find("libusb version"), std::string::npos) << log;
    EXPECT_FALSE(HasLine(log, kInformation, "Start Audio")) << log;
    EXPECT_TRUE(HasLine(log, kInformation, "Externally told to quit.")) << log;
    EXPECT_EQ(CountPrefix(scene.ClientRecords(), "message "), 0u);
}

// An exception other than the parser's isn't caught: it ends the process.
// The one the relay can meet is the audio manager's, when its driver
// socket can't be made (no descriptor left) while the relay starts.
TEST(RelayEndToEndTest, ExceptionOutsideTheParserEndsTheProcess)
{
    EndToEndScene scene;
    scene.RefuseUdpSockets();
    ASSERT_TRUE(scene.StartClient({"wait:20000"}, {"-m"}));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    // client-sim's code for a relay that died by a signal: std::terminate's
    // abort.
    EXPECT_EQ(code, 4) << scene.Client().Output();
    const std::string out = scene.Client().Output();
    EXPECT_NE(out.find("client-sim: relay crashed"), std::string::npos) << out;
    EXPECT_NE(out.find("terminate called after throwing an instance of "
                       "'quorvan::UdpUtilRuntimeError'"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("could not create socket for: \"127.0.0.1:9002\""), std::string::npos)
        << out;
    const std::string log = scene.LogText();
    EXPECT_EQ(log.find("----------------END----------------"), std::string::npos) << log;
}

// A log folder that can't be made (the data folder is a file) stops
// nothing: no log file is written, and the relay runs and ends as usual.
TEST(RelayEndToEndTest, LogFolderThatCantBeMadeDoesNotStopTheRelay)
{
    EndToEndScene scene;
    const std::string blocker = scene.Dir().WriteFile("data-is-a-file", "not a folder\n");
    scene.SetEnvironment("XDG_DATA_HOME", blocker);
    ASSERT_TRUE(scene.StartClient({"start-scrape", "wait:500", "kill"}, {"-m"}));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    EXPECT_EQ(ReadFile(blocker), "not a folder\n");
    EXPECT_FALSE(scene.LogFolderExists());
    const auto client = scene.ClientRecords();
    EXPECT_EQ(CountPrefix(client, "connected"), 1u);
    EXPECT_EQ(CountPrefix(client, "disconnected"), 1u);
    // The lines still reach standard output, down to the end.
    const std::string out = scene.Client().Output();
    EXPECT_NE(out.find("Received KillApplication"), std::string::npos) << out;
    EXPECT_NE(out.find("----------------END----------------"), std::string::npos) << out;
}

} // namespace
