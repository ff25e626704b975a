// The audio manager against real UDP sockets standing in for the audio
// driver: announces and their expiry, speaker datagrams to Opus payloads,
// microphone responses to datagrams, the Kyr's address and the goodbye.

#include "Clients/Conference/RelayAudioManager.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/AudioUdpPeer.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/HeldDescriptors.h"

#include "Common/Network/Src/UdpUtilRuntimeError.h"
#include "Common/Platform/Src/Time.h"

#include <QDataStream>

#include <gtest/gtest.h>
#include <opus/opus.h>

#include <cmath>
#include <mutex>
#include <thread>

using namespace std::chrono_literals;
using namespace velorane::test;
using quorvan::EGroupValueInformation;
using quorvan::EGroupValueSevere;
using quorvan::EGroupValueSpew;
using quorvan::EGroupValueWarning;
using quorvan::ELogGroups;
using namespace quorvan::velorane;
using quorvan::velorane::relay::RelayAudioManager;
using quorvan::velorane::relay::RelayConfig;

namespace {

constexpr int kControlPort = 9002;
constexpr double kPi = 3.141592653589793;

// Raises the logger's level for the life of the object.
class LoggerLevel
{
public:
    explicit LoggerLevel(uint32_t level)
    {
        quorvan::GetLoggerInstance(&m_logger);
        m_logger->GetLevel(&m_before);
        m_logger->SetLevel(level);
    }
    ~LoggerLevel() { m_logger->SetLevel(m_before); }
    LoggerLevel(const LoggerLevel&) = delete;
    LoggerLevel& operator=(const LoggerLevel&) = delete;

private:
    quorvan::CRefCountPtr<quorvan::ILogger> m_logger;
    uint32_t m_before = 0;
};

// Commands as the manager emits them, from whichever thread.
class CommandLog
{
public:
    void Add(const RelayCommandData& command)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_commands.push_back(command);
    }
    std::vector<RelayCommandData> Take()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        std::vector<RelayCommandData> taken;
        taken.swap(m_commands);
        return taken;
    }
    size_t Count(RelayCommand command) const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        size_t count = 0;
        for (const auto& each : m_commands) {
            count += each.command == command ? 1 : 0;
        }
        return count;
    }

private:
    mutable std::mutex m_lock;
    std::vector<RelayCommandData> m_commands;
};

// What the transport would write for a command: the little-endian header
// words and whatever the payload writes.
QByteArray Serialize(const RelayCommandData& command)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << static_cast<quint32>(command.service) << static_cast<quint32>(command.command);
    command.payloadFunctor(stream);
    return bytes;
}

std::vector<uint8_t> Announce()
{
    return {3};
}

// A speaker datagram: command 2, the time stamp, then frames of a 1 kHz
// tone in big-endian stereo.
std::vector<uint8_t> SpeakerDatagram(uint64_t stamp, int frames, int firstFrame = 0)
{
    std::vector<uint8_t> datagram = {2};
    for (int shift = 56; shift >= 0; shift -= 8) {
        datagram.push_back(static_cast<uint8_t>(stamp >> shift));
    }
    for (int i = 0; i < frames; ++i) {
        const auto sample = static_cast<int16_t>(
            std::lround(10000.0 * std::sin(2 * kPi * 1000.0 * (firstFrame + i) / 48000.0)));
        for (int channel = 0; channel < 2; ++channel) {
            datagram.push_back(static_cast<uint8_t>(static_cast<uint16_t>(sample) >> 8));
            datagram.push_back(static_cast<uint8_t>(sample & 0xFF));
        }
    }
    return datagram;
}

QByteArray BigEndian(std::initializer_list<int64_t> values, int width)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::BigEndian);
    for (const int64_t value : values) {
        if (width == 8) {
            stream << static_cast<qint64>(value);
        } else if (width == 4) {
            stream << static_cast<qint32>(value);
        } else {
            stream << static_cast<qint16>(value);
        }
    }
    return bytes;
}

// A microphone response: time stamp, declared frames, then frames stereo
// frames of the sample values 1, 2, 3, ...
QByteArray MicrophoneResponse(uint64_t stamp, int32_t declared, int frames)
{
    QByteArray bytes = BigEndian({static_cast<int64_t>(stamp)}, 8) + BigEndian({declared}, 4);
    for (int i = 0; i < frames * 2; ++i) {
        bytes += BigEndian({(i + 1) % 30000}, 2);
    }
    return bytes;
}

class AudioManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UnitQtApplication();
        m_base = AudioUdpPeer::FreeBasePort();
        ASSERT_NE(m_base, 0);
        m_config.kyrIp = "192.168.1.20";
        m_config.kyrPort = static_cast<uint16_t>(m_base);
        m_config.relayPassword = "audio-secret";
    }

    void Start()
    {
        m_manager = RelayAudioManager::NewInstance(m_config);
        QObject::connect(
            m_manager.get(), &RelayAudioManager::SignalSendRelayCommand, m_manager.get(),
            [this](RelayCommandData command) { m_commands.Add(command); }, Qt::DirectConnection);
        // The driver thread is up once it logged its entry twice (both
        // threads say "Enter").
        ASSERT_TRUE(WaitUntil([this] { return m_capture->Count("Enter") >= 2; }, 5s));
    }

    // Sends a driver datagram and waits for the manager to take it: the
    // datagrams behind it are handled in order, so a trailing announce
    // shows the first one was read.
    void SendFromDriver(const std::vector<uint8_t>& datagram)
    {
        ASSERT_TRUE(m_driver.SendTo(m_base + 8, datagram));
    }

    RelayCommandData WaitForCommand(RelayCommand command)
    {
        RelayCommandData found;
        bool seen = false;
        WaitUntil(
            [&] {
                for (const auto& each : m_commands.Take()) {
                    if (!seen && each.command == command) {
                        found = each;
                        seen = true;
                    }
                }
                return seen;
            },
            5s);
        EXPECT_TRUE(seen) << "no command " << std::hex << command;
        return found;
    }

    ScopedLogCapture m_capture;
    int m_base = 0;
    RelayConfig m_config;
    AudioUdpPeer m_driver;
    CommandLog m_commands;
    std::unique_ptr<RelayAudioManager> m_manager;
};

// Decodes the encoded part of speaker payloads: packets behind their
// big-endian lengths, one decoder across payloads as on the Kyr.
class SpeakerDecoder
{
public:
    SpeakerDecoder()
    {
        int error = 0;
        m_decoder = opus_decoder_create(48000, 2, &error);
    }
    ~SpeakerDecoder()
    {
        if (m_decoder) {
            opus_decoder_destroy(m_decoder);
        }
    }
    SpeakerDecoder(const SpeakerDecoder&) = delete;
    SpeakerDecoder& operator=(const SpeakerDecoder&) = delete;

    // Returns the number of packets; the left channel grows.
    int Decode(const QByteArray& encoded)
    {
        std::vector<opus_int16> pcm(5760 * 2);
        int offset = 0;
        int packets = 0;
        while (m_decoder && offset + 4 <= encoded.size()) {
            const auto* bytes =
                reinterpret_cast<const unsigned char*>(encoded.constData()) + offset;
            const int n = (bytes[0] << 24) | (bytes[1] << 16) | (bytes[2] << 8) | bytes[3];
            const int frames = opus_decode(m_decoder, bytes + 4, n, pcm.data(), 5760, 0);
            EXPECT_EQ(frames, 480);
            for (int i = 0; i < frames; ++i) {
                left.push_back(pcm[static_cast<size_t>(2 * i)]);
            }
            offset += 4 + n;
            ++packets;
        }
        EXPECT_EQ(offset, encoded.size());
        return packets;
    }

    // The strength of a tone of hz in the decoded audio from sample first
    // on, whatever its phase.
    double Strength(double hz, size_t first) const
    {
        double in = 0, quadrature = 0;
        for (size_t i = first; i < left.size(); ++i) {
            const double angle = 2 * kPi * hz * static_cast<double>(i) / 48000.0;
            in += left[i] * std::sin(angle);
            quadrature += left[i] * std::cos(angle);
        }
        return std::sqrt(in * in + quadrature * quadrature);
    }

    std::vector<int16_t> left;

private:
    OpusDecoder* m_decoder = nullptr;
};

// The speaker payload's fields after the header words.
struct SpeakerPayload
{
    qint32 count = 0;
    qint32 length = 0;
    QByteArray encoded;
    qint64 stamp = 0;
    qint64 kyrNow = 0;
    qint32 rate = 0;
};

SpeakerPayload ParseSpeaker(const QByteArray& bytes)
{
    SpeakerPayload payload;
    QDataStream in(bytes);
    in.setByteOrder(QDataStream::LittleEndian);
    quint32 service = 0, command = 0;
    in >> service >> command >> payload.count >> payload.length;
    EXPECT_EQ(service, 0xEABA0314u);
    EXPECT_EQ(command, 0x1EF21u);
    EXPECT_EQ(payload.count, payload.length + 24);
    EXPECT_EQ(bytes.size(), 16 + payload.length + 20);
    payload.encoded = bytes.mid(16, payload.length);
    in.skipRawData(payload.length);
    in >> payload.stamp >> payload.kyrNow >> payload.rate;
    return payload;
}

// Receives datagrams until one satisfies match; other relays of the same
// machine may write to the fixed control port too.
bool ReceiveMatching(const AudioUdpPeer& peer,
                     const std::function<bool(const std::vector<uint8_t>&)>& match,
                     std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<uint8_t> datagram;
    while (std::chrono::steady_clock::now() < deadline) {
        if (peer.Receive(datagram, 50ms) && match(datagram)) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(AudioManagerTest, StartSharingSendsAudioStartWithTheNullPayload)
{
    Start();
    m_manager->StartSharing();
    const RelayCommandData start = WaitForCommand(RelayCommandAudioStart);
    EXPECT_EQ(start.service, RelayServiceAudio);
    EXPECT_EQ(Serialize(start), QByteArray::fromHex("1403baea0a00010000000000"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "Start Audio"));
}

TEST_F(AudioManagerTest, TwoAnnouncesInARowSendOneStart)
{
    Start();
    SendFromDriver(Announce());
    SendFromDriver(Announce());
    WaitForCommand(RelayCommandAudioStart);
    PumpEventsFor(300ms);
    EXPECT_EQ(m_commands.Count(RelayCommandAudioStart), 0u);
    EXPECT_EQ(m_capture->Count("Start Audio"), 1u);
}

TEST_F(AudioManagerTest, SilentDriverIsStoppedAfterTenSecondsAndStartedAgain)
{
    Start();
    SendFromDriver(Announce());
    WaitForCommand(RelayCommandAudioStart);
    const auto announced = std::chrono::steady_clock::now();
    // Speaker data doesn't keep the driver alive: only announces do.
    SendFromDriver(SpeakerDatagram(1000, 480));
    const RelayCommandData stop = [&] {
        RelayCommandData found;
        WaitUntil(
            [&] {
                for (const auto& each : m_commands.Take()) {
                    if (each.command == RelayCommandAudioStop) {
                        found = each;
                        return true;
                    }
                }
                return false;
            },
            15s);
        return found;
    }();
    const auto waited = std::chrono::steady_clock::now() - announced;
    ASSERT_EQ(stop.command, RelayCommandAudioStop);
    EXPECT_EQ(Serialize(stop), QByteArray::fromHex("1403baeaadde010000000000"));
    EXPECT_GE(waited, 10s);
    EXPECT_LT(waited, 14s);
    EXPECT_EQ(m_capture->Count("Stop Audio"), 1u);

    SendFromDriver(Announce());
    WaitForCommand(RelayCommandAudioStart);
    EXPECT_EQ(m_capture->Count("Start Audio"), 2u);
}

TEST_F(AudioManagerTest, AnnounceJustInsideTenSecondsKeepsTheDriverAlive)
{
    Start();
    SendFromDriver(Announce());
    WaitForCommand(RelayCommandAudioStart);
    // The next announce comes 9.7 s later, before the expiry thread's look
    // past 10 s: the driver stays alive, and only the silence after it ends
    // the audio, 10 s after the second announce.
    PumpEventsFor(9700ms);
    SendFromDriver(Announce());
    const auto renewed = std::chrono::steady_clock::now();
    PumpEventsFor(800ms);
    EXPECT_EQ(m_capture->Count("Stop Audio"), 0u);
    EXPECT_EQ(m_commands.Count(RelayCommandAudioStop), 0u);
    ASSERT_TRUE(m_capture->WaitFor("Stop Audio", 12s));
    const auto waited = std::chrono::steady_clock::now() - renewed;
    EXPECT_GE(waited, 9900ms);
    EXPECT_EQ(m_capture->Count("Start Audio"), 1u);
}

TEST_F(AudioManagerTest, ShortSpeakerDatagramsAndCommandsZeroAndOneAreIgnoredQuietly)
{
    Start();
    SendFromDriver(std::vector<uint8_t>(9, 0)); // command 0
    SendFromDriver({1, 2, 3});
    std::vector<uint8_t> nine = SpeakerDatagram(5, 0);
    ASSERT_EQ(nine.size(), 9u);
    SendFromDriver(nine);
    std::vector<uint8_t> ten = nine;
    ten.push_back(0x7F); // a time stamp and one odd byte: no sample
    SendFromDriver(ten);
    SendFromDriver({4});
    // The unknown command behind them shows they were all read.
    ASSERT_TRUE(m_capture->WaitFor("Unknown command 4", 5s));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command 4"));
    PumpEventsFor(100ms);
    EXPECT_TRUE(m_commands.Take().empty());
    for (const auto& message : m_capture->Messages()) {
        EXPECT_TRUE(message == "Enter" || message == "Unknown command 4") << message;
    }
}

TEST_F(AudioManagerTest, UnknownCommandBytesAreLoggedWithTheirValue)
{
    Start();
    // A few only: the logger suspends a site that repeats five times in a
    // row within seconds.
    for (const int command : {5, 128, 255}) {
        SendFromDriver({static_cast<uint8_t>(command), 0, 0});
    }
    ASSERT_TRUE(m_capture->WaitFor("Unknown command 255", 5s));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command 5"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command 128"));
    EXPECT_TRUE(m_commands.Take().empty());
}

TEST_F(AudioManagerTest, SpeakerDatagramBecomesAnOpusPayloadWithCorrectedStamps)
{
    Start();
    const uint64_t stamp = 1700000000123ull;
    // The largest datagram: 882 frames, 18 ms. One 480-frame packet goes
    // out, and 402 frames wait in the encoder for the next datagram.
    SendFromDriver(SpeakerDatagram(stamp, 882));
    const RelayCommandData speaker = WaitForCommand(RelayCommandSpeakerData);
    EXPECT_EQ(speaker.service, RelayServiceAudio);
    const int64_t before = quorvan::UTCTime::Milliseconds();
    const SpeakerPayload payload = ParseSpeaker(Serialize(speaker));
    const int64_t after = quorvan::UTCTime::Milliseconds();
    EXPECT_EQ(payload.stamp, static_cast<qint64>(stamp - 18));
    EXPECT_GE(payload.kyrNow, before);
    EXPECT_LE(payload.kyrNow, after);
    EXPECT_EQ(payload.rate, 0);

    SpeakerDecoder decoder;
    EXPECT_EQ(decoder.Decode(payload.encoded), 1);
    // Three more datagrams of the same tone: 3528 frames in all, seven
    // packets.
    int packets = 1;
    for (int i = 1; i < 4; ++i) {
        SendFromDriver(SpeakerDatagram(stamp + 18 * i, 882, 882 * i));
        packets += decoder.Decode(
            ParseSpeaker(Serialize(WaitForCommand(RelayCommandSpeakerData))).encoded);
    }
    EXPECT_EQ(packets, 7);
    ASSERT_EQ(decoder.left.size(), 7u * 480u);
    // Past the codec's start-up the 1 kHz tone is there, and little else.
    EXPECT_GT(decoder.Strength(1000, 960), 20 * decoder.Strength(3000, 960));
    EXPECT_GT(decoder.Strength(1000, 960), 1000.0 * 2000);
}

TEST_F(AudioManagerTest, StampOfAllOnesLogsAndLeavesThePayloadOut)
{
    Start();
    SendFromDriver(SpeakerDatagram(~0ull, 480));
    const RelayCommandData speaker = WaitForCommand(RelayCommandSpeakerData);
    EXPECT_EQ(Serialize(speaker), QByteArray::fromHex("1403baea21ef0100"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, "Failed to get timestamp for Relay audio"));
}

TEST_F(AudioManagerTest, EveryHundredAndSecondPacketBringsAPing)
{
    Start();
    std::vector<RelayCommandData> written;
    for (int packet = 0; packet < 204; ++packet) {
        SendFromDriver(SpeakerDatagram(1000 + 10 * packet, 480, 480 * packet));
        const RelayCommandData speaker = WaitForCommand(RelayCommandSpeakerData);
        const size_t pingsBefore = m_commands.Count(RelayCommandTimeOffsetPing);
        Serialize(speaker);
        const size_t pings = m_commands.Count(RelayCommandTimeOffsetPing) - pingsBefore;
        const bool expected = packet == 101 || packet == 203;
        EXPECT_EQ(pings, expected ? 1u : 0u) << packet;
        if (pings) {
            const auto commands = m_commands.Take();
            const RelayCommandData& ping = commands.back();
            const int64_t before = quorvan::UTCTime::Milliseconds();
            const QByteArray bytes = Serialize(ping);
            const int64_t after = quorvan::UTCTime::Milliseconds();
            ASSERT_EQ(bytes.size(), 20);
            QDataStream in(bytes);
            in.setByteOrder(QDataStream::LittleEndian);
            quint32 service = 0, command = 0;
            qint32 eight = 0;
            qint64 now = 0;
            in >> service >> command >> eight >> now;
            EXPECT_EQ(command, 0xD43Eu);
            EXPECT_EQ(eight, 8);
            EXPECT_GE(now, before);
            EXPECT_LE(now, after);
        }
    }
}

TEST_F(AudioManagerTest, PingAnswerMovesTheKyrClockOfLaterPackets)
{
    Start();
    const int64_t now = quorvan::UTCTime::Milliseconds();
    // Sent just now, the Kyr's clock an hour ahead.
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandTimeOffsetPing,
                           BigEndian({now, now + 3600000}, 8));
    SendFromDriver(SpeakerDatagram(5000, 480));
    const QByteArray bytes = Serialize(WaitForCommand(RelayCommandSpeakerData));
    const int64_t after = quorvan::UTCTime::Milliseconds();
    QDataStream in(bytes.right(12));
    in.setByteOrder(QDataStream::LittleEndian);
    qint64 kyrNow = 0;
    in >> kyrNow;
    EXPECT_GE(kyrNow, now + 3600000 - 1000);
    EXPECT_LE(kyrNow, after + 3600000 + 1000);
}

TEST_F(AudioManagerTest, ShortPingAnswerIsTurnedAwayWithAWarning)
{
    Start();
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandTimeOffsetPing, BigEndian({1, 2}, 4));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Bad time offset ping response sz=8"));
    SendFromDriver(SpeakerDatagram(5000, 480));
    const int64_t before = quorvan::UTCTime::Milliseconds();
    const QByteArray bytes = Serialize(WaitForCommand(RelayCommandSpeakerData));
    QDataStream in(bytes.right(12));
    in.setByteOrder(QDataStream::LittleEndian);
    qint64 kyrNow = 0;
    in >> kyrNow;
    EXPECT_GE(kyrNow, before);
    EXPECT_LE(kyrNow, before + 1000);
}

TEST_F(AudioManagerTest, FirstMicrophoneResponseStartsThePolling)
{
    Start();
    AudioUdpPeer microphone(m_base + 7);
    ASSERT_TRUE(microphone.Bound());
    // Unasked and empty: it starts the timer all the same. The empty
    // response is noted at level 1, which the relay doesn't log by default.
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, QByteArray());
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "Start m_usb_timer"));
    EXPECT_FALSE(m_capture->Contains(EGroupValueSpew, "No mic data to forward, sz=0"));
    {
        LoggerLevel detail(1);
        m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, QByteArray(3, 'x'));
        EXPECT_TRUE(m_capture->Contains(EGroupValueSpew, "No mic data to forward, sz=3"));
    }
    m_commands.Take();
    PumpEventsFor(500ms);
    const auto polls = m_commands.Take();
    // One every 18 ms: about 27 in half a second. A starved test process
    // sees fewer, so the floor only shows that the timer repeats.
    EXPECT_GE(polls.size(), 3u);
    EXPECT_LE(polls.size(), 30u);
    for (const auto& poll : polls) {
        EXPECT_EQ(Serialize(poll), QByteArray::fromHex("1403baeaeb62000000000000"));
    }
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio,
                           MicrophoneResponse(7, 1, 1));
    EXPECT_EQ(m_capture->Count("Start m_usb_timer"), 1u);
}

TEST_F(AudioManagerTest, MicrophoneFramesGoToTheDriverInOneDatagram)
{
    Start();
    AudioUdpPeer microphone(m_base + 7);
    ASSERT_TRUE(microphone.Bound());
    std::vector<uint8_t> datagram;

    // Exactly 16 bytes with one frame declared: room for one frame.
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio,
                           MicrophoneResponse(7, 1, 1));
    ASSERT_TRUE(microphone.Receive(datagram, 2s));
    EXPECT_EQ(datagram, (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 7, 0, 1, 0, 2}));

    // 882 frames: one datagram of 3536 bytes, samples unchanged.
    const QByteArray full = MicrophoneResponse(0x0102030405060708ull, 882, 882);
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, full);
    ASSERT_TRUE(microphone.Receive(datagram, 2s));
    ASSERT_EQ(datagram.size(), 3536u);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(datagram.data()), 8), full.left(8));
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(datagram.data()) + 8, 3528), full.mid(12));
    EXPECT_FALSE(microphone.Receive(datagram, 100ms));
}

TEST_F(AudioManagerTest, MicrophoneEdgeSizes)
{
    Start();
    AudioUdpPeer microphone(m_base + 7);
    ASSERT_TRUE(microphone.Bound());
    std::vector<uint8_t> datagram;

    // No frames: nothing goes out.
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio,
                           MicrophoneResponse(1, 0, 1));
    EXPECT_FALSE(microphone.Receive(datagram, 200ms));

    // A negative count is a bad packet.
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio,
                           MicrophoneResponse(9, -1, 4));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Bad mic packet size t=9 nf=-1 sz=28"));
    EXPECT_FALSE(microphone.Receive(datagram, 200ms));

    // 883 frames don't fit one datagram: the payload goes on unchanged.
    const QByteArray oversized = MicrophoneResponse(3, 883, 883);
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, oversized);
    ASSERT_TRUE(microphone.Receive(datagram, 2s));
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(datagram.data()),
                         static_cast<int>(datagram.size())),
              oversized);

    // More frames declared than the bytes hold: also forwarded whole.
    const QByteArray truncated = MicrophoneResponse(4, 882, 100);
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, truncated);
    ASSERT_TRUE(microphone.Receive(datagram, 2s));
    EXPECT_EQ(datagram.size(), static_cast<size_t>(truncated.size()));

    // Fifteen bytes are too few to hold anything.
    LoggerLevel detail(1);
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, truncated.left(15));
    EXPECT_TRUE(m_capture->Contains(EGroupValueSpew, "No mic data to forward, sz=15"));
    EXPECT_FALSE(microphone.Receive(datagram, 200ms));
}

TEST_F(AudioManagerTest, OtherServicesAndCommandsAreIgnored)
{
    Start();
    AudioUdpPeer microphone(m_base + 7);
    m_manager->OnAudioData(RelayServiceVideo, RelayCommandRequestAudio,
                           MicrophoneResponse(1, 1, 1));
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandSpeakerData, MicrophoneResponse(1, 1, 1));
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandAudioStop, QByteArray());
    std::vector<uint8_t> datagram;
    EXPECT_FALSE(microphone.Receive(datagram, 200ms));
    EXPECT_EQ(m_capture->Count("Start m_usb_timer"), 0u);
}

TEST_F(AudioManagerTest, UnboundSpeakerPortEndsTheDriverThreadWithTheException)
{
    AudioUdpPeer squatter(m_base + 8);
    ASSERT_TRUE(squatter.Bound());
    m_manager = RelayAudioManager::NewInstance(m_config);
    const std::string expected =
        "Exception: could not bind UDP socket with: \"127.0.0.1:" + std::to_string(m_base + 8) +
        "\"";
    ASSERT_TRUE(m_capture->WaitFor(expected, 5s));
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, expected));
    ASSERT_TRUE(WaitUntil([this] { return m_capture->Count("Exit") >= 1; }, 5s));
    // The rest of the manager goes on.
    m_manager->StartSharing();
    EXPECT_EQ(m_capture->Count("Start Audio"), 1u);
}

// The driver's sockets can't be made when the process has no descriptor
// left: the exception goes out of NewInstance to its caller, and nothing of
// the manager is left running.
TEST_F(AudioManagerTest, SocketThatCantBeMadeGoesOutOfNewInstance)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // UndefinedBehaviorSanitizer checks each object's dynamic type through a
    // pipe of its own; with no descriptor left it reports every constructor
    // as a bad type. The plain tree asserts this.
    GTEST_SKIP() << "the sanitizers' own checks need descriptors";
#endif
    std::exception_ptr thrown;
    {
        // Only caught here: the sanitizers' checks of a call on the error
        // need descriptors of their own.
        HeldDescriptors exhausted(64, 1 << 30);
        try {
            m_manager = RelayAudioManager::NewInstance(m_config);
        } catch (...) {
            thrown = std::current_exception();
        }
    }
    ASSERT_TRUE(thrown);
    EXPECT_EQ(m_manager, nullptr);
    std::string text;
    try {
        std::rethrow_exception(thrown);
    } catch (const quorvan::UdpUtilRuntimeError& error) {
        text = error.what();
    } catch (...) {
        text = "another exception";
    }
    EXPECT_EQ(text, "could not create socket for: \"127.0.0.1:9002\"");
    // No thread was started: neither logged its entry.
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(m_capture->Count("Enter"), 0u);
}

// A microphone answer too long for one datagram goes to the driver whole,
// and the send refuses it: the failure is logged, and the next answer goes
// out as usual.
TEST_F(AudioManagerTest, MicrophoneAnswerTooLongForADatagramIsLoggedAndPassedOver)
{
    Start();
    AudioUdpPeer microphone(m_base + 7);
    ASSERT_TRUE(microphone.Bound());
    // 17,497 frames: 70,000 bytes with the header, past the 65,507 a UDP
    // datagram on IPv4 holds.
    const QByteArray tooLong = MicrophoneResponse(5, 17497, 17497);
    ASSERT_EQ(tooLong.size(), 70000);
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio, tooLong);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Send failed r=-1 pos=0 Message too long"));
    std::vector<uint8_t> datagram;
    EXPECT_FALSE(microphone.Receive(datagram, 200ms));

    m_manager->OnAudioData(RelayServiceAudio, RelayCommandRequestAudio,
                           MicrophoneResponse(6, 2, 2));
    ASSERT_TRUE(microphone.Receive(datagram, 2s));
    EXPECT_EQ(datagram.size(), 8u + 2u * 4u);
}

// The tests that read port 9002, which is fixed: CTest runs them one at a
// time with the end-to-end audio tests.
TEST_F(AudioManagerTest, AudioStartResponseTellsTheDriverTheKyrAndTheEndSaysGoodbye)
{
    AudioUdpPeer control(kControlPort);
    ASSERT_TRUE(control.Bound());
    Start();
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandAudioStart, QByteArray());
    std::vector<uint8_t> expected = {0xC0,
                                     0xA8,
                                     0x01,
                                     0x14,
                                     static_cast<uint8_t>(m_base >> 8),
                                     static_cast<uint8_t>(m_base & 0xFF),
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     12};
    const std::string password = "audio-secret";
    expected.insert(expected.end(), password.begin(), password.end());
    EXPECT_TRUE(ReceiveMatching(
        control, [&](const std::vector<uint8_t>& message) { return message == expected; }, 2s));

    m_manager.reset();
    EXPECT_TRUE(ReceiveMatching(
        control,
        [](const std::vector<uint8_t>& message) { return message == std::vector<uint8_t>(14, 0); },
        2s));
    EXPECT_EQ(m_capture->Count("Exit"), 2u);
}

TEST_F(AudioManagerTest, AddressThatIsNoDottedQuadGoesOutAsZero)
{
    AudioUdpPeer control(kControlPort);
    ASSERT_TRUE(control.Bound());
    m_config.kyrIp = "kyr.example";
    m_config.relayPassword = "no-quad-secret";
    Start();
    m_manager->OnAudioData(RelayServiceAudio, RelayCommandAudioStart, QByteArray());
    std::vector<uint8_t> expected = {0,
                                     0,
                                     0,
                                     0,
                                     static_cast<uint8_t>(m_base >> 8),
                                     static_cast<uint8_t>(m_base & 0xFF),
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     14};
    const std::string password = "no-quad-secret";
    expected.insert(expected.end(), password.begin(), password.end());
    EXPECT_TRUE(ReceiveMatching(
        control, [&](const std::vector<uint8_t>& message) { return message == expected; }, 2s));
}
