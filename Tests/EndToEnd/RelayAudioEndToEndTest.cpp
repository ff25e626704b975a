// The audio path end to end: driver-sim as the local audio driver, the
// relay, and kyr-sim's audio service, all real processes on real sockets.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/AudioChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";

class RelayAudioEndToEndTest : public ::testing::Test
{
protected:
    bool StartDriver(const std::vector<std::string>& extra)
    {
        ChildProcess::Options options;
        options.argv = {BinaryPath("driver-sim"),
                        "--kyr-port",
                        std::to_string(m_base),
                        "--record",
                        m_driverRecord,
                        "--time-limit",
                        "60"};
        options.argv.insert(options.argv.end(), extra.begin(), extra.end());
        options.environment = m_scene.Environment();
        options.outputFile = m_scene.Dir().File("driver.out");
        return m_driver.Start(options) && m_driver.WaitForOutput("driver-sim: ready", 10s);
    }

    std::vector<std::string> DriverRecords() const { return ReadLines(m_driverRecord); }

    // The Kyr heard AudioStart at the connection and at the driver's first
    // announce, AudioStop once the driver had been silent for 10 s, and
    // AudioStart again when it was back; the relay logged the same.
    void ExpectStoppedOnceAndStartedAgain()
    {
        std::vector<std::string> audio;
        for (const auto& record : m_scene.KyrRecords()) {
            if (record == "audio-start" || record == "audio-stop") {
                audio.push_back(record);
            }
        }
        EXPECT_EQ(audio, (std::vector<std::string>{"audio-start", "audio-start", "audio-stop",
                                                   "audio-start"}));
        const std::string log = m_scene.LogText();
        EXPECT_EQ(CountLogLines(log, kInformation, "Stop Audio"), 1u) << log;
        EXPECT_EQ(CountLogLines(log, kInformation, "Start Audio"), 3u) << log;
    }

    EndToEndScene m_scene;
    int m_base = EndToEndScene::FreeBasePort();
    std::string m_driverRecord = m_scene.Dir().File("driver.rec");
    ChildProcess m_driver;
};

} // namespace

TEST_F(RelayAudioEndToEndTest, SpeakerToneReachesTheKyrAndTheMicrophoneReachesTheDriver)
{
    // The Kyr's clock runs 5 s ahead, and it starts the microphone polling
    // with an answer nobody asked for.
    const std::string speakerWav = m_scene.Dir().File("speaker.wav");
    const std::string micWav = m_scene.Dir().File("mic.wav");
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret", "--clock-ahead", "5000",
                                          "--mic-unsolicited", "500", "--mic-tone", "440",
                                          "--speaker-wav", speakerWav}));
    ASSERT_TRUE(StartDriver({"--tone", "1000", "--tone-seconds", "5", "--announce-interval", "500",
                             "--mic-wav", micWav}));
    ASSERT_TRUE(m_scene.StartClient({"wait:7000", "kill"},
                                    {"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                     std::to_string(m_base), "--relayPassword", "secret"}));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();

    const auto kyr = m_scene.KyrRecords();
    // One AudioStart at the connection and one at the driver's first
    // announce.
    EXPECT_EQ(WithPrefix(kyr, "audio-start").size(), 2u);
    const auto speaker = WithPrefix(kyr, "speaker stamp=");
    // Five seconds of 10 ms packets, less what the start-up cost.
    EXPECT_GE(speaker.size(), 300u) << speaker.size();
    long long frames = 0;
    for (const auto& record : speaker) {
        EXPECT_NE(record.find(" decode=ok"), std::string::npos) << record;
        frames += Field(record, "frames");
    }
    EXPECT_GE(frames, 200LL * 480);
    // Each 102nd packet brings a ping, which the Kyr answers with its clock.
    const auto pings = WithPrefix(kyr, "ping sent=");
    EXPECT_GE(pings.size(), 1u);
    // After a ping the Kyr clock the relay sends runs 5 s ahead of the
    // driver's stamps (both are wall clocks on this machine).
    const std::string& last = speaker.back();
    const long long lag = Field(last, "kyr-now") - Field(last, "stamp");
    EXPECT_GT(lag, 4500) << last;
    EXPECT_LT(lag, 6000) << last;

    const auto driver = DriverRecords();
    EXPECT_GE(WithPrefix(driver, "address 127.0.0.1 " + std::to_string(m_base) + " secret").size(),
              1u);
    const auto microphone = WithPrefix(driver, "mic stamp=");
    // Polled every 18 ms for over four seconds.
    ASSERT_GE(microphone.size(), 50u);
    long long expected = Field(" " + microphone.front(), "stamp");
    for (const auto& record : microphone) {
        EXPECT_EQ(Field(record, "frames"), 864) << record;
        // The Kyr's stamps count frames, and none is lost on the way.
        EXPECT_EQ(Field(record, "stamp"), expected) << record;
        expected += 864;
    }
    ASSERT_TRUE(WaitFor([&] { return !WithPrefix(DriverRecords(), "goodbye").empty(); }, 10s));

    // What the Kyr heard: the 1 kHz tone at the level it was played
    // (amplitude 10000), past Opus' start-up, without a gap.
    const std::vector<int16_t> heard = LeftChannel(speakerWav);
    ASSERT_GE(heard.size(), 48000u * 3);
    EXPECT_NEAR(Frequency(heard, 4800), 1000.0, 2.0);
    EXPECT_NEAR(RmsDb(heard, 4800), 20 * std::log10(10000 / std::sqrt(2.0)), 1.0);
    EXPECT_LE(LongestSilence(heard, 4800), 480u);
    // What the driver got: the Kyr's 440 Hz tone (amplitude 8000).
    ASSERT_TRUE(WaitFor([&] { return LeftChannel(micWav).size() >= 48000u * 2; }, 10s));
    const std::vector<int16_t> microphoneAudio = LeftChannel(micWav);
    EXPECT_NEAR(Frequency(microphoneAudio, 0), 440.0, 2.0);
    EXPECT_NEAR(RmsDb(microphoneAudio, 0), 20 * std::log10(8000 / std::sqrt(2.0)), 1.0);

    const std::string log = m_scene.LogText();
    EXPECT_GE(CountLogLines(log, kInformation, "Start Audio"), 2u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, "Start m_usb_timer"), 1u) << log;
}

TEST_F(RelayAudioEndToEndTest, MalformedDriverDatagramsAndBrokenMicrophoneAnswersAreSurvived)
{
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret", "--mic-unsolicited", "300",
                                          "--mic-fault", "oversized", "--mic-fault-at", "3"}));
    ASSERT_TRUE(StartDriver({"--malformed", "--tone", "440", "--tone-seconds", "2"}));
    ASSERT_TRUE(m_scene.StartClient({"wait:4000", "kill"},
                                    {"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                     std::to_string(m_base), "--relayPassword", "secret"}));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();

    const auto driver = DriverRecords();
    EXPECT_EQ(WithPrefix(driver, "malformed 3790").size(), 1u);
    // The 883-frame answer goes on to the driver whole, its 12-byte header
    // and all, which the driver reads as 884 frames; the others as 864.
    const auto microphone = WithPrefix(driver, "mic stamp=");
    EXPECT_GE(microphone.size(), 20u);
    size_t whole = 0;
    for (const auto& record : microphone) {
        const long long frames = Field(record, "frames");
        EXPECT_TRUE(frames == 864 || frames == 884) << record;
        whole += frames == 884 ? 1 : 0;
    }
    EXPECT_EQ(whole, 1u);
    EXPECT_EQ(WithPrefix(m_scene.KyrRecords(), "mic-fault oversized").size(), 1u);
    // The speaker tone still got through the malformed datagrams.
    EXPECT_GE(WithPrefix(m_scene.KyrRecords(), "speaker stamp=").size(), 100u);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, "* Warning     *", "Unknown command 4"), 1u) << log;
    const auto lines = ParseLogFile(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, "----------------END----------------");
}

TEST_F(RelayAudioEndToEndTest, SilentDriverIsStoppedAfterTenSecondsAndStartedWhenItComesBack)
{
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret"}));
    // Announces stop after 1 s and come back after 13 s.
    ASSERT_TRUE(StartDriver({"--announce-interval", "300", "--announce-pause-at", "1000",
                             "--announce-resume-at", "13000"}));
    ASSERT_TRUE(m_scene.StartClient({"wait:16000", "kill"},
                                    {"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                     std::to_string(m_base), "--relayPassword", "secret"}));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(60s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();

    // At the connection, at the first announce, the stop after 10 s of
    // silence, and the start when the driver is back.
    ExpectStoppedOnceAndStartedAgain();
    ASSERT_TRUE(WaitFor([&] { return !WithPrefix(DriverRecords(), "goodbye").empty(); }, 10s));
}

// driver-sim told on its control pipe to vanish (no announces, no speaker
// data, its ports closed) and, 11.5 s later, to return: the relay stops
// the driver's audio after 10 s and starts it again at the first announce
// of its return. The 1 s tone loops, so speaker audio keeps coming for as
// long as the driver is there.
TEST_F(RelayAudioEndToEndTest, DriverThatVanishesOnItsControlPipeIsStoppedAndStartedWhenItReturns)
{
    const std::string control = m_scene.Dir().File("driver.ctl");
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret"}));
    ASSERT_TRUE(StartDriver({"--control", control, "--announce-interval", "300", "--tone", "1000",
                             "--tone-seconds", "1", "--loop"}));
    ASSERT_TRUE(m_scene.StartClient({"wait:16000", "kill"},
                                    {"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                     std::to_string(m_base), "--relayPassword", "secret"}));
    ASSERT_TRUE(
        WaitFor([this] { return CountRecords(m_scene.KyrRecords(), "audio-start") >= 2; }, 20s));
    std::this_thread::sleep_for(1500ms);
    ASSERT_TRUE(WriteOrder(control, "vanish"));
    std::this_thread::sleep_for(11500ms);
    ASSERT_TRUE(WriteOrder(control, "return"));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(60s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();

    ExpectStoppedOnceAndStartedAgain();
    const auto driver = DriverRecords();
    EXPECT_EQ(CountRecords(driver, "control vanish"), 1u);
    EXPECT_EQ(CountRecords(driver, "control return"), 1u);
    // No end of the tone: it loops.
    EXPECT_EQ(CountRecords(driver, "speaker-end"), 0u);
    // About 1.5 s before the vanish and 3 s after the return, 100 packets a
    // second: well past the 100 of one pass through the tone, and none from
    // the time away (speaker records carry the Kyr's clock of each).
    const auto speaker = WithPrefix(m_scene.KyrRecords(), "speaker stamp=");
    EXPECT_GE(speaker.size(), 200u) << speaker.size();
    EXPECT_LE(speaker.size(), 700u) << speaker.size();
}
