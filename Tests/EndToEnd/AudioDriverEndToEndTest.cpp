// The whole audio chain with real processes: paplay into "Velorane Speaker"
// -> VeloraneAudioDriver -> the relay (over TLS) -> kyr-sim, which decodes
// what it heard; and kyr-sim's microphone tone -> the relay -> the driver
// -> parec from "Velorane Microphone". The driver runs on a private
// headless PipeWire and finds the relay however it comes and goes.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/AudioChecks.h"
#include "Tests/Support/AudioDriverScene.h"
#include "Tests/Support/PrivateNetwork.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";

std::vector<std::string> RelayArguments(int base)
{
    return {"-t",
            "-m",
            "--kyrIp",
            "127.0.0.1",
            "--relayPort",
            std::to_string(base),
            "--relayPassword",
            "secret"};
}

// The 1 kHz tone at amplitude 10000, as kyr-sim decoded it in one
// connection: past Opus' start-up, at its level, without a gap. Its
// frequency is taken a quarter second at a time: on a loaded machine the
// graph may drop a whole cycle of what paplay plays, which shifts the
// tone's phase once but not its pitch.
void ExpectTone(const std::vector<int16_t>& decoded, const std::string& what)
{
    const std::vector<int16_t> heard = Audible(decoded);
    ASSERT_GE(heard.size(), 48000u) << what;
    EXPECT_NEAR(MedianFrequency(heard, 4800), 1000.0, 2.0) << what;
    EXPECT_NEAR(RmsDb(heard, 4800), 20 * std::log10(10000 / std::sqrt(2.0)), 1.0) << what;
    EXPECT_LE(LongestSilence(heard, 4800), 480u) << what;
}

// What kyr-sim decoded into its WAV file, cut by connection: its records
// say how many frames each speaker packet gave, and when a connection
// closed. Each connection has an Opus decoder of its own.
std::vector<std::vector<int16_t>> Connections(const std::vector<std::string>& records,
                                              const std::string& wav)
{
    const std::vector<int16_t> left = LeftChannel(wav);
    std::vector<std::vector<int16_t>> connections(1);
    size_t at = 0;
    for (const std::string& record : records) {
        if (record == "closed") {
            connections.emplace_back();
        } else if (record.rfind("speaker stamp=", 0) == 0) {
            const auto frames = static_cast<size_t>(std::max(0LL, Field(record, "frames")));
            const size_t end = std::min(left.size(), at + frames);
            connections.back().insert(connections.back().end(),
                                      left.begin() + static_cast<long>(at),
                                      left.begin() + static_cast<long>(end));
            at = end;
        }
    }
    if (connections.back().empty()) {
        connections.pop_back();
    }
    return connections;
}

class AudioDriverEndToEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Relays of other tests on this machine send to port 9002 too.
        if (!EnterPrivateNetwork()) {
            std::fprintf(stderr, "no private network namespace: sharing the machine's ports\n");
        }
        ASSERT_TRUE(m_audio.StartPipeWire()) << m_audio.PipeWire().Error();
    }

    bool PlayTone(double seconds)
    {
        const std::string wav = m_audio.Dir().File("tone.wav");
        return WriteWav(wav, Tone(1000, seconds, 10000)) && m_audio.Play(wav, m_paplay);
    }

    // Runs a relay against the scene's kyr-sim for a few seconds and
    // waits for its end.
    void RunRelay(EndToEndScene& scene, int base, int milliseconds)
    {
        ASSERT_TRUE(scene.StartClient({"wait:" + std::to_string(milliseconds), "kill"},
                                      RelayArguments(base)));
        int code = -1;
        ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
        EXPECT_EQ(code, 0) << scene.Client().Output();
    }

    AudioDriverScene m_audio;
    ChildProcess m_paplay;
};

} // namespace

TEST_F(AudioDriverEndToEndTest, PlayedToneReachesTheKyrAndTheKyrsMicrophoneIsRecorded)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    const std::string speakerWav = scene.Dir().File("speaker.wav");
    // The Kyr's clock runs 5 s ahead; it starts the microphone polling.
    ASSERT_TRUE(
        scene.StartKyr(base, {"--password", "secret", "--clock-ahead", "5000", "--mic-unsolicited",
                              "500", "--mic-tone", "440", "--speaker-wav", speakerWav}));
    ASSERT_TRUE(m_audio.StartDriver({})) << m_audio.Driver().Output();
    const std::string microphone = m_audio.Dir().File("microphone.raw");
    ChildProcess parec;
    ASSERT_TRUE(m_audio.Record(microphone, parec)) << parec.Output();

    ASSERT_TRUE(scene.StartClient({"wait:6000", "kill"}, RelayArguments(base)));
    // The relay names itself on port 9002 once it is connected.
    ASSERT_TRUE(m_audio.WaitForDriverOutput("Relay at base port " + std::to_string(base), 20s))
        << m_audio.Driver().Output();
    ASSERT_TRUE(PlayTone(3));
    int code = -1;
    ASSERT_TRUE(m_paplay.WaitForExit(20s, &code));
    EXPECT_EQ(code, 0) << m_paplay.Output();
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    ASSERT_TRUE(AudioDriverScene::Interrupt(parec));
    // The relay said goodbye on its way out.
    EXPECT_TRUE(m_audio.WaitForDriverOutput("The relay is going away", 10s));

    const auto kyr = scene.KyrRecords();
    // One AudioStart at the connection, one at the driver's first announce.
    EXPECT_EQ(WithPrefix(kyr, "audio-start").size(), 2u);
    const auto speaker = WithPrefix(kyr, "speaker stamp=");
    ASSERT_GE(speaker.size(), 200u);
    long long frames = 0;
    for (const auto& record : speaker) {
        EXPECT_NE(record.find(" decode=ok"), std::string::npos) << record;
        frames += Field(record, "frames");
    }
    EXPECT_GE(frames, 4LL * 48000);
    // The driver's stamps are the wall clock: after a ping the Kyr's clock
    // the relay sends runs 5 s ahead of them.
    const std::string& last = speaker.back();
    const long long lag = Field(last, "kyr-now") - Field(last, "stamp");
    EXPECT_GT(lag, 4500) << last;
    EXPECT_LT(lag, 6000) << last;
    ExpectTone(LeftChannel(speakerWav), "the one connection");

    // parec recorded the Kyr's 440 Hz (amplitude 8000). kyr-sim answers
    // each 18 ms poll with 864 frames, and the relay's poll timer runs a
    // little late each time, so the source runs dry now and then and plays
    // a few ms of silence: the tone is judged where it ran unbroken.
    const std::vector<int16_t> recorded = Audible(LeftChannel(microphone, 0));
    ASSERT_GE(recorded.size(), 48000u * 3) << recorded.size();
    const std::vector<int16_t> unbroken = LongestUnbroken(recorded, 48);
    ASSERT_GE(unbroken.size(), 48000u / 2) << unbroken.size();
    EXPECT_NEAR(MedianFrequency(unbroken, 0), 440.0, 2.0);
    EXPECT_NEAR(RmsDb(unbroken, 0), 20 * std::log10(8000 / std::sqrt(2.0)), 1.0);

    EXPECT_GE(CountLogLines(scene.LogText(), kInformation, "Start Audio"), 2u);
    EXPECT_EQ(CountLogLines(m_audio.DriverLog(), kInformation,
                            "Relay at base port " + std::to_string(base) + ", Kyr 127.0.0.1"),
              2u);
}

TEST_F(AudioDriverEndToEndTest, DriverFollowsTheRelayAbsentRestartedAndMoved)
{
    EndToEndScene first;
    const int firstBase = EndToEndScene::FreeBasePort();
    const std::string firstWav = first.Dir().File("speaker.wav");
    ASSERT_TRUE(first.StartKyr(firstBase, {"--password", "secret", "--speaker-wav", firstWav}));
    // Started before any relay, on the base port it will have.
    ASSERT_TRUE(m_audio.StartDriver({"--base-port", std::to_string(firstBase)}))
        << m_audio.Driver().Output();
    ASSERT_TRUE(PlayTone(12));
    std::this_thread::sleep_for(500ms);
    ASSERT_TRUE(m_audio.Driver().Running());

    RunRelay(first, firstBase, 3000);
    ASSERT_TRUE(m_audio.WaitForDriverOutput("The relay is going away", 10s));
    // The same relay again, on the same port.
    RunRelay(first, firstBase, 3000);
    const auto firstConnections = Connections(first.KyrRecords(), firstWav);
    ASSERT_EQ(firstConnections.size(), 2u);
    ExpectTone(firstConnections[0], "the relay's first run");
    ExpectTone(firstConnections[1], "the relay started again");

    // Another relay on another port.
    EndToEndScene second;
    const int secondBase = EndToEndScene::FreeBasePort();
    const std::string secondWav = second.Dir().File("speaker.wav");
    ASSERT_TRUE(second.StartKyr(secondBase, {"--password", "secret", "--speaker-wav", secondWav}));
    RunRelay(second, secondBase, 3000);
    ExpectTone(LeftChannel(secondWav), "the relay on another port");

    m_paplay.Kill();
    ASSERT_TRUE(m_audio.Driver().Running());
    const std::string log = m_audio.DriverLog();
    // Each relay names itself at its connection and again when the
    // driver's first announce reaches it.
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Relay at base port " + std::to_string(firstBase) + ", Kyr 127.0.0.1"),
              4u)
        << log;
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Relay at base port " + std::to_string(secondBase) + ", Kyr 127.0.0.1"),
              2u);
    EXPECT_EQ(CountLogLines(log, kInformation, "The relay is going away"), 3u) << log;
}
