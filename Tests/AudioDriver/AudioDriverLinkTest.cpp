// The driver finds the relay from the address messages on its control
// port, follows it to another base port, stops its speaker audio when the
// relay says goodbye, survives garbage of every length on its ports, and
// takes a port another program holds once it is free.

#include "Tests/AudioDriver/DriverWire.h"
#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/Support/AudioChecks.h"
#include "Tests/Support/AudioDriverScene.h"
#include "Tests/Support/AudioUdpPeer.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";
const std::string kWarning = "* Warning     *";

class AudioDriverLinkTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(m_controlPort, 0);
        ASSERT_TRUE(m_scene.StartPipeWire()) << m_scene.PipeWire().Error();
    }

    bool SendControl(const std::vector<uint8_t>& message)
    {
        return m_sender.SendTo(m_controlPort, message);
    }

    AudioDriverScene m_scene;
    AudioUdpPeer m_sender;
    int m_controlPort = FreeUdpPort();
};

} // namespace

TEST_F(AudioDriverLinkTest, AddressMessagesNameTheRelayMoveItAndSayGoodbye)
{
    ASSERT_TRUE(m_scene.StartDriver({"--control-port", std::to_string(m_controlPort)}))
        << m_scene.Driver().Output();
    const int first = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer firstRelay(first + 8);
    ASSERT_TRUE(firstRelay.Bound());

    // Before any address the driver knows no relay and sends nothing.
    EXPECT_TRUE(Collect(firstRelay, 300ms).empty());
    ASSERT_TRUE(SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(first), "secret")));
    // An announce at once, then speaker audio.
    const auto atFirst = Collect(firstRelay, 300ms);
    ASSERT_FALSE(atFirst.empty());
    EXPECT_EQ(atFirst[0], std::vector<uint8_t>{3});
    EXPECT_GE(CountCommand(atFirst, 2), 10u);
    // Its microphone port is taken now.
    EXPECT_FALSE(AudioUdpPeer(first + 7).Bound());

    const int second = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer secondRelay(second + 8);
    ASSERT_TRUE(secondRelay.Bound());
    ASSERT_TRUE(SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(second), "secret")));
    ASSERT_TRUE(WaitFor([&] { return CountCommand(Collect(secondRelay, 100ms), 2) > 0; }, 5s));
    firstRelay.Drain();
    EXPECT_EQ(CountCommand(Collect(firstRelay, 300ms), 2), 0u);
    // The microphone moved with it.
    EXPECT_TRUE(AudioUdpPeer(first + 7).Bound());
    EXPECT_FALSE(AudioUdpPeer(second + 7).Bound());

    // Goodbye: no more speaker audio, but announces go on.
    ASSERT_TRUE(SendControl(std::vector<uint8_t>(14, 0)));
    std::this_thread::sleep_for(100ms);
    secondRelay.Drain();
    const auto afterGoodbye = Collect(secondRelay, 1200ms);
    EXPECT_EQ(CountCommand(afterGoodbye, 2), 0u);
    EXPECT_GE(CountCommand(afterGoodbye, 3), 1u);
    // The relay is back at the same port.
    ASSERT_TRUE(SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(second), "secret")));
    EXPECT_TRUE(WaitFor([&] { return CountCommand(Collect(secondRelay, 100ms), 2) > 0; }, 5s));

    const std::string log = m_scene.DriverLog();
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Relay at base port " + std::to_string(first) + ", Kyr 127.0.0.1"),
              1u)
        << log;
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Relay at base port " + std::to_string(second) + ", Kyr 127.0.0.1"),
              2u);
    EXPECT_EQ(CountLogLines(log, kInformation, "The relay is going away"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Microphone audio on 127.0.0.1:" + std::to_string(second + 7)),
              1u);
    // The Kyr's password never reaches the log.
    EXPECT_EQ(log.find("secret"), std::string::npos);
}

TEST_F(AudioDriverLinkTest, BasePortWhoseAudioPortsAreTheControlPortIsRefused)
{
    // Speaker port (base + 8) on the control port, from the command line.
    const int speakerMeets = m_controlPort - 8;
    ASSERT_TRUE(m_scene.StartDriver({"--base-port", std::to_string(speakerMeets), "--control-port",
                                     std::to_string(m_controlPort)}))
        << m_scene.Driver().Output();
    // Microphone port (base + 7) on the control port, from the relay.
    const int microphoneMeets = m_controlPort - 7;
    ASSERT_TRUE(
        SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(microphoneMeets), "secret")));
    // Nothing was bound on the control port: the next address is taken.
    const int base = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer relay(base + 8);
    ASSERT_TRUE(relay.Bound());
    ASSERT_TRUE(SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(base), "secret")));
    const auto received = Collect(relay, 300ms);
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received[0], std::vector<uint8_t>{3});

    const std::string log = m_scene.DriverLog();
    for (const int refused : {speakerMeets, microphoneMeets}) {
        EXPECT_EQ(CountLogLines(log, kWarning,
                                "Ignored base port " + std::to_string(refused) +
                                    ": its audio ports would take port " +
                                    std::to_string(m_controlPort)),
                  1u)
            << log;
        EXPECT_EQ(CountLogLines(log, kInformation,
                                "Microphone audio on 127.0.0.1:" + std::to_string(refused + 7)),
                  0u);
    }
    EXPECT_EQ(
        CountLogLines(log, kInformation,
                      "Relay at base port " + std::to_string(microphoneMeets) + ", Kyr 127.0.0.1"),
        0u);
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Relay at base port " + std::to_string(base) + ", Kyr 127.0.0.1"),
              1u);
}

TEST_F(AudioDriverLinkTest, GarbageOfEveryLengthOnItsPortsLeavesItWorking)
{
    const int base = AudioUdpPeer::FreeBasePort();
    ASSERT_TRUE(m_scene.StartDriver(
        {"--base-port", std::to_string(base), "--control-port", std::to_string(m_controlPort)}))
        << m_scene.Driver().Output();
    const std::string raw = m_scene.Dir().File("microphone.raw");
    ChildProcess parec;
    ASSERT_TRUE(m_scene.Record(raw, parec)) << parec.Output();

    // The first lengths slowly enough that each is read and logged, then
    // every length up to past the largest datagram either side sends, on
    // both ports, random bytes; then address messages that lie.
    std::mt19937 random(14);
    std::uniform_int_distribution<int> byte(0, 255);
    const auto garbage = [&](size_t length) {
        std::vector<uint8_t> bytes(length);
        for (auto& value : bytes) {
            value = static_cast<uint8_t>(byte(random));
        }
        return bytes;
    };
    for (size_t length = 0; length < 5; ++length) {
        SendControl(garbage(length));
        std::this_thread::sleep_for(20ms);
    }
    for (size_t length = 5; length <= 4000; ++length) {
        SendControl(garbage(length));
        m_sender.SendTo(base + 7, garbage(length));
        if (length % 200 == 0) {
            std::this_thread::sleep_for(5ms);
        }
    }
    m_sender.SendTo(base + 7, garbage(65507));
    std::vector<uint8_t> lying = AddressMessage(0x7F000001, 7000, "x");
    lying[13] = 200;
    SendControl(lying);
    SendControl(AddressMessage(0x7F000001, 0, ""));
    SendControl(AddressMessage(0x7F000001, 65535, "pw"));
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(m_scene.Driver().Running()) << m_scene.Driver().Output();

    // Still working: a relay named now gets speaker audio, and microphone
    // audio sent now is recorded.
    const int next = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer relay(next + 8);
    ASSERT_TRUE(SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(next), "")));
    EXPECT_TRUE(WaitFor([&] { return CountCommand(Collect(relay, 100ms), 2) > 0; }, 5s));
    for (int k = 0; k < 30; ++k) {
        relay.SendTo(next + 7, MicrophoneDatagram(480 * static_cast<uint64_t>(k), 480, 4321));
        std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(AudioDriverScene::Interrupt(parec));
    const std::vector<int16_t> left = LeftChannel(raw, 0);
    size_t heard = 0;
    for (const int16_t sample : left) {
        heard += sample == 4321 ? 1 : 0;
    }
    EXPECT_GE(heard, 480u * 20);

    const std::string log = m_scene.DriverLog();
    const std::string port = std::to_string(m_controlPort);
    for (int length = 0; length < 5; ++length) {
        EXPECT_EQ(CountLogLines(log, kWarning,
                                "Ignored a " + std::to_string(length) + "-byte message on port " +
                                    port + ": too short"),
                  1u)
            << length;
    }
    EXPECT_EQ(CountLogLines(log, kInformation,
                            "Relay at base port " + std::to_string(next) + ", Kyr 127.0.0.1"),
              1u)
        << log;
}

TEST_F(AudioDriverLinkTest, PortsHeldByAnotherProgramAreTakenOnceFree)
{
    const int base = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer relay(base + 8);
    auto heldControl = std::make_unique<AudioUdpPeer>(m_controlPort);
    auto heldMicrophone = std::make_unique<AudioUdpPeer>(base + 7);
    ASSERT_TRUE(relay.Bound());
    ASSERT_TRUE(heldControl->Bound());
    ASSERT_TRUE(heldMicrophone->Bound());
    ASSERT_TRUE(m_scene.StartDriver(
        {"--base-port", std::to_string(base), "--control-port", std::to_string(m_controlPort)}))
        << m_scene.Driver().Output();

    const std::string control = "127.0.0.1:" + std::to_string(m_controlPort);
    const std::string microphone = "127.0.0.1:" + std::to_string(base + 7);
    ASSERT_TRUE(m_scene.WaitForDriverOutput("No relay messages until " + control, 5s))
        << m_scene.Driver().Output();
    ASSERT_TRUE(m_scene.WaitForDriverOutput("No microphone audio until " + microphone, 5s));
    // Without its ports it still announces itself to the relay it was told of.
    EXPECT_TRUE(WaitFor([&] { return CountCommand(Collect(relay, 100ms), 3) > 0; }, 5s));
    heldControl.reset();
    heldMicrophone.reset();
    // Tried again each second: both are taken within a few.
    ASSERT_TRUE(m_scene.WaitForDriverOutput("Waiting for the relay on " + control, 5s))
        << m_scene.Driver().Output();
    ASSERT_TRUE(m_scene.WaitForDriverOutput("Microphone audio on " + microphone, 5s));
    EXPECT_FALSE(AudioUdpPeer(base + 7).Bound());

    // The control port now hears the relay.
    const int next = AudioUdpPeer::FreeBasePort();
    AudioUdpPeer moved(next + 8);
    ASSERT_TRUE(SendControl(AddressMessage(0x7F000001, static_cast<uint16_t>(next), "")));
    EXPECT_TRUE(WaitFor([&] { return CountCommand(Collect(moved, 100ms), 3) > 0; }, 5s));

    const std::string log = m_scene.DriverLog();
    EXPECT_GE(CountLogLines(log, kWarning,
                            "No relay messages until " + control +
                                " is free: could not bind UDP socket with: \"" + control + "\""),
              1u)
        << log;
    EXPECT_GE(CountLogLines(log, kWarning,
                            "No microphone audio until " + microphone +
                                " is free: could not bind UDP socket with: \"" + microphone + "\""),
              1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Waiting for the relay on " + control), 1u);
}
