#include "Benchmarks/RelayStandIn.h"

#include "Benchmarks/ApplicationStreams.h"

#include <chrono>
#include <vector>

namespace velorane::bench {

using namespace std::chrono_literals;

namespace {

constexpr int kMicrophoneFrames = 864;
constexpr auto kMicrophonePeriod = 18ms;

} // namespace

RelayStandIn::RelayStandIn(int base) : m_base(base), m_speaker(base + 8) {}

RelayStandIn::~RelayStandIn()
{
    Stop();
}

void RelayStandIn::Start()
{
    m_running = true;
    m_receiver = std::thread([this] { Receive(); });
    m_sender = std::thread([this] { Send(); });
}

void RelayStandIn::Stop()
{
    m_running = false;
    for (std::thread* thread : {&m_receiver, &m_sender}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
}

int64_t RelayStandIn::SendClick()
{
    m_sent = 0;
    m_clickWanted = true;
    const int64_t deadline = ApplicationStreams::NowNs() + 1000000000;
    while (m_sent.load() == 0 && ApplicationStreams::NowNs() < deadline) {
        std::this_thread::sleep_for(200us);
    }
    return m_sent.load();
}

void RelayStandIn::Receive()
{
    std::vector<uint8_t> datagram;
    while (m_running) {
        if (!m_speaker.Receive(datagram, 50ms) || datagram.empty() || datagram[0] != 2) {
            continue;
        }
        const int64_t now = ApplicationStreams::NowNs();
        for (size_t at = 9; at + 4 <= datagram.size(); at += 4) {
            const auto left = static_cast<int16_t>((datagram[at] << 8) | datagram[at + 1]);
            if (left == ApplicationStreams::kClick) {
                m_arrived = now;
                break;
            }
        }
    }
}

void RelayStandIn::Send()
{
    velorane::test::AudioUdpPeer socket;
    uint64_t stamp = 0;
    auto next = std::chrono::steady_clock::now();
    while (m_running) {
        std::this_thread::sleep_until(next);
        next += kMicrophonePeriod;
        if (!m_sending) {
            continue;
        }
        std::vector<uint8_t> datagram(8 + 4 * kMicrophoneFrames, 0);
        for (int i = 0; i < 8; ++i) {
            datagram[static_cast<size_t>(i)] = static_cast<uint8_t>(stamp >> (56 - 8 * i));
        }
        const bool click = m_clickWanted.exchange(false);
        if (click) {
            for (size_t at = 8; at < 12; at += 2) {
                datagram[at] = static_cast<uint8_t>(ApplicationStreams::kClick >> 8);
                datagram[at + 1] = static_cast<uint8_t>(ApplicationStreams::kClick & 0xFF);
            }
        }
        socket.SendTo(m_base + 7, datagram);
        if (click) {
            m_sent = ApplicationStreams::NowNs();
        }
        stamp += kMicrophoneFrames;
    }
}

} // namespace velorane::bench
