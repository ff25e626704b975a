#include "Clients/Conference/RelayAudioManagerPimpl.h"

#include "Common/Audio/Src/DriverMessages.h"
#include "Common/Logger/Src/Logger.h"
#include "Common/Network/Src/SimpleUdpServer.h"
#include "Common/Platform/Src/Time.h"

#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

namespace quorvan::velorane::relay {

namespace {

constexpr const char* kLoopback = "127.0.0.1";
// A driver that hasn't announced itself for more than 10 s is gone.
constexpr int64_t kAnnounceLifetimeUs = 10000001;
constexpr auto kExpiryLook = std::chrono::milliseconds(100);
constexpr int kReceiveWaitMs = 100;
// Every 102nd speaker packet brings a time-offset ping.
constexpr uint64_t kPingAfterPackets = 101;
constexpr int kMicrophonePollMs = 18;
constexpr size_t kMicrophoneMinimum = 16;
constexpr uint64_t kNoTimestamp = ~static_cast<uint64_t>(0);

int64_t MonotonicMicroseconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

RelayAudioManager::Pimpl::Pimpl(RelayAudioManager& owner, const RelayConfig& config)
    : m_owner(owner), m_config(config), m_driverControl(kLoopback, driver::kControlPort)
{
    m_running.store(true);
    m_driverClient =
        std::make_unique<UdpClient>(kLoopback, m_config.kyrPort + driver::kMicrophonePortOffset);
    m_fromDriverThread = std::make_unique<std::thread>(&Pimpl::FromDriverThreadFunc, this);
    m_expireThread = std::make_unique<std::thread>(&Pimpl::DriverExpireThreadFunc, this);
}

RelayAudioManager::Pimpl::~Pimpl()
{
    // The driver learns that the relay is going away.
    SendDriverIpAndPort(0, 0, std::string());
    m_running.store(false);
    if (m_expireThread && m_expireThread->joinable()) {
        m_expireThread->join();
    }
    if (m_fromDriverThread && m_fromDriverThread->joinable()) {
        m_fromDriverThread->join();
    }
}

void RelayAudioManager::Pimpl::SendDriverIpAndPort(uint32_t ip, uint16_t port,
                                                   const std::string& text)
{
    const std::vector<uint8_t> message = driver::BuildKyrAddressMessage(ip, port, text);
    m_driverControl.send(reinterpret_cast<const gsl::byte*>(message.data()), message.size());
}

void RelayAudioManager::Pimpl::FromDriverThreadFunc()
{
    VLOG(EGroupValueInformation, "Enter");
    try {
        SimpleUdpServer server(kLoopback, m_config.kyrPort + driver::kSpeakerPortOffset);
        std::vector<uint8_t> received(driver::kMaxDriverDatagram);
        while (m_running.load()) {
            const ssize_t n = server.timedRecv(reinterpret_cast<gsl::byte*>(received.data()),
                                               received.size(), kReceiveWaitMs);
            if (n <= 0) {
                continue;
            }
            OnDriverDatagram(received.data(), static_cast<size_t>(n));
        }
    } catch (const std::exception& e) {
        // A failed bind: speaker audio stops for the life of the process.
        VLOG(EGroupValueSevere, "Exception: %s", e.what());
    }
    VLOG(EGroupValueInformation, "Exit");
}

void RelayAudioManager::Pimpl::OnDriverDatagram(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return;
    }
    ByteBuffer<const uint8_t> buffer(data, size);
    uint8_t command = 0;
    buffer.ReadUInt8(command);
    switch (command) {
    case 0:
    case 1:
        break;
    case driver::DriverCommandSpeakerData:
        if (size >= driver::kMinSpeakerDatagram) {
            OnSpeakerData(static_cast<int>(size - 1), buffer);
        }
        break;
    case driver::DriverCommandAnnounce:
        OnDriverAnnounce();
        break;
    default:
        VLOG(EGroupValueWarning, "Unknown command %d", static_cast<int>(command));
        break;
    }
}

void RelayAudioManager::Pimpl::DriverExpireThreadFunc()
{
    VLOG(EGroupValueInformation, "Enter");
    while (m_running.load()) {
        if (m_audioActive.load() &&
            MonotonicMicroseconds() - m_lastAnnounce.load() >= kAnnounceLifetimeUs) {
            if (m_audioActive.exchange(false)) {
                OnAudioStop();
            }
        }
        std::this_thread::sleep_for(kExpiryLook);
    }
    VLOG(EGroupValueInformation, "Exit");
}

void RelayAudioManager::Pimpl::OnDriverAnnounce()
{
    m_lastAnnounce.store(MonotonicMicroseconds());
    if (!m_audioActive.exchange(true)) {
        OnAudioStart();
    }
}

void RelayAudioManager::Pimpl::OnAudioStart()
{
    VLOG(EGroupValueInformation, "Start Audio");
    Q_EMIT m_owner.SignalSendRelayCommand(
        RelayCommandData(RelayServiceAudio, RelayCommandAudioStart));
}

void RelayAudioManager::Pimpl::OnAudioStop()
{
    VLOG(EGroupValueInformation, "Stop Audio");
    Q_EMIT m_owner.SignalSendRelayCommand(
        RelayCommandData(RelayServiceAudio, RelayCommandAudioStop));
}

void RelayAudioManager::Pimpl::OnSpeakerData(int size, ByteBuffer<const uint8_t>& buffer)
{
    const int count = (size - 8) / 2;
    if (count == 0) {
        // A time stamp and no samples.
        return;
    }
    // The receive buffer is reused for the next datagram while this one
    // still waits in the transport's queue: the payload takes its own copy
    // of the time stamp and the samples.
    auto datagram = std::make_shared<const std::vector<uint8_t>>(
        buffer.Data() + buffer.Position(), buffer.Data() + buffer.Position() + size);
    Q_EMIT m_owner.SignalSendRelayCommand(
        RelayCommandData(RelayServiceAudio, RelayCommandSpeakerData,
                         [this, size, count, datagram](QDataStream& stream) {
                             WriteSpeakerPayload(stream, size, count, *datagram);
                         }));
}

void RelayAudioManager::Pimpl::WriteSpeakerPayload(QDataStream& stream, int size, int count,
                                                   const std::vector<uint8_t>& datagram)
{
    ByteBuffer<const uint8_t> reader(datagram.data(), datagram.size());
    uint64_t timestamp = 0;
    reader.ReadUInt64(timestamp);
    std::vector<int16_t> samples(static_cast<size_t>(count));
    driver::ReadBigEndianSamples(datagram.data() + 8, samples.size(), samples.data());

    if (timestamp == kNoTimestamp) {
        // Nothing is written: the command goes out without a payload.
        VLOG(EGroupValueSevere, "Failed to get timestamp for Relay audio");
    } else {
        if (!m_encoder) {
            m_encoder.reset(IAudioEncoder::CreateInstance(driver::kChannels, driver::kSampleRate));
        }
        std::unique_ptr<uint8_t[]> encoded;
        size_t length = 0;
        if (m_encoder->Encode(samples.data(), static_cast<size_t>(size - 8), encoded, length) < 0) {
            VLOG(EGroupValueSevere, "Failed to encode audio data");
            return;
        }
        stream << static_cast<qint32>(length + 24) << static_cast<qint32>(length);
        if (length) {
            stream.writeRawData(reinterpret_cast<const char*>(encoded.get()),
                                static_cast<int>(length));
        }
        // The stamp of the packet's start: less its duration, in ms.
        const uint64_t frames = static_cast<uint64_t>(size - 8) / driver::kBytesPerFrame;
        stream << static_cast<qint64>(timestamp - frames * 1000 / driver::kSampleRate);
        const int64_t now = UTCTime::Milliseconds();
        // The offset comes from the Kyr's clock, whatever that says: the sum
        // wraps in 64 bits instead of overflowing.
        stream << static_cast<qint64>(static_cast<uint64_t>(now) +
                                      static_cast<uint64_t>(m_timeOffset.load()));
        stream << static_cast<qint32>(m_rate.Update(frames, now));
    }

    const uint64_t old = m_pingCounter++;
    if (old >= kPingAfterPackets) {
        m_pingCounter = 0;
        m_owner.RequestTimeOffsetPing();
    }
}

void RelayAudioManager::Pimpl::OnAudioData(RelayService service, RelayCommand command,
                                           const QByteArray& data)
{
    if (service != RelayServiceAudio) {
        return;
    }
    switch (command) {
    case RelayCommandRequestAudio:
        OnMicrophoneResponse(data);
        break;
    case RelayCommandTimeOffsetPing:
        HandleTimeOffsetPing(data);
        break;
    case RelayCommandAudioStart:
        SendDriverIpAndPort(driver::PackDottedQuad(m_config.kyrIp), m_config.kyrPort,
                            m_config.relayPassword);
        break;
    default:
        break;
    }
}

void RelayAudioManager::Pimpl::OnMicrophoneResponse(const QByteArray& data)
{
    if (!m_usb_timer) {
        // The first response, asked for or not, starts the polling.
        VLOG(EGroupValueInformation, "Start m_usb_timer");
        m_usb_timer = new QTimer(&m_owner);
        m_usb_timer->setTimerType(Qt::PreciseTimer);
        m_usb_timer->setInterval(kMicrophonePollMs);
        QObject::connect(m_usb_timer, &QTimer::timeout, &m_owner,
                         &RelayAudioManager::RequestAudioData);
        m_usb_timer->start();
    }
    const int size = data.size();
    if (static_cast<size_t>(size) < kMicrophoneMinimum) {
        VLOG_LEVEL(EGroupValueSpew, 1, "No mic data to forward, sz=%d", size);
        return;
    }
    ByteBuffer<const uint8_t> reader(reinterpret_cast<const uint8_t*>(data.constData()),
                                     static_cast<size_t>(size));
    uint64_t t = 0;
    int32_t nf = 0;
    reader.ReadUInt64(t);
    reader.ReadInt32(nf);
    if (nf < 0) {
        VLOG(EGroupValueWarning, "Bad mic packet size t=%llu nf=%d sz=%d",
             static_cast<unsigned long long>(t), nf, size);
        return;
    }
    const size_t fit = std::min<size_t>((static_cast<size_t>(size) - 12) / driver::kBytesPerFrame,
                                        driver::kMaxMicrophoneFrames);
    if (fit >= static_cast<size_t>(nf)) {
        int16_t samples[driver::kMaxMicrophoneFrames * driver::kChannels];
        driver::ReadBigEndianSamples(reader.Data() + reader.Position(),
                                     static_cast<size_t>(nf) * driver::kChannels, samples);
        OnMicData(t, nf, samples);
    } else {
        // Too many frames for one datagram: the payload goes on unchanged.
        ByteBuffer<const uint8_t> whole(reader.Data(), reader.Size());
        ForwardMicData(whole);
    }
}

void RelayAudioManager::Pimpl::OnMicData(uint64_t timestamp, int frames, const int16_t* samples)
{
    if (!m_driverClient) {
        VLOG(EGroupValueWarning, "No driver UDP client");
        return;
    }
    if (frames < 1) {
        return;
    }
    uint8_t datagram[driver::kMaxMicrophoneDatagram];
    for (long pos = 0; pos < frames; pos += static_cast<long>(driver::kMaxMicrophoneFrames)) {
        const size_t chunk =
            std::min<size_t>(static_cast<size_t>(frames - pos), driver::kMaxMicrophoneFrames);
        const size_t length = driver::BuildMicrophoneDatagram(
            timestamp, samples + pos * driver::kChannels, chunk, datagram);
        const ssize_t r =
            m_driverClient->send(reinterpret_cast<const gsl::byte*>(datagram), length);
        if (r != static_cast<ssize_t>(length)) {
            const int error = errno;
            VLOG(EGroupValueWarning, "Send failed r=%ld pos=%ld %s", static_cast<long>(r), pos,
                 std::strerror(error));
        }
        timestamp += driver::kMaxMicrophoneFrames;
    }
}

void RelayAudioManager::Pimpl::ForwardMicData(ByteBuffer<const uint8_t>& buffer)
{
    if (!m_driverClient) {
        return;
    }
    const ssize_t r =
        m_driverClient->send(reinterpret_cast<const gsl::byte*>(buffer.Data()), buffer.Size());
    if (r != static_cast<ssize_t>(buffer.Size())) {
        const int error = errno;
        VLOG(EGroupValueWarning, "Send failed r=%ld pos=%ld %s", static_cast<long>(r), 0L,
             std::strerror(error));
    }
}

void RelayAudioManager::Pimpl::HandleTimeOffsetPing(const QByteArray& data)
{
    ByteBuffer<const uint8_t> reader(reinterpret_cast<const uint8_t*>(data.constData()),
                                     static_cast<size_t>(data.size()));
    int64_t sent = 0;
    int64_t remote = 0;
    if (!reader.ReadInt64(sent) || !reader.ReadInt64(remote)) {
        // Too short to hold both clocks: no sample.
        VLOG(EGroupValueWarning, "Bad time offset ping response sz=%d", data.size());
        return;
    }
    const int64_t now = UTCTime::Milliseconds();
    m_timeOffset.store(m_offsetFilter.AddSample(sent, remote, now));
}

} // namespace quorvan::velorane::relay
