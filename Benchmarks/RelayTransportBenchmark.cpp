// The relay pulling 1080p from kyr-sim over each of its two carriers, in one
// run and under the same conditions: TLS on loopback (TcpCommunication) and
// USB bulk transfers to a Kyr that umockdev emulates (UsbCommunication, the
// relay's default link). Turns of the two alternate, each with a fresh
// transport on its own thread, and each turn measures twice, the first
// second of each left out:
//
//   - paced: RelayWindow (1920x1080) asks for a frame every 66 ms as in the
//     relay, decodes and draws it; frames per second answered and drawn,
//     and the relay's CPU per frame (the process, and its transport,
//     decoder and GUI threads);
//   - flat out: the transport alone, the next RequestFrame sent as soon as
//     an answer is in, nothing decoded; frames per second and the process's
//     CPU per frame, which is the carrier's.
//
// The relay's classes run in this process, wired as ApplicationWrapper wires
// them, and the pictures are counted where RelayWindow hands them to the
// renderer (SetPictureHook, through the linker's --wrap; see CMakeLists.txt). The process
// runs under umockdev's preload library, which it starts itself again under,
// for both carriers alike; kyr-sim serves each carrier from a process of its
// own, and its CPU is shown beside (over USB it includes umockdev's side of
// every transfer).

#include "Benchmarks/BenchStats.h"
#include "Benchmarks/MachineLoad.h"
#include "Benchmarks/RelayBenchSetup.h"
#include "Clients/Conference/RelayConfig.h"
#include "Clients/Conference/RelayWindow.h"
#include "Clients/ConferenceTransport/Src/TcpCommunication.h"
#include "Clients/ConferenceTransport/Src/UsbCommunication.h"
#include "Tools/Common/EmulatedUsbDevice.h"

#include <QApplication>
#include <QEventLoop>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QThread>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace quorvan::velorane;
using quorvan::velorane::relay::RelayConfig;
using quorvan::velorane::relay::RelayWindow;
namespace bench = ::velorane::bench;
namespace test = ::velorane::test;

namespace {

constexpr char kPassword[] = "benchmark";

struct Options
{
    int rounds = 3;
    int pacedSeconds = 10;
    int flatSeconds = 5;
    int width = 1920;
    int height = 1080;
};

using bench::ThreadId;

// Pictures handed to the renderer, and the decoder thread that did it.
std::atomic<size_t> g_pictures{0};
std::atomic<long> g_decoderThread{0};

void OnPicture()
{
    g_decoderThread.store(ThreadId());
    ++g_pictures;
}

// What the relay and its kyr-sim had used up at one moment.
struct Snapshot
{
    double process = 0;
    double gui = 0;
    double transport = 0;
    double decoder = 0;
    double kyr = 0;
    size_t answers = 0;
    size_t pictures = 0;
    double wall = 0;
};

// One carrier: how to make its transport, and the kyr-sim behind it.
struct Carrier
{
    std::string name;
    std::function<std::unique_ptr<IConferenceTransport>()> make;
    pid_t kyr = 0;
};

// One measured stretch of one carrier.
struct Turn
{
    bool ok = false;
    double seconds = 0;
    double framesPerSecond = 0;
    double picturesPerSecond = 0;
    double processMs = 0; // per frame
    double transportMs = 0;
    double decoderMs = 0;
    double guiMs = 0;
    double kyrMs = 0;
    size_t failures = 0;
};

double WallSeconds()
{
    return bench::CpuSeconds(CLOCK_MONOTONIC);
}

Turn Measure(const Carrier& carrier, bool paced, const Options& options)
{
    std::unique_ptr<IConferenceTransport> transport = carrier.make();
    QThread thread;
    transport->moveToThread(&thread);
    QObject::connect(&thread, &QThread::started, transport.get(),
                     &IConferenceTransport::slotThreadStarted);
    QObject::connect(&thread, &QThread::finished, transport.get(),
                     &IConferenceTransport::slotThreadFinished);
    std::atomic<size_t> answers{0};
    std::atomic<size_t> failures{0};
    std::atomic<long> transportThread{0};
    IConferenceTransport* carrierTransport = transport.get();
    const auto requestFrame = [carrierTransport] {
        QMetaObject::invokeMethod(
            carrierTransport,
            [carrierTransport] {
                carrierTransport->SendWithPayload(
                    RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame));
            },
            Qt::QueuedConnection);
    };
    // On the transport thread, as the answer is dispatched.
    QObject::connect(
        carrierTransport, &IConferenceTransport::DataCallback, carrierTransport,
        [&, paced](RelayService service, RelayCommand command, const QByteArray&) {
            if (service != RelayServiceVideo || command != RelayCommandRequestFrame) {
                return;
            }
            transportThread.store(ThreadId());
            ++answers;
            if (!paced) {
                requestFrame();
            }
        },
        Qt::DirectConnection);
    QObject::connect(
        carrierTransport, &IConferenceTransport::ShowErrorMessage, carrierTransport,
        [&failures](const QString&) { ++failures; }, Qt::DirectConnection);

    RelayConfig config;
    config.windowName = "Velorane relay transport benchmark";
    config.kyrIp = "127.0.0.1";
    config.windowWidth = options.width;
    config.windowHeight = options.height;
    config.standalone = true;
    config.useMonitor = false;
    std::unique_ptr<RelayWindow> window;
    if (paced) {
        window = std::make_unique<RelayWindow>(config);
        QObject::connect(window.get(), &RelayWindow::SignalSendRelayCommand, carrierTransport,
                         &IConferenceTransport::SendWithPayload);
        QObject::connect(carrierTransport, &IConferenceTransport::DataCallback, window.get(),
                         &RelayWindow::ReceiveRelayCommandResponse);
    }

    g_decoderThread.store(0);
    const auto take = [&] {
        Snapshot snapshot;
        snapshot.wall = WallSeconds();
        snapshot.process = bench::ProcessCpuSeconds();
        snapshot.gui = bench::ThreadCpuSeconds(getpid());
        snapshot.transport = bench::ThreadCpuSeconds(transportThread.load());
        snapshot.decoder = bench::ThreadCpuSeconds(g_decoderThread.load());
        snapshot.kyr = test::CpuSecondsOf(carrier.kyr);
        snapshot.answers = answers.load();
        snapshot.pictures = g_pictures.load();
        return snapshot;
    };
    Snapshot start;
    Snapshot end;
    bool failed = false;
    QEventLoop loop;
    QObject::connect(carrierTransport, &IConferenceTransport::SignalConnectionFailed, &loop, [&] {
        failed = true;
        loop.quit();
    });
    QObject::connect(carrierTransport, &IConferenceTransport::SignalConnectComplete, &loop, [&] {
        if (paced) {
            window->Initialize();
            window->show();
            window->BeginRequestingFramesFromKyr();
        } else {
            const int32_t width = options.width;
            const int32_t height = options.height;
            QMetaObject::invokeMethod(
                carrierTransport,
                [carrierTransport, width, height] {
                    carrierTransport->SendWithPayload(
                        RelayCommandData(RelayServiceVideo, RelayCommandStartVideo,
                                         [width, height](QDataStream& stream) {
                                             stream << static_cast<qint32>(8) << width << height;
                                         }));
                },
                Qt::QueuedConnection);
            requestFrame();
        }
        const int seconds = paced ? options.pacedSeconds : options.flatSeconds;
        QTimer::singleShot(1000, Qt::PreciseTimer, &loop, [&] { start = take(); });
        QTimer::singleShot(1000 + seconds * 1000, Qt::PreciseTimer, &loop, [&] {
            end = take();
            loop.quit();
        });
    });
    thread.start();
    loop.exec();

    // The relay's way down: the transport first, then the window.
    QObject::disconnect(carrierTransport, nullptr, nullptr, nullptr);
    thread.quit();
    thread.wait();
    if (window) {
        window->Terminate();
        window.reset();
    }
    transport.reset();

    Turn turn;
    turn.ok = !failed && end.wall > start.wall && end.answers > start.answers;
    if (!turn.ok) {
        return turn;
    }
    turn.seconds = end.wall - start.wall;
    const double frames = static_cast<double>(end.answers - start.answers);
    turn.framesPerSecond = frames / turn.seconds;
    turn.picturesPerSecond = static_cast<double>(end.pictures - start.pictures) / turn.seconds;
    turn.processMs = (end.process - start.process) * 1e3 / frames;
    turn.transportMs = (end.transport - start.transport) * 1e3 / frames;
    turn.decoderMs = (end.decoder - start.decoder) * 1e3 / frames;
    turn.guiMs = (end.gui - start.gui) * 1e3 / frames;
    turn.kyrMs = (end.kyr - start.kyr) * 1e3 / frames;
    turn.failures = failures.load();
    return turn;
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--rounds=", 0) == 0) {
            options.rounds = std::max(1, std::atoi(argument.c_str() + 9));
        } else if (argument.rfind("--seconds=", 0) == 0) {
            options.pacedSeconds = std::max(2, std::atoi(argument.c_str() + 10));
        } else if (argument.rfind("--flat-seconds=", 0) == 0) {
            options.flatSeconds = std::max(2, std::atoi(argument.c_str() + 15));
        } else if (argument.rfind("--size=", 0) != 0 ||
                   std::sscanf(argument.c_str() + 7, "%dx%d", &options.width, &options.height) !=
                       2) {
            std::fprintf(stderr,
                         "usage: %s [--rounds=N] [--seconds=N] [--flat-seconds=N] [--size=WxH]\n",
                         argv[0]);
            return false;
        }
    }
    return true;
}

// Starts kyr-sim as the Kyr on an emulated USB device and points this
// process's libusb at its testbed; false when it didn't come up.
bool StartUsbKyr(test::TempDir& folder, test::ChildProcess& kyr, int timeLimitSeconds)
{
    test::ChildProcess::Options options;
    options.argv = {test::BinaryPath("kyr-sim"), "--usb",        "--record",
                    folder.File("usb-kyr.rec"),  "--time-limit", std::to_string(timeLimitSeconds)};
    options.outputFile = folder.File("usb-kyr.out");
    const std::string marker = "kyr-sim: usb testbed ";
    if (!kyr.Start(options) || !kyr.WaitForOutput(marker, std::chrono::seconds(15))) {
        std::fprintf(stderr, "kyr-sim --usb did not come up:\n%s\n", kyr.Output().c_str());
        return false;
    }
    const std::string output = kyr.Output();
    const size_t at = output.find(marker) + marker.size();
    const size_t end = output.find('\n', at);
    if (end == std::string::npos) {
        return false;
    }
    setenv("UMOCKDEV_DIR", output.substr(at, end - at).c_str(), 1);
    return true;
}

void PrintSummary(const char* what, const std::vector<Turn>& turns, double Turn::*field,
                  const char* unit)
{
    std::vector<double> values;
    for (const Turn& turn : turns) {
        values.push_back(turn.*field);
    }
    std::printf("    %-36s median %8.3f %s  (min %.3f, max %.3f)\n", what,
                bench::Quantile(values, 0.5), unit, *std::min_element(values.begin(), values.end()),
                *std::max_element(values.begin(), values.end()));
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        return 2;
    }
    // Under umockdev's preload library from the start, for libusb to find
    // the emulated Kyr.
    if (!simcommon::EmulatedUsbDevice::InMockEnvironment()) {
        const std::string preload = simcommon::EmulatedUsbDevice::PreloadValue();
        setenv("LD_PRELOAD", preload.c_str(), 1);
        execv("/proc/self/exe", argv);
        std::perror("can't start again under umockdev's preload library");
        return 1;
    }

    const int timeLimit =
        options.rounds * 2 * (options.pacedSeconds + options.flatSeconds + 10) + 60;
    test::TempDir folder;
    test::ChildProcess tlsKyr;
    const int port =
        bench::StartTlsKyr(folder, tlsKyr, kPassword, folder.File("tls-kyr.rec"), timeLimit);
    test::ChildProcess usbKyr;
    if (port < 0 || !StartUsbKyr(folder, usbKyr, timeLimit)) {
        return 1;
    }

    bench::RegisterRelayTypes();
    bench::SetPictureHook(&OnPicture);
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    if (QApplication::platformName() == QLatin1String("offscreen")) {
        QLoggingCategory::setFilterRules(QStringLiteral("qt.qpa.backingstore.warning=false"));
    }
    const std::string logFolder = folder.File("logs");
    quorvan::CRefCountPtr<quorvan::ILogStore> fileStore = bench::AddLogFileStore(logFolder);

    std::vector<Carrier> carriers = {
        {"TLS",
         [port] {
             auto tcp = std::make_unique<TcpCommunication>();
             tcp->setPassword(kPassword);
             tcp->setHostAddress(QHostAddress(QStringLiteral("127.0.0.1")),
                                 static_cast<uint16_t>(port));
             return std::unique_ptr<IConferenceTransport>(std::move(tcp));
         },
         tlsKyr.Pid()},
        {"USB", [] { return std::unique_ptr<IConferenceTransport>(new UsbCommunication()); },
         usbKyr.Pid()},
    };

    double load[3] = {};
    getloadavg(load, 3);
    std::printf("relay over TLS and over emulated USB at %dx%d: %d rounds of %d s paced and %d s "
                "flat out per carrier, after a second each; platform %s; load average %.2f %.2f "
                "%.2f\n",
                options.width, options.height, options.rounds, options.pacedSeconds,
                options.flatSeconds, qPrintable(QApplication::platformName()), load[0], load[1],
                load[2]);
    std::fflush(stdout);

    std::vector<std::vector<Turn>> paced(carriers.size());
    std::vector<std::vector<Turn>> flat(carriers.size());
    bench::MachineLoad machine;
    for (int round = 0; round < options.rounds; ++round) {
        for (size_t k = 0; k < carriers.size(); ++k) {
            // The first carrier alternates from round to round.
            const size_t index = (k + static_cast<size_t>(round)) % carriers.size();
            for (const bool isPaced : {true, false}) {
                const Turn turn = Measure(carriers[index], isPaced, options);
                if (!turn.ok) {
                    std::fprintf(stderr, "%s %s: no measurement\n", carriers[index].name.c_str(),
                                 isPaced ? "paced" : "flat out");
                    return 1;
                }
                std::printf("round %d %s %-8s %6.2f frames/s (%6.2f drawn), per frame: relay "
                            "%6.3f ms = transport %6.3f + decoder %6.3f + GUI %6.3f + other; "
                            "kyr-sim %6.3f ms; failed commands %zu\n",
                            round + 1, carriers[index].name.c_str(), isPaced ? "paced" : "flat out",
                            turn.framesPerSecond, turn.picturesPerSecond, turn.processMs,
                            turn.transportMs, turn.decoderMs, turn.guiMs, turn.kyrMs,
                            turn.failures);
                std::fflush(stdout);
                (isPaced ? paced : flat)[index].push_back(turn);
            }
        }
    }
    const double others = machine.Others();
    bench::FinishLogFileStore(fileStore);
    getloadavg(load, 3);

    std::printf("\n");
    for (size_t index = 0; index < carriers.size(); ++index) {
        std::printf("%s, paced (the relay's 66 ms):\n", carriers[index].name.c_str());
        PrintSummary("frames per second", paced[index], &Turn::framesPerSecond, "/s");
        PrintSummary("relay CPU per frame", paced[index], &Turn::processMs, "ms");
        PrintSummary("  transport thread", paced[index], &Turn::transportMs, "ms");
        PrintSummary("  decoder thread", paced[index], &Turn::decoderMs, "ms");
        PrintSummary("kyr-sim CPU per frame", paced[index], &Turn::kyrMs, "ms");
        std::printf("%s, flat out (transport alone):\n", carriers[index].name.c_str());
        PrintSummary("frames per second", flat[index], &Turn::framesPerSecond, "/s");
        PrintSummary("relay CPU per frame", flat[index], &Turn::processMs, "ms");
        PrintSummary("kyr-sim CPU per frame", flat[index], &Turn::kyrMs, "ms");
    }
    std::printf("\nfull queue %zu, decode errors %zu, send failures %zu in the relay's log; other "
                "programs took %.2f processors beyond this process (kyr-sim included); load "
                "average at the end %.2f %.2f %.2f\n",
                bench::CountLogLines(logFolder, "frame queue is full"),
                bench::CountLogLines(logFolder, "Decode error"),
                bench::CountLogLines(logFolder, "Send failed."), others, load[0], load[1], load[2]);
    return 0;
}
