// The audio driver's cost and delay, on a private headless PipeWire:
//   - CPU per second of the driver process while audio flows both ways (an
//     application plays into "Velorane Speaker" and another records
//     "Velorane Microphone"; the benchmark stands in for the relay, taking
//     the speaker datagrams and sending 864 frames of microphone audio
//     every 18 ms as the relay does), and while nothing is linked;
//   - the same for the bare library beside it: two nodes made as the driver
//     makes its own, doing nothing (BareDeviceNodes, in a child process),
//     on a second private PipeWire of their own. (On one graph, whichever
//     client's node runs last in the cycle pays for waking the daemon, and
//     that was most of the cost: the two sides swapped their figures when
//     their nodes swapped places.)
//   - the delay it adds: from the application's cycle that carries a click
//     to the speaker datagram with it, and from the microphone datagram
//     with a click to the recording application's cycle that has it.
//
//   audio_driver_benchmark [--rounds N] [--seconds S]

#include "Benchmarks/ApplicationStreams.h"
#include "Benchmarks/BareDeviceNodes.h"
#include "Benchmarks/BenchStats.h"
#include "Benchmarks/RelayStandIn.h"
#include "Tests/Support/AudioDriverScene.h"
#include "Tests/Support/AudioUdpPeer.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using velorane::bench::ApplicationStreams;
using velorane::bench::Quantile;
using velorane::bench::RelayStandIn;
using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

// CPU time of one thread, in seconds.
double ThreadCpu(pid_t pid, pid_t tid)
{
    std::ifstream schedstat("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) +
                            "/schedstat");
    double nanoseconds = 0;
    schedstat >> nanoseconds;
    return nanoseconds * 1e-9;
}

// CPU time of all threads of a process, in seconds.
double ProcessCpu(pid_t pid)
{
    double total = 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    if (DIR* dir = opendir(tasks.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            std::ifstream schedstat(tasks + "/" + entry->d_name + "/schedstat");
            double nanoseconds = 0;
            schedstat >> nanoseconds;
            total += nanoseconds * 1e-9;
        }
        closedir(dir);
    }
    return total;
}

std::string LoadAverage()
{
    std::ifstream loadavg("/proc/loadavg");
    std::string one, five, fifteen;
    loadavg >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// Waits for an event later than since; its time less since, in ms, or -1.
template <typename Probe> double DelayMs(int64_t since, Probe probe)
{
    const int64_t deadline = since + 1000000000;
    while (ApplicationStreams::NowNs() < deadline) {
        const int64_t at = probe();
        if (at > since) {
            return static_cast<double>(at - since) / 1e6;
        }
        std::this_thread::sleep_for(200us);
    }
    return -1;
}

void PrintDelays(const char* what, const std::vector<double>& delays, size_t clicks)
{
    std::printf("  %s: %zu of %zu clicks, median %.1f ms, p10 %.1f, p90 %.1f, max %.1f\n", what,
                delays.size(), clicks, Quantile(delays, 0.5), Quantile(delays, 0.1),
                Quantile(delays, 0.9), Quantile(delays, 1.0));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--bare-nodes") == 0) {
        return velorane::bench::RunBareDeviceNodes();
    }
    int rounds = 3;
    int seconds = 10;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--rounds") == 0) {
            rounds = std::max(1, std::atoi(argv[i + 1]));
        } else if (std::strcmp(argv[i], "--seconds") == 0) {
            seconds = std::max(1, std::atoi(argv[i + 1]));
        }
    }
    std::printf("load average before: %s\n", LoadAverage().c_str());

    AudioDriverScene scene;
    if (!scene.StartPipeWire()) {
        std::fprintf(stderr, "no PipeWire: %s\n", scene.PipeWire().Error().c_str());
        return 1;
    }
    const int base = AudioUdpPeer::FreeBasePort();
    RelayStandIn relay(base);
    AudioUdpPeer controlProbe;
    const int control = controlProbe.Port();
    if (!relay.Bound() || !scene.StartDriver({"--base-port", std::to_string(base), "--control-port",
                                              std::to_string(control)})) {
        std::fprintf(stderr, "the driver didn't start:\n%s\n", scene.Driver().Output().c_str());
        return 1;
    }
    // This process is a client of the same private PipeWire.
    for (const auto& [name, value] : scene.PipeWire().Environment()) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    for (const std::string& name : HeadlessPipeWire::Unset()) {
        unsetenv(name.c_str());
    }
    pw_init(&argc, &argv);
    relay.Start();
    HeadlessPipeWire barePipeWire;
    ChildProcess bare;
    ChildProcess::Options bareOptions;
    bareOptions.argv = {"/proc/self/exe", "--bare-nodes"};
    bareOptions.environment = barePipeWire.Environment();
    bareOptions.unset = HeadlessPipeWire::Unset();
    bareOptions.outputFile = barePipeWire.Dir().File("bare.out");
    if (!barePipeWire.Start() || !bare.Start(bareOptions) ||
        !barePipeWire.WaitForPulseNode("sinks", "bare-speaker", 10s)) {
        std::fprintf(stderr, "the bare nodes didn't start:\n%s\n", bare.Output().c_str());
        return 1;
    }

    const pid_t driver = scene.Driver().Pid();
    for (int round = 1; round <= rounds; ++round) {
        auto apps = std::make_unique<ApplicationStreams>();
        if (!apps->Start()) {
            std::fprintf(stderr, "the application streams didn't start\n");
            return 1;
        }
        relay.SetSending(true);
        std::this_thread::sleep_for(1s);

        // Both ways, with a click each way every 250 ms.
        std::mt19937 random(static_cast<unsigned>(round));
        std::uniform_int_distribution<int> jitter(0, 9999);
        std::vector<double> speaker;
        std::vector<double> microphone;
        size_t clicks = 0;
        const double cpuStart = ProcessCpu(driver);
        const double mainStart = ThreadCpu(driver, driver);
        const double bareStart = ProcessCpu(bare.Pid());
        const auto start = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - start < std::chrono::seconds(seconds)) {
            ++clicks;
            const int64_t played = apps->PlayClick();
            const double toDatagram =
                played ? DelayMs(played, [&relay] { return relay.LastClickArrived(); }) : -1;
            if (toDatagram >= 0) {
                speaker.push_back(toDatagram);
            }
            const int64_t sent = relay.SendClick();
            const double toApplication =
                sent ? DelayMs(sent, [&apps] { return apps->LastClickHeard(); }) : -1;
            if (toApplication >= 0) {
                microphone.push_back(toApplication);
            }
            // A random part of 10 ms on top, so that the clicks fall at
            // every point of the driver's 10 ms send timer.
            std::this_thread::sleep_until(start + clicks * 250ms +
                                          std::chrono::microseconds(jitter(random)));
        }
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double busy = (ProcessCpu(driver) - cpuStart) * 1000 / elapsed;
        const double busyMain = (ThreadCpu(driver, driver) - mainStart) * 1000 / elapsed;
        const double bareBusy = (ProcessCpu(bare.Pid()) - bareStart) * 1000 / elapsed;

        // Nothing linked, no microphone audio: the nodes still run (the
        // speaker's silence still goes to the relay).
        apps.reset();
        relay.SetSending(false);
        std::this_thread::sleep_for(1s);
        const double idleStart = ProcessCpu(driver);
        const double bareIdleStart = ProcessCpu(bare.Pid());
        const auto idleFrom = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const double idleElapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - idleFrom).count();
        const double idle = (ProcessCpu(driver) - idleStart) * 1000 / idleElapsed;
        const double bareIdle = (ProcessCpu(bare.Pid()) - bareIdleStart) * 1000 / idleElapsed;

        std::printf("round %d: CPU ms per second: driver %.2f both ways (main loop %.2f), %.2f "
                    "idle; bare nodes %.2f and %.2f in the same windows\n",
                    round, busy, busyMain, idle, bareBusy, bareIdle);
        PrintDelays("application to datagram", speaker, clicks);
        PrintDelays("datagram to application", microphone, clicks);
    }
    relay.Stop();
    ::kill(bare.Pid(), SIGTERM);
    bare.WaitForExit(5s);
    std::printf("load average after: %s\n", LoadAverage().c_str());
    return 0;
}
