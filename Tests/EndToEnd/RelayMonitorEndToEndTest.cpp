// The relay executable and the virtual display process, vdisplay-sim, as
// real processes: the set-up dialogue at start, the take-down at quit,
// standalone mode's start and call back, and a display process that is
// missing, hung or answers half.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sstream>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kSevere = "* Severe      *";
const std::string kWarning = "* Warning     *";

// Whether a line of the log has this group and exactly this message.
bool HasLine(const std::string& log, const std::string& group, const std::string& message)
{
    std::istringstream stream(log);
    std::string line;
    while (std::getline(stream, line)) {
        if (line.find("\t" + group + "\t") != std::string::npos &&
            line.find("\t" + message + "\t") != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> WithPrefix(const std::vector<std::string>& records,
                                    const std::string& prefix)
{
    std::vector<std::string> found;
    std::copy_if(records.begin(), records.end(), std::back_inserter(found),
                 [&](const std::string& record) { return record.rfind(prefix, 0) == 0; });
    return found;
}

size_t IndexOf(const std::vector<std::string>& records, const std::string& record)
{
    return static_cast<size_t>(std::find(records.begin(), records.end(), record) - records.begin());
}

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
            "1920",
            "--height",
            "1080"};
}

const std::string kSetResolutionRequest = "request 1 00000010a144000000078000000438fa";

bool EndsWithEnd(const std::string& log)
{
    return log.find("----------------END----------------") != std::string::npos;
}

TEST(RelayMonitorEndToEndTest, StartUpSetsTheMonitorUpAndQuitTakesItDown)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartVirtualDisplay({"--exit-after-destroy"}));
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"wait:1500", "kill"}, RelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    ASSERT_TRUE(scene.VirtualDisplay().WaitForExit(20s, &code));
    EXPECT_EQ(code, 0);

    const auto records = scene.VirtualDisplayRecords();
    // The configured size with the tag 250, then the conference always at
    // 1280 by 720, then its end: one connection each.
    EXPECT_EQ(WithPrefix(records, "command "),
              (std::vector<std::string>{"command 1 SetResolution 1920 1080 250",
                                        "command 2 CreateConference 1280 720",
                                        "command 3 DestroyConference"}))
        << ::testing::PrintToString(records);
    EXPECT_EQ(
        WithPrefix(records, "request "),
        (std::vector<std::string>{kSetResolutionRequest, "request 2 0000000fa13d0000000500000002d0",
                                  "request 3 00000007a13f00"}));
    // Each exchange ended its connection (the display process may see the
    // next connection before the end of the last).
    EXPECT_LT(IndexOf(records, "closed 1"), records.size());
    EXPECT_LT(IndexOf(records, "closed 2"), records.size());
    EXPECT_EQ(records.back(), "exit destroy");

    const std::string log = scene.LogText();
    EXPECT_TRUE(EndsWithEnd(log));
    EXPECT_EQ(log.find("IPC communication not established"), std::string::npos) << log;
    EXPECT_EQ(log.find("Skipping creation of virtual monitor!"), std::string::npos);
}

TEST(RelayMonitorEndToEndTest, WithoutTheDisplayProcessTheRelayLogsAndGoesOn)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"start-scrape", "wait:2500", "kill"}, RelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kSevere,
                        "RETURN Result: 0x80000000 - IPC communication not established with "
                        "server name: VIRTUAL_MONITOR_SERVER"))
        << log;
    EXPECT_TRUE(
        HasLine(log, kSevere, "RETURN Result: 0x80000000 - Failed to initialize: set resolution"));
    // The relay went on: frames were pulled and the quit ran to its end.
    EXPECT_GE(WithPrefix(scene.KyrRecords(), "request 9945febbf9d0").size(), 5u);
    EXPECT_TRUE(EndsWithEnd(log));
}

TEST(RelayMonitorEndToEndTest, AHungDisplayProcessCostsTheReplyTimeOutOnly)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartVirtualDisplay({"--silent", "SetResolution"}));
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(scene.StartClient({"wait:6500", "kill"}, RelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kWarning, "IpcClient timed out waiting for reply")) << log;
    EXPECT_TRUE(HasLine(log, kSevere, "RETURN Result: 0x80000000 - Unable to send IPC command"));
    EXPECT_TRUE(
        HasLine(log, kSevere, "RETURN Result: 0x80000000 - Failed to initialize: set resolution"));
    // No conference, so nothing to take down.
    const auto records = scene.VirtualDisplayRecords();
    EXPECT_EQ(WithPrefix(records, "command "),
              std::vector<std::string>{"command 1 SetResolution 1920 1080 250"});
    EXPECT_TRUE(EndsWithEnd(log));
}

TEST(RelayMonitorEndToEndTest, ARefusedResolutionStopsTheSetUpAndNothingIsTakenDown)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartVirtualDisplay({"--result", "SetResolution=-3"}));
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"wait:1500", "kill"}, RelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);

    // The request of the example and its refusal, byte for byte; no
    // CreateConference, and at the quit no DestroyConference.
    const auto records = scene.VirtualDisplayRecords();
    EXPECT_EQ(WithPrefix(records, "request "), std::vector<std::string>{kSetResolutionRequest})
        << ::testing::PrintToString(records);
    EXPECT_EQ(WithPrefix(records, "reply "),
              std::vector<std::string>{"reply 1 0000000ba14401fffffffd"});
    EXPECT_EQ(WithPrefix(records, "command "),
              std::vector<std::string>{"command 1 SetResolution 1920 1080 250"});

    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kSevere, "RETURN Result: 0xfffffffd - Failed to SetResolution"))
        << log;
    EXPECT_TRUE(
        HasLine(log, kSevere, "RETURN Result: 0xfffffffd - Failed to initialize: set resolution"));
    EXPECT_EQ(log.find("CreateConference"), std::string::npos);
    EXPECT_EQ(log.find("Failed to destroy"), std::string::npos);
    EXPECT_TRUE(EndsWithEnd(log));
}

TEST(RelayMonitorEndToEndTest, AReplyCutShortFailsTheConferenceWithTheSecondTimeOut)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartVirtualDisplay({"--cut", "CreateConference=5"}));
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient({"wait:6500", "kill"}, RelayArguments(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kWarning, "IpcClint timed out waiting for reply from server")) << log;
    EXPECT_TRUE(HasLine(log, kSevere,
                        "RETURN Result: 0x80000000 - Failed to initialize: create conference"));
    const auto records = scene.VirtualDisplayRecords();
    EXPECT_EQ(WithPrefix(records, "command "),
              (std::vector<std::string>{"command 1 SetResolution 1920 1080 250",
                                        "command 2 CreateConference 1280 720"}));
    EXPECT_EQ(WithPrefix(records, "cut ").size(), 1u);
    EXPECT_TRUE(EndsWithEnd(log));
}

TEST(RelayMonitorEndToEndTest, StandaloneStartsTheDisplayProcessAndSetsUpWhenItCallsBack)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    auto arguments = RelayArguments(base);
    arguments.push_back("-n");
    ASSERT_TRUE(scene.StartStandaloneRelay(arguments));
    const std::string record = scene.Dir().File("vdisplay.rec");
    ASSERT_TRUE(WaitForFileContaining(record, "command 2 CreateConference 1280 720", 20s))
        << ReadFile(record) << scene.Relay().Output();

    const auto records = scene.VirtualDisplayRecords();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0], "listening VIRTUAL_MONITOR_SERVER");
    EXPECT_LT(IndexOf(records, "conference connected CONFERENCE_SERVER"), records.size());
    EXPECT_EQ(WithPrefix(records, "request 1 "), std::vector<std::string>{kSetResolutionRequest});

    // The relay ends when the Kyr goes; the conference goes with it, and
    // the display process, which outlived nothing here, ends by its rule.
    scene.Kyr().Kill();
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << scene.Relay().Output();
    ASSERT_TRUE(WaitForFileContaining(record, "exit destroy", 10s)) << ReadFile(record);
    EXPECT_EQ(WithPrefix(scene.VirtualDisplayRecords(), "command "),
              (std::vector<std::string>{"command 1 SetResolution 1920 1080 250",
                                        "command 2 CreateConference 1280 720",
                                        "command 3 DestroyConference"}));
    const std::string log = scene.LogText();
    EXPECT_TRUE(HasLine(log, kWarning, "Skipping IPC communication!")) << log;
    EXPECT_TRUE(EndsWithEnd(log));
}

TEST(RelayMonitorEndToEndTest, NoMonitorAsksNothingOfTheDisplayProcess)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartVirtualDisplay());
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    auto arguments = RelayArguments(base);
    arguments.push_back("-m");
    ASSERT_TRUE(scene.StartClient({"wait:1000", "kill"}, arguments));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(WithPrefix(scene.VirtualDisplayRecords(), "open ").empty());
    EXPECT_TRUE(HasLine(scene.LogText(), kWarning, "Skipping creation of virtual monitor!"));
}

} // namespace
