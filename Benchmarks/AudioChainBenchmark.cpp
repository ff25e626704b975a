// The relay's speaker chain against bare libopus, on the same samples.
//
//   relay: a driver datagram (command, big-endian time stamp, 480 big-endian
//          stereo frames) handed to the audio manager's OnSpeakerData as the
//          driver thread does, then the command it emits serialised as the
//          transport does: the payload functor swaps the samples, encodes
//          them through IAudioEncoder (resampler, ring, Opus) and writes the
//          payload. Everything from datagram in to payload out.
//   bare:  the same 480 frames swapped into host order and given to
//          opus_encode, the encoder made with the relay's settings.
//
// Both run on this thread, in turns of 50 packets, the first side
// alternating; a round is 500 packets a side, and the figure is the median
// over 30 rounds of the per-round ratio of CPU time per packet. The target
// is a ratio of at most 1.05.

#include "Benchmarks/BenchStats.h"
#include "Benchmarks/MachineLoad.h"
#include "Clients/Conference/RelayAudioManager.h"
#include "Clients/Conference/RelayAudioManagerPimpl.h"
#include "Common/Audio/Src/ByteBuffer.h"
#include "Common/Audio/Src/DriverMessages.h"

#include <QByteArray>
#include <QDataStream>

#include <opus.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

namespace {

using namespace quorvan;
using quorvan::velorane::RelayCommandData;
using quorvan::velorane::relay::RelayAudioManager;
using quorvan::velorane::relay::RelayConfig;
using ::velorane::bench::MachineLoad;
using ::velorane::bench::OwnCpuSeconds;
using ::velorane::bench::Quantile;

constexpr int kFrames = 480;
constexpr int kPackets = 2000; // distinct datagrams, played in a loop
constexpr int kRounds = 30;
constexpr int kPerRound = 500;
constexpr int kTurn = 50;

bool UdpPortFree(int port)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return free;
}

int FreeBasePort()
{
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> pick(20000, 50000);
    for (int attempt = 0; attempt < 200; ++attempt) {
        const int base = pick(random);
        if (UdpPortFree(base + 7) && UdpPortFree(base + 8)) {
            return base;
        }
    }
    return 0;
}

// Datagrams of a music-like signal: two tones and a little noise.
std::vector<std::vector<uint8_t>> MakeDatagrams()
{
    std::vector<std::vector<uint8_t>> datagrams;
    std::mt19937 random(7);
    std::uniform_int_distribution<int> noise(-300, 300);
    for (int packet = 0; packet < kPackets; ++packet) {
        std::vector<uint8_t> datagram = {driver::DriverCommandSpeakerData};
        const uint64_t stamp = 1700000000000ull + static_cast<uint64_t>(packet) * 10;
        for (int shift = 56; shift >= 0; shift -= 8) {
            datagram.push_back(static_cast<uint8_t>(stamp >> shift));
        }
        for (int i = 0; i < kFrames; ++i) {
            const double t = static_cast<double>(packet * kFrames + i) / 48000.0;
            for (int channel = 0; channel < 2; ++channel) {
                const double value = 6000 * std::sin(2 * M_PI * 440 * t) +
                                     3000 * std::sin(2 * M_PI * (1320 + 200 * channel) * t) +
                                     noise(random);
                const auto sample = static_cast<uint16_t>(static_cast<int16_t>(value));
                datagram.push_back(static_cast<uint8_t>(sample >> 8));
                datagram.push_back(static_cast<uint8_t>(sample & 0xFF));
            }
        }
        datagrams.push_back(std::move(datagram));
    }
    return datagrams;
}

class RelaySide
{
public:
    RelaySide(RelayAudioManager& owner, const RelayConfig& config) : m_pimpl(owner, config)
    {
        QObject::connect(
            &owner, &RelayAudioManager::SignalSendRelayCommand, &owner,
            [this](RelayCommandData command) { m_emitted.push_back(std::move(command)); },
            Qt::DirectConnection);
    }

    // One datagram in, its command's bytes out; returns the bytes written.
    int Packet(const std::vector<uint8_t>& datagram)
    {
        ByteBuffer<const uint8_t> buffer(datagram.data(), datagram.size());
        uint8_t command = 0;
        buffer.ReadUInt8(command);
        m_emitted.clear();
        m_pimpl.OnSpeakerData(static_cast<int>(datagram.size() - 1), buffer);
        if (m_emitted.empty()) {
            return 0;
        }
        const RelayCommandData speaker = m_emitted.front();
        m_out.clear();
        QDataStream stream(&m_out, QIODevice::WriteOnly);
        stream.setByteOrder(QDataStream::LittleEndian);
        stream << static_cast<quint32>(speaker.service) << static_cast<quint32>(speaker.command);
        speaker.payloadFunctor(stream);
        return m_out.size();
    }

private:
    RelayAudioManager::Pimpl m_pimpl;
    std::vector<RelayCommandData> m_emitted;
    QByteArray m_out;
};

class BareSide
{
public:
    BareSide()
    {
        int error = 0;
        m_encoder = opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, &error);
        opus_encoder_ctl(m_encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    }
    ~BareSide() { opus_encoder_destroy(m_encoder); }
    BareSide(const BareSide&) = delete;
    BareSide& operator=(const BareSide&) = delete;

    int Packet(const std::vector<uint8_t>& datagram)
    {
        driver::ReadBigEndianSamples(datagram.data() + 9, kFrames * 2, m_samples);
        return opus_encode(m_encoder, m_samples, kFrames, m_out, sizeof(m_out));
    }

private:
    OpusEncoder* m_encoder = nullptr;
    int16_t m_samples[kFrames * 2];
    unsigned char m_out[1916];
};

} // namespace

int main()
{
    const int base = FreeBasePort();
    const int benchBase = FreeBasePort();
    if (base == 0 || benchBase == 0) {
        std::fprintf(stderr, "no free UDP ports\n");
        return 1;
    }
    RelayConfig config;
    config.kyrIp = "127.0.0.1";
    config.kyrPort = static_cast<uint16_t>(base);
    std::unique_ptr<RelayAudioManager> manager = RelayAudioManager::NewInstance(config);
    RelayConfig benchConfig = config;
    benchConfig.kyrPort = static_cast<uint16_t>(benchBase);
    RelaySide relay(*manager, benchConfig);
    BareSide bare;
    const std::vector<std::vector<uint8_t>> datagrams = MakeDatagrams();

    // Warm both encoders up.
    for (int i = 0; i < 200; ++i) {
        relay.Packet(datagrams[static_cast<size_t>(i)]);
        bare.Packet(datagrams[static_cast<size_t>(i)]);
    }

    std::vector<double> ratios;
    double relayTotal = 0;
    double bareTotal = 0;
    long long relayBytes = 0;
    long long bareBytes = 0;
    size_t relayNext = 0;
    size_t bareNext = 0;
    MachineLoad load;
    for (int round = 0; round < kRounds; ++round) {
        double relayCpu = 0;
        double bareCpu = 0;
        for (int done = 0; done < kPerRound; done += kTurn) {
            for (int side = 0; side < 2; ++side) {
                const bool relayTurn = (side == 0) == (round % 2 == 0);
                const double start = OwnCpuSeconds();
                for (int i = 0; i < kTurn; ++i) {
                    if (relayTurn) {
                        relayBytes += relay.Packet(datagrams[relayNext++ % datagrams.size()]);
                    } else {
                        bareBytes += bare.Packet(datagrams[bareNext++ % datagrams.size()]);
                    }
                }
                (relayTurn ? relayCpu : bareCpu) += OwnCpuSeconds() - start;
            }
        }
        ratios.push_back(relayCpu / bareCpu);
        relayTotal += relayCpu;
        bareTotal += bareCpu;
    }
    const double packets = static_cast<double>(kRounds) * kPerRound;
    std::printf("speaker chain, %d rounds of %d packets a side (480 stereo frames, 10 ms each)\n",
                kRounds, kPerRound);
    std::printf("  relay: %.1f us CPU per packet (%lld bytes of commands)\n",
                relayTotal / packets * 1e6, relayBytes);
    std::printf("  bare:  %.1f us CPU per packet (%lld bytes of Opus)\n", bareTotal / packets * 1e6,
                bareBytes);
    std::printf("  ratio relay/bare: median %.3f (p10 %.3f, p90 %.3f); target <= 1.05: %s\n",
                Quantile(ratios, 0.5), Quantile(ratios, 0.1), Quantile(ratios, 0.9),
                Quantile(ratios, 0.5) <= 1.05 ? "met" : "NOT met");
    std::printf("  other programs meanwhile: %.2f processors\n", load.Others());
    return 0;
}
