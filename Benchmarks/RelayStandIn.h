#pragma once

// The relay's side of the audio driver for its benchmark: takes the speaker
// datagrams on base + 8 and notes when one carries a click; sends 864
// frames of microphone audio to base + 7 every 18 ms as the relay does,
// with a click when asked, and notes when it went. Times are
// CLOCK_MONOTONIC in ns.
//
// Threads: a receiver and a sender thread of its own; the others meet them
// only in atomics.

#include "Tests/Support/AudioUdpPeer.h"

#include <atomic>
#include <cstdint>
#include <thread>

namespace velorane::bench {

class RelayStandIn
{
public:
    explicit RelayStandIn(int base);
    ~RelayStandIn();
    RelayStandIn(const RelayStandIn&) = delete;
    RelayStandIn& operator=(const RelayStandIn&) = delete;

    bool Bound() const { return m_speaker.Bound(); }
    void Start();
    void Stop();
    // Microphone audio goes out while sending is on.
    void SetSending(bool sending) { m_sending = sending; }

    int64_t LastClickArrived() const { return m_arrived.load(); }
    // The next microphone datagram carries a click; returns when it went,
    // or 0 after a second.
    int64_t SendClick();

private:
    void Receive();
    void Send();

    int m_base;
    velorane::test::AudioUdpPeer m_speaker;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_sending{true};
    std::atomic<bool> m_clickWanted{false};
    std::atomic<int64_t> m_arrived{0};
    std::atomic<int64_t> m_sent{0};
    std::thread m_receiver;
    std::thread m_sender;
};

} // namespace velorane::bench
