#pragma once

// The driver's UDP link with the relay on 127.0.0.1. It listens on the
// control port (9002) for the Kyr's address, which names the relay's base
// port; sends announces (at once to a new relay, then each second) and
// speaker datagrams to base + 8; and receives microphone datagrams on
// base + 7. A new base port moves both at once. The
// all-zero address message (the relay is going away) stops the speaker
// datagrams until the next address; announces go on to the last base port,
// so a relay started again there sees the driver at once. A port that can't
// be bound is tried again at each BindMissing.
//
// Threads: the main loop only.

#include "Drivers/AudioDriver/MainLoop.h"

#include "Common/Network/Src/SimpleUdpServer.h"
#include "Common/Network/Src/UdpClient.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace quorvan::velorane::audiodriver {

class RelayLink
{
public:
    // A microphone datagram's time stamp (in frames) and its frames, in
    // host order.
    using MicrophoneHandler =
        std::function<void(uint64_t stamp, const int16_t* samples, size_t frames)>;
    // The relay went away or another took its place: the microphone stream
    // starts over.
    using RelayChangedHandler = std::function<void()>;

    // basePort 0: none until the first address message.
    RelayLink(MainLoop& loop, int controlPort, int basePort, MicrophoneHandler onMicrophone,
              RelayChangedHandler onRelayChanged);
    ~RelayLink();
    RelayLink(const RelayLink&) = delete;
    RelayLink& operator=(const RelayLink&) = delete;

    // Binds the control and microphone ports that aren't bound yet.
    void BindMissing();
    // One announce to the last base port, if there is one.
    void Announce();
    // Speaker datagrams go out only while a relay is there.
    bool WantsSpeaker() const { return m_speaker != nullptr && m_relayPresent; }
    void SendSpeaker(const uint8_t* datagram, size_t size);

private:
    void UseBasePort(int basePort);
    // Whether the microphone or the speaker port of basePort is the
    // control port: such a base port is refused.
    bool MeetsControlPort(int basePort) const;
    void OnControlReadable();
    void OnMicrophoneReadable();
    void TakeAddress(const uint8_t* data, size_t size);

    MainLoop& m_loop;
    int m_controlPort;
    int m_basePort = 0;
    bool m_relayPresent = false;
    MicrophoneHandler m_onMicrophone;
    RelayChangedHandler m_onRelayChanged;

    std::unique_ptr<SimpleUdpServer> m_control;
    std::unique_ptr<MainLoop::Source> m_controlWatch;
    std::unique_ptr<SimpleUdpServer> m_microphone;
    std::unique_ptr<MainLoop::Source> m_microphoneWatch;
    std::unique_ptr<UdpClient> m_speaker;

    std::vector<uint8_t> m_datagram;
    std::vector<int16_t> m_samples;
};

} // namespace quorvan::velorane::audiodriver
