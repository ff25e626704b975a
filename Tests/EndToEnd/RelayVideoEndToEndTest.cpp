// The video path end to end: kyr-sim's H.264, including its broken frames,
// through the real relay's decoder and renderer.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

size_t CountLines(const std::string& log, const std::string& message)
{
    size_t count = 0;
    std::istringstream stream(log);
    std::string line;
    while (std::getline(stream, line)) {
        count += line.find("\t" + message + "\t") != std::string::npos;
    }
    return count;
}

bool HasPrefix(const std::string& log, const std::string& prefix)
{
    return log.find("\t" + prefix) != std::string::npos;
}

std::vector<std::string> Relay(int basePort, const std::vector<std::string>& extra = {})
{
    std::vector<std::string> arguments{"-t",          "-m",
                                       "--kyrIp",     "127.0.0.1",
                                       "--relayPort", std::to_string(basePort),
                                       "--relayPassword", "secret",
                                       "--width",     "640",
                                       "--height",    "360"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}

// Runs the relay against kyr-sim with the given faults for about a second
// and a half of pulled frames, then kills it from the client.
std::string RunWithFaults(const std::vector<std::string>& faults, int* exitCode)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    std::vector<std::string> options{"--password", "secret"};
    options.insert(options.end(), faults.begin(), faults.end());
    EXPECT_TRUE(scene.StartKyr(base, options));
    EXPECT_TRUE(scene.StartClient({"start-scrape", "wait:1500", "kill"}, Relay(base)));
    EXPECT_TRUE(scene.Client().WaitForExit(60s, exitCode)) << scene.Client().Output();
    return scene.LogText();
}

TEST(RelayVideoEndToEndTest, PulledH264IsDecodedInSoftwareWithoutAGpu)
{
    int code = -1;
    const std::string log = RunWithFaults({}, &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(CountLines(log, "VideoDecoder: selected codec: h264"), 1u) << log;
    EXPECT_EQ(CountLines(log, "VideoDecoder: trying to initialize hardware decoder"), 1u);
    EXPECT_EQ(CountLines(log, "VideoDecoder: software decoder initialized"), 1u) << log;
    EXPECT_EQ(log.find("Frame out of order"), std::string::npos);
    EXPECT_TRUE(HasPrefix(log, "----------------END----------------"));
}

TEST(RelayVideoEndToEndTest, SizeChangeRebuildsTheDecoder)
{
    int code = -1;
    const std::string log = RunWithFaults({"--resize-at", "5:320x240"}, &code);
    EXPECT_EQ(code, 0);
    // The first frame makes a decoder; the new size makes a second one.
    EXPECT_EQ(CountLines(log, "VideoDecoder: selected codec: h264"), 2u) << log;
    EXPECT_TRUE(HasPrefix(log, "----------------END----------------"));
}

TEST(RelayVideoEndToEndTest, FrameNumberJumpIsReportedOnceAndDecodingGoesOn)
{
    int code = -1;
    const std::string log = RunWithFaults({"--jump-at", "5"}, &code);
    EXPECT_EQ(code, 0);
    size_t jumps = 0;
    std::istringstream stream(log);
    std::string line;
    while (std::getline(stream, line)) {
        jumps += line.find("\tFrame out of order: previous=[") != std::string::npos;
    }
    EXPECT_EQ(jumps, 1u) << log;
    EXPECT_EQ(CountLines(log, "VideoDecoder: selected codec: h264"), 1u);
}

TEST(RelayVideoEndToEndTest, BrokenFramesNeverEndTheRelay)
{
    for (const auto& fault : std::vector<std::vector<std::string>>{
             {"--oversized-at", "3"},
             {"--truncate-at", "3"},
             {"--truncate-lie-at", "3"},
             {"--filler"},
             {"--frame-bytes", "2000000", "--filler"}}) {
        int code = -1;
        const std::string log = RunWithFaults(fault, &code);
        EXPECT_EQ(code, 0) << fault[0];
        EXPECT_TRUE(HasPrefix(log, "Externally told to quit.")) << fault[0] << "\n" << log;
        EXPECT_TRUE(HasPrefix(log, "----------------END----------------")) << fault[0];
    }
}

TEST(RelayVideoEndToEndTest, ClientFramesTakeOverFromThePull)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartClient(
        {"start-scrape", "wait:500", "pixels-h264:10:320x240", "wait:300", "kill"}, Relay(base)));
    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(60s, &code));
    EXPECT_EQ(code, 0);
    const auto kyr = scene.KyrVideoRecords();
    // StopVideo: video service, command 0xEF34, no payload; sent once.
    const std::string stopVideo = "request 9945febb34ef000000000000";
    // RequestFrame: video service, command 0xD0F9, no payload.
    const std::string requestFrame = "request 9945febbf9d0000000000000";
    EXPECT_EQ(std::count(kyr.begin(), kyr.end(), stopVideo), 1);
    const auto stop = std::find(kyr.begin(), kyr.end(), stopVideo);
    EXPECT_GT(std::count(kyr.begin(), stop, requestFrame), 0);
    // The pull timer stops before the stop command goes out, so no request
    // follows it.
    EXPECT_EQ(std::count(stop, kyr.end(), requestFrame), 0);
    const std::string log = scene.LogText();
    EXPECT_EQ(CountLines(log, "New relay frame source: Client"), 1u) << log;
    // The client's 320x240 stream replaces the decoder made for the Kyr's
    // 640x360. How many more are made depends on the Kyr's answers still on
    // the way when the pull stopped: each one that lands between two client
    // frames switches the size back and forth. The last one is the client's.
    const std::string decoderMade = "\tVideoDecoder: selected codec: h264\t";
    EXPECT_GE(CountLines(log, "VideoDecoder: selected codec: h264"), 2u) << log;
    EXPECT_GT(log.rfind(decoderMade), log.find("\tNew relay frame source: Client\t")) << log;
}

} // namespace
