// The driver program's life on a private PipeWire: its options, its two
// nodes as devices, its end on SIGTERM and when PipeWire goes away, and
// the bare PipeWire it can run on without a session manager.

#include "Tests/AudioDriver/DriverWire.h"
#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/AudioDriverScene.h"
#include "Tests/Support/AudioUdpPeer.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";
const std::string kSevere = "* Severe      *";
const std::string kEnd = "----------------END----------------";

int RunDriver(const std::vector<std::string>& arguments, std::string* output)
{
    TempDir dir;
    ChildProcess driver;
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneAudioDriver")};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = {{"XDG_DATA_HOME", dir.File("data")}};
    options.outputFile = dir.File("out");
    int code = -1;
    if (!driver.Start(options) || !driver.WaitForExit(10s, &code)) {
        return -1;
    }
    *output = driver.Output();
    return code;
}

} // namespace

TEST(AudioDriverLifeTest, HelpNamesTheOptionsAndWrongOnesAreRefused)
{
    std::string output;
    EXPECT_EQ(RunDriver({"--help"}, &output), 0);
    for (const char* option :
         {"--base-port", "--latency", "--no-session-manager", "--control-port", "--help"}) {
        EXPECT_NE(output.find(option), std::string::npos) << option << "\n" << output;
    }
    // Base + 8 must be a port.
    EXPECT_NE(RunDriver({"--base-port", "65528"}, &output), 0);
    EXPECT_NE(output.find("--base-port"), std::string::npos) << output;
    EXPECT_NE(RunDriver({"--latency", "abc"}, &output), 0);
    EXPECT_NE(RunDriver({"--no-such-option"}, &output), 0);
}

TEST(AudioDriverLifeTest, WithoutPipeWireItEndsAtOnce)
{
    // Nobody listens in this runtime folder: the driver says so and ends
    // with 1, for its service manager to try again.
    TempDir dir;
    ChildProcess driver;
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneAudioDriver"), "--control-port",
                    std::to_string(FreeUdpPort())};
    options.environment = {{"XDG_RUNTIME_DIR", dir.Path()}, {"XDG_DATA_HOME", dir.File("data")}};
    options.unset = HeadlessPipeWire::Unset();
    options.outputFile = dir.File("out");
    int code = -1;
    ASSERT_TRUE(driver.Start(options));
    ASSERT_TRUE(driver.WaitForExit(10s, &code));
    EXPECT_EQ(code, 1);
    std::string log;
    for (const auto& entry :
         std::filesystem::directory_iterator(dir.File("data/Velorane/Client/Logs"))) {
        log += ReadFile(entry.path().string());
    }
    const auto lines = ParseLogFile(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, kEnd);
    size_t refused = 0;
    for (const auto& line : lines) {
        refused +=
            line.group == kSevere && line.message.rfind("Can't connect to PipeWire: ", 0) == 0;
    }
    EXPECT_EQ(refused, 1u) << log;
}

TEST(AudioDriverLifeTest, NodesAreDevicesOfTheAgreedFormat)
{
    AudioDriverScene scene;
    ASSERT_TRUE(scene.StartPipeWire()) << scene.PipeWire().Error();
    const int control = FreeUdpPort();
    ASSERT_TRUE(scene.StartDriver({"--latency", "1024", "--control-port", std::to_string(control)}))
        << scene.Driver().Output();
    std::string sinks;
    std::string sources;
    ASSERT_TRUE(scene.PipeWire().Run({"pactl", "list", "short", "sinks"}, &sinks));
    ASSERT_TRUE(scene.PipeWire().Run({"pactl", "list", "short", "sources"}, &sources));
    EXPECT_NE(sinks.find("\tvelorane-speaker\tPipeWire\ts16le 2ch 48000Hz\t"), std::string::npos)
        << sinks;
    EXPECT_NE(sources.find("\tvelorane-microphone\tPipeWire\ts16le 2ch 48000Hz\t"),
              std::string::npos)
        << sources;
    ASSERT_TRUE(scene.PipeWire().Run({"pactl", "list", "sinks"}, &sinks));
    ASSERT_TRUE(scene.PipeWire().Run({"pactl", "list", "sources"}, &sources));
    EXPECT_NE(sinks.find("Description: Velorane Speaker\n"), std::string::npos) << sinks;
    EXPECT_NE(sources.find("Description: Velorane Microphone\n"), std::string::npos) << sources;
    std::string dump;
    ASSERT_TRUE(scene.PipeWire().Run({"pw-dump"}, &dump));
    EXPECT_NE(dump.find("\"node.latency\": \"1024/48000\""), std::string::npos);

    const std::string log = scene.DriverLog();
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Nodes \"Velorane Speaker\" and \"Velorane Microphone\" made, cycle "
                            "1024 frames"),
              1u)
        << log;
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Waiting for the relay on 127.0.0.1:" + std::to_string(control)),
              1u);
}

TEST(AudioDriverLifeTest, SigtermEndsItCleanly)
{
    AudioDriverScene scene;
    ASSERT_TRUE(scene.StartPipeWire()) << scene.PipeWire().Error();
    ASSERT_TRUE(scene.StartDriver({"--control-port", std::to_string(FreeUdpPort())}));
    ::kill(scene.Driver().Pid(), SIGTERM);
    int code = -1;
    ASSERT_TRUE(scene.Driver().WaitForExit(10s, &code));
    EXPECT_EQ(code, 0);
    const auto lines = ParseLogFile(scene.DriverLog());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, kEnd);
    EXPECT_EQ(CountLogLines(scene.DriverLog(), kInformation, "Ending on SIGTERM"), 1u);
    // Its devices went with it.
    std::string sinks;
    ASSERT_TRUE(scene.PipeWire().Run({"pactl", "list", "short", "sinks"}, &sinks));
    EXPECT_EQ(sinks.find("velorane-speaker"), std::string::npos) << sinks;
}

TEST(AudioDriverLifeTest, ItEndsWhenPipeWireGoesAway)
{
    AudioDriverScene scene;
    ASSERT_TRUE(scene.StartPipeWire()) << scene.PipeWire().Error();
    ASSERT_TRUE(scene.StartDriver({"--control-port", std::to_string(FreeUdpPort())}));
    ASSERT_TRUE(scene.PipeWire().StopDaemon());
    // It ends by itself, with 1, so that a service manager starts it again.
    int code = -1;
    ASSERT_TRUE(scene.Driver().WaitForExit(10s, &code)) << scene.Driver().Output();
    EXPECT_EQ(code, 1);
    const auto lines = ParseLogFile(scene.DriverLog());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, kEnd);
    size_t gone = 0;
    for (const auto& line : lines) {
        gone += line.group == kSevere && line.message.rfind("Ending: PipeWire went away (", 0) == 0
                    ? 1
                    : 0;
    }
    EXPECT_EQ(gone, 1u) << scene.DriverLog();
}

TEST(AudioDriverLifeTest, WithoutASessionManagerItsPortsAreLinkedByHand)
{
    AudioDriverScene scene;
    ASSERT_TRUE(scene.StartPipeWire(HeadlessPipeWire::Mode::Bare)) << scene.PipeWire().Error();
    const int base = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer relay(base + 8);
    ASSERT_TRUE(relay.Bound());
    ASSERT_TRUE(scene.StartDriver({"--no-session-manager", "--base-port", std::to_string(base),
                                   "--control-port", std::to_string(FreeUdpPort())}))
        << scene.Driver().Output();
    std::string outputs;
    std::string inputs;
    ASSERT_TRUE(WaitFor(
        [&] {
            return scene.PipeWire().Run({"pw-link", "--output"}, &outputs) &&
                   scene.PipeWire().Run({"pw-link", "--input"}, &inputs) &&
                   outputs.find("velorane-microphone:capture_FR") != std::string::npos &&
                   inputs.find("velorane-speaker:playback_FR") != std::string::npos;
        },
        10s))
        << outputs << inputs;
    // The microphone looped into the speaker inside the graph.
    for (const char* channel : {"FL", "FR"}) {
        ASSERT_TRUE(
            scene.PipeWire().Run({"pw-link", std::string("velorane-microphone:capture_") + channel,
                                  std::string("velorane-speaker:playback_") + channel}));
    }
    relay.Drain();
    for (int k = 0; k < 30; ++k) {
        relay.SendTo(base + 7, MicrophoneDatagram(480 * static_cast<uint64_t>(k), 480,
                                                  static_cast<int16_t>(1000 + 100 * k)));
        std::this_thread::sleep_for(10ms);
    }
    const auto received = Collect(relay, 300ms);
    std::vector<int16_t> heard;
    for (const auto& datagram : received) {
        if (datagram[0] == 2) {
            for (const int16_t sample : SpeakerLeft(datagram)) {
                if (sample != 0 && (heard.empty() || heard.back() != sample)) {
                    heard.push_back(sample);
                }
            }
        }
    }
    // What went into the microphone came out of the speaker, in order.
    ASSERT_GE(heard.size(), 20u);
    for (size_t i = 1; i < heard.size(); ++i) {
        EXPECT_EQ(heard[i], heard[i - 1] + 100) << i;
    }
}
