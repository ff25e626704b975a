#include "Drivers/AudioDriver/RelayLink.h"

#include "Drivers/AudioDriver/DriverDatagrams.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Network/Src/UdpUtilRuntimeError.h"

#include <gsl/gsl>

#include <cerrno>
#include <cstring>

namespace quorvan::velorane::audiodriver {

namespace {

// The largest UDP datagram over IPv4: nothing arrives cut short.
constexpr size_t kLargestDatagram = 65536;
const char* const kLoopback = "127.0.0.1";

} // namespace

RelayLink::RelayLink(MainLoop& loop, int controlPort, int basePort, MicrophoneHandler onMicrophone,
                     RelayChangedHandler onRelayChanged)
    : m_loop(loop), m_controlPort(controlPort), m_onMicrophone(std::move(onMicrophone)),
      m_onRelayChanged(std::move(onRelayChanged)), m_datagram(kLargestDatagram),
      m_samples(kLargestDatagram / 2)
{
    if (basePort > 0 && MeetsControlPort(basePort)) {
        VLOG(EGroupValueWarning, "Ignored base port %d: its audio ports would take port %d",
             basePort, m_controlPort);
    } else if (basePort > 0) {
        UseBasePort(basePort);
        m_relayPresent = true;
    }
    BindMissing();
}

bool RelayLink::MeetsControlPort(int basePort) const
{
    // Two sockets on one port with SO_REUSEADDR both bind, and which of
    // them gets a datagram is the kernel's choice: the relay's address
    // messages could be read as microphone audio, or the driver's speaker
    // audio and announces would come back to its own control socket.
    return basePort + kMicrophonePortOffset == m_controlPort ||
           basePort + kSpeakerPortOffset == m_controlPort;
}

RelayLink::~RelayLink() = default;

void RelayLink::BindMissing()
{
    if (!m_control) {
        try {
            m_control = std::make_unique<SimpleUdpServer>(kLoopback, m_controlPort);
            m_controlWatch =
                m_loop.AddReadable(m_control->getSocket(), [this] { OnControlReadable(); });
            VLOG(EGroupValueInformation, "Waiting for the relay on %s:%d", kLoopback,
                 m_controlPort);
        } catch (const UdpUtilRuntimeError& error) {
            VLOG(EGroupValueWarning, "No relay messages until %s:%d is free: %s", kLoopback,
                 m_controlPort, error.what());
        }
    }
    if (!m_microphone && m_basePort > 0) {
        const int port = m_basePort + kMicrophonePortOffset;
        try {
            m_microphone = std::make_unique<SimpleUdpServer>(kLoopback, port);
            m_microphoneWatch =
                m_loop.AddReadable(m_microphone->getSocket(), [this] { OnMicrophoneReadable(); });
            VLOG(EGroupValueInformation, "Microphone audio on %s:%d", kLoopback, port);
        } catch (const UdpUtilRuntimeError& error) {
            VLOG(EGroupValueWarning, "No microphone audio until %s:%d is free: %s", kLoopback, port,
                 error.what());
        }
    }
}

void RelayLink::UseBasePort(int basePort)
{
    if (basePort == m_basePort) {
        return;
    }
    m_microphoneWatch.reset();
    m_microphone.reset();
    m_speaker.reset();
    m_basePort = basePort;
    try {
        m_speaker = std::make_unique<UdpClient>(kLoopback, basePort + kSpeakerPortOffset);
        VLOG(EGroupValueInformation, "Speaker audio and announces to %s:%d", kLoopback,
             basePort + kSpeakerPortOffset);
    } catch (const UdpUtilRuntimeError& error) {
        VLOG(EGroupValueSevere, "No speaker socket: %s", error.what());
    }
    BindMissing();
}

void RelayLink::Announce()
{
    if (m_speaker) {
        const uint8_t announce = kCommandAnnounce;
        m_speaker->send(reinterpret_cast<const gsl::byte*>(&announce), 1);
    }
}

void RelayLink::SendSpeaker(const uint8_t* datagram, size_t size)
{
    if (!WantsSpeaker()) {
        return;
    }
    const ssize_t sent = m_speaker->send(reinterpret_cast<const gsl::byte*>(datagram), size);
    if (sent != static_cast<ssize_t>(size)) {
        VLOG(EGroupValueWarning, "Speaker datagram not sent (%zd of %zu bytes): %s", sent, size,
             std::strerror(errno));
    }
}

void RelayLink::OnControlReadable()
{
    for (;;) {
        const ssize_t size = m_control->timedRecv(reinterpret_cast<gsl::byte*>(m_datagram.data()),
                                                  m_datagram.size(), 0);
        if (size < 0) {
            return;
        }
        TakeAddress(m_datagram.data(), static_cast<size_t>(size));
    }
}

void RelayLink::TakeAddress(const uint8_t* data, size_t size)
{
    RelayAddress address;
    const AddressParse result = ParseRelayAddress(data, size, &address);
    if (result != AddressParse::Ok) {
        VLOG(EGroupValueWarning, "Ignored a %zu-byte message on port %d: %s", size, m_controlPort,
             AddressParseText(result));
        return;
    }
    if (address.goodbye) {
        VLOG(EGroupValueInformation, "The relay is going away");
        m_relayPresent = false;
        m_onRelayChanged();
        return;
    }
    if (MeetsControlPort(address.basePort)) {
        VLOG(EGroupValueWarning, "Ignored base port %d: its audio ports would take port %d",
             address.basePort, m_controlPort);
        return;
    }
    const bool moved = address.basePort != m_basePort;
    VLOG(EGroupValueInformation, "Relay at base port %d, Kyr %s", address.basePort,
         DottedAddress(address.ip).c_str());
    const bool news = moved || !m_relayPresent;
    if (news) {
        m_onRelayChanged();
    }
    UseBasePort(address.basePort);
    m_relayPresent = true;
    if (news) {
        // A new relay learns at once that the driver is there.
        Announce();
    }
}

void RelayLink::OnMicrophoneReadable()
{
    for (;;) {
        if (!m_microphone) {
            return;
        }
        const ssize_t size = m_microphone->timedRecv(
            reinterpret_cast<gsl::byte*>(m_datagram.data()), m_datagram.size(), 0);
        if (size < 0) {
            return;
        }
        uint64_t stamp = 0;
        size_t frames = 0;
        if (!ParseMicrophoneHeader(m_datagram.data(), static_cast<size_t>(size), &stamp, &frames)) {
            VLOG(EGroupValueWarning, "Ignored a %zd-byte microphone datagram", size);
            continue;
        }
        ReadMicrophoneSamples(m_datagram.data(), frames, m_samples.data());
        m_onMicrophone(stamp, m_samples.data(), frames);
    }
}

} // namespace quorvan::velorane::audiodriver
