// Datagrams from the relay to the audio driver (Drivers/AudioDriver): the
// address message on the control port and microphone audio on the base
// port + 7, sent on real UDP sockets on loopback to the driver's RelayLink.
// As in the driver, the link's microphone audio goes through the jitter
// buffer into the microphone ring, which MicrophonePlayout plays from at
// each graph cycle. No PipeWire server is needed: the link runs on the
// driver's MainLoop (PipeWire's own loop, turned here by hand after each
// datagram), and the graph cycles are called here as PipeWire's real-time
// thread calls them. The link, the buffer, the ring and the playout are
// made afresh for each input; the loop once per process.
//
// The input is a row of steps, each picked by a byte from its end: an
// address message or a microphone datagram (lengths from the end, bytes
// from the front), a graph cycle of some frames, the clock moving on (the
// jitter buffer's poll, as on the driver's 10 ms tick), or the driver's
// once-a-second announce and rebinding. The first values from the end
// pick whether the driver starts with a base port (--base-port) and which.
//
// The control port is the driver's 9002 and the base ports are the
// input's: scripts/fuzz.sh runs the target in a network namespace of its
// own, so no relay or driver on the machine meets it. When 9002 is taken
// the target says so and uses a free port instead.
//
// Checked: a microphone datagram that reaches the driver is handed on
// once, with the time stamp, the frame count and the samples it carries,
// and one too short for a time stamp not at all; the speaker side wants to
// send after an address message the driver takes and stops after the
// goodbye, and a message it refuses changes nothing; after each graph
// cycle the ring holds no more than a cycle, the cushion and the slack
// (the delay stays bounded).

#include "Drivers/AudioDriver/AudioDriver.h"
#include "Drivers/AudioDriver/AudioRing.h"
#include "Drivers/AudioDriver/DriverDatagrams.h"
#include "Drivers/AudioDriver/MainLoop.h"
#include "Drivers/AudioDriver/MicrophoneJitterBuffer.h"
#include "Drivers/AudioDriver/MicrophonePlayout.h"
#include "Drivers/AudioDriver/RelayLink.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <pipewire/pipewire.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace quorvan::velorane::audiodriver;

namespace {

// Steps in one input, so that a long input stays quick.
constexpr int kMaxSteps = 256;
// The largest UDP datagram on IPv4.
constexpr size_t kLargestDatagram = 65507;
// PipeWire's largest graph cycle.
constexpr size_t kLargestCycle = 8192;

struct Process
{
    MainLoop loop;
    int controlPort = kControlPort;
    // The relay's socket: sends both kinds of datagram, and is where an
    // announce lands when the input names its port.
    int relay = -1;
    int relayPort = 0;
};

Process* g_process = nullptr;

int BoundUdpSocket(int port, int* boundPort)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof(address);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    if (boundPort) {
        *boundPort = ntohs(address.sin_port);
    }
    return fd;
}

void SendTo(int port, const std::vector<uint8_t>& datagram)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    sendto(g_process->relay, datagram.data(), datagram.size(), 0,
           reinterpret_cast<sockaddr*>(&address), sizeof(address));
}

// Loopback hands a datagram over within sendto: one turn of the loop
// finds it.
void TurnLoop()
{
    pw_loop_iterate(g_process->loop.Loop(), 0);
}

// Announces the link sent to the relay's own port.
void DrainRelaySocket()
{
    uint8_t buffer[16];
    while (recv(g_process->relay, buffer, sizeof(buffer), MSG_DONTWAIT) >= 0) {
    }
}

// A base port whose microphone or speaker port is the control port: the
// driver refuses it.
bool MeetsControlPort(int basePort)
{
    return basePort + kMicrophonePortOffset == g_process->controlPort ||
           basePort + kSpeakerPortOffset == g_process->controlPort;
}

uint64_t BigEndian(const uint8_t* at, int bytes)
{
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = (value << 8) | at[i];
    }
    return value;
}

struct Handed
{
    uint64_t stamp = 0;
    std::vector<int16_t> samples;
    size_t frames = 0;
};

// What the driver's parts hold for one input.
struct Driver
{
    AudioRing ring{AudioDriver::kRingFrames};
    MicrophoneJitterBuffer jitter{ring};
    MicrophonePlayout playout{ring};
    int64_t nowMs = 1000000;
    std::vector<Handed> handed;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    pw_init(nullptr, nullptr);
    g_process = new Process();
    if (!g_process->loop.Valid()) {
        std::abort();
    }
    // Entered once for good: every turn runs on this thread.
    pw_loop_enter(g_process->loop.Loop());
    const int probe = BoundUdpSocket(kControlPort, nullptr);
    if (probe >= 0) {
        close(probe);
    } else {
        const int free = BoundUdpSocket(0, &g_process->controlPort);
        close(free);
        std::fprintf(stderr,
                     "fuzz_audio_driver_program: port %d is taken, the control port is %d: run it "
                     "in a network namespace of its own (scripts/fuzz.sh does)\n",
                     kControlPort, g_process->controlPort);
    }
    g_process->relay = BoundUdpSocket(0, &g_process->relayPort);
    if (g_process->relay < 0) {
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const int startPort =
        input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(1, kMaxBasePort) : 0;

    Driver driver;
    RelayLink link(
        g_process->loop, g_process->controlPort, startPort,
        [&driver](uint64_t stamp, const int16_t* samples, size_t frames) {
            driver.handed.push_back(
                Handed{stamp, std::vector<int16_t>(samples, samples + frames * kChannels), frames});
            driver.jitter.Push(stamp, samples, frames, driver.nowMs);
        },
        [&driver] { driver.jitter.Reset(); });
    // Where the target sends microphone audio: the base port it last named
    // and the driver took.
    const bool startTaken = startPort > 0 && !MeetsControlPort(startPort);
    int basePort = startTaken ? startPort : 0;
    bool relayThere = startTaken;
    VELORANE_FUZZ_CHECK(link.WantsSpeaker() == relayThere);

    for (int step = 0; step < kMaxSteps && input.remaining_bytes() > 0; ++step) {
        const int kind = input.ConsumeIntegral<uint8_t>() % 5;
        switch (kind) {
        case 0:
        case 1: {
            // 0: an address message, 1: microphone audio.
            const bool address = kind == 0;
            const size_t length = input.ConsumeIntegralInRange<size_t>(0, kLargestDatagram);
            const std::vector<uint8_t> datagram = input.ConsumeBytes<uint8_t>(length);
            const int port = address ? g_process->controlPort : basePort + kMicrophonePortOffset;
            if (port == g_process->relayPort || (!address && basePort == 0)) {
                // No driver socket there.
                break;
            }
            const size_t handedBefore = driver.handed.size();
            SendTo(port, datagram);
            TurnLoop();
            DrainRelaySocket();
            if (port == g_process->controlPort) {
                VELORANE_FUZZ_CHECK(driver.handed.size() == handedBefore);
                RelayAddress parsed;
                if (ParseRelayAddress(datagram.data(), datagram.size(), &parsed) ==
                        AddressParse::Ok &&
                    (parsed.goodbye || !MeetsControlPort(parsed.basePort))) {
                    relayThere = !parsed.goodbye;
                    if (!parsed.goodbye) {
                        basePort = parsed.basePort;
                    }
                }
                VELORANE_FUZZ_CHECK(link.WantsSpeaker() == relayThere);
                break;
            }
            // Handed on once, as it came; not at all without a time stamp.
            VELORANE_FUZZ_CHECK(driver.handed.size() <= handedBefore + 1);
            if (datagram.size() < kMicrophoneHeader) {
                VELORANE_FUZZ_CHECK(driver.handed.size() == handedBefore);
            }
            if (driver.handed.size() == handedBefore + 1) {
                const Handed& last = driver.handed.back();
                const size_t frames = (datagram.size() - kMicrophoneHeader) / kBytesPerFrame;
                VELORANE_FUZZ_CHECK(last.stamp == BigEndian(datagram.data(), 8));
                VELORANE_FUZZ_CHECK(last.frames == frames);
                for (size_t i = 0; i < frames * kChannels; ++i) {
                    const uint8_t* at = datagram.data() + kMicrophoneHeader + 2 * i;
                    VELORANE_FUZZ_CHECK(last.samples[i] == static_cast<int16_t>(BigEndian(at, 2)));
                }
            }
            VELORANE_FUZZ_CHECK(link.WantsSpeaker() == relayThere);
            break;
        }
        case 2: {
            const size_t frames = input.ConsumeIntegralInRange<size_t>(1, kLargestCycle);
            // Exactly the cycle's samples: a write past them is a finding.
            std::vector<int16_t> samples(frames * kChannels);
            driver.playout.OnCycle(samples.data(), frames);
            VELORANE_FUZZ_CHECK(driver.ring.Available() <= frames +
                                                               MicrophonePlayout::kCushionFrames +
                                                               MicrophonePlayout::kSlackFrames);
            break;
        }
        case 3:
            driver.nowMs += input.ConsumeIntegralInRange<int>(0, 1023);
            driver.jitter.Poll(driver.nowMs);
            break;
        default:
            link.Announce();
            link.BindMissing();
            DrainRelaySocket();
            break;
        }
        VELORANE_FUZZ_CHECK(driver.ring.Available() <= driver.ring.CapacityFrames());
    }
    return 0;
}
