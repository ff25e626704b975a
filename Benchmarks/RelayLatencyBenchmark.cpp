// The relay end to end at its own pull rate: its window, transport and
// decoder, run in this process and wired as the relay wires them, against
// kyr-sim serving H.264 over TLS on loopback. Measured, with the first
// second left out:
//
//   - latency: from a RelayCommandRequestFrame being handed to the socket to
//     the picture of its answer reaching the renderer (renderFrame has
//     copied it), p50 and p99, and how it splits up;
//   - the relay's CPU time per second of video, by thread, and its resident
//     memory (VmRSS, VmHWM) at that rate; this process is the relay, so its
//     /proc/self figures are the relay's;
//   - against the bare library: the CPU that BareDecoder (avcodec_send_packet
//     and avcodec_receive_frame, one decoder thread, the renderer's copy)
//     takes for the same access units, made again afterwards with kyr-sim's
//     own encoder and labels; back to back as in the decode benchmark, and
//     paced at one unit every 66 ms as they reach the relay, where the
//     caches go cold between pictures.
//
// Observation without changing the relay: the transport is TcpCommunication
// with SendWithPayload overridden to note the time before handing on; the
// answers are seen by a direct connection to its DataCallback; and the
// renderer's renderFrame is reached through the linker's --wrap (see
// CMakeLists.txt), which routes RelayWindow's call through the wrapper in
// RelayBenchSetup and on to the real one, then to OnPicture below.
//
// Pictures come out in the order of the answers, one per answer, as long as
// none is dropped; the run checks that from the relay's log (no full queue,
// no decode error, no out-of-order frame) and from the counts, and then
// matches request k, answer k and picture k.

#include "Benchmarks/BareDecoder.h"
#include "Benchmarks/BenchStats.h"
#include "Benchmarks/MachineLoad.h"
#include "Benchmarks/RelayBenchSetup.h"
#include "Clients/Conference/RelayConfig.h"
#include "Clients/Conference/RelayWindow.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Clients/ConferenceTransport/Src/TcpCommunication.h"
#include "Common/Logger/Src/Logger.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"
#include "Tools/Common/H264Encoder.h"

#include <QApplication>
#include <QByteArray>
#include <QDataStream>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QSharedPointer>
#include <QThread>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>


namespace {

using namespace quorvan;
using namespace quorvan::velorane;
using quorvan::velorane::relay::RelayConfig;
using quorvan::velorane::relay::RelayWindow;
using ::velorane::bench::AddLogFileStore;
using ::velorane::bench::BareDecoder;
using ::velorane::bench::CountLogLines;
using ::velorane::bench::FinishLogFileStore;
using ::velorane::bench::MachineLoad;
using ::velorane::bench::OwnCpuSeconds;
using ::velorane::bench::ProcessCpuSeconds;
using ::velorane::bench::Quantile;
using ::velorane::bench::RegisterRelayTypes;
using ::velorane::bench::StartTlsKyr;
using ::velorane::bench::StatusKb;
using ::velorane::bench::ThreadCpuSeconds;
using ::velorane::bench::ThreadId;
using Clock = std::chrono::steady_clock;

constexpr char kPassword[] = "benchmark";
constexpr double kFramesPerSecondWanted = 1000.0 / RelayWindow::kFrameIntervalMs;

struct Options
{
    int seconds = 30; // measured, after the first second
    int width = 1920;
    int height = 1080;
};

// The times of the three events of each frame, in order of occurrence,
// written by the transport and decoder threads, read after the run.
class Timeline
{
public:
    Timeline()
    {
        m_requests.reserve(kRoom);
        m_answers.reserve(kRoom);
        m_numbers.reserve(kRoom);
        m_pictures.reserve(kRoom);
    }

    void Request()
    {
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_requests.size() < kRoom) {
            m_requests.push_back(now);
        }
    }
    void Answer(int32_t number)
    {
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_answers.size() < kRoom) {
            m_answers.push_back(now);
            m_numbers.push_back(number);
        }
    }
    void Picture()
    {
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_pictures.size() < kRoom) {
            m_pictures.push_back(now);
        }
    }

    // Copies, taken once the threads are stopped.
    std::vector<Clock::time_point> Requests() const { return Copy(m_requests); }
    std::vector<Clock::time_point> Answers() const { return Copy(m_answers); }
    std::vector<Clock::time_point> Pictures() const { return Copy(m_pictures); }
    std::vector<int32_t> Numbers() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_numbers;
    }

    // The threads' ids, for their CPU time; 0 until known.
    std::atomic<long> transportThread{0};
    std::atomic<long> decoderThread{0};

private:
    // Room for an hour at 15 frames per second; reserved up front, so that
    // no allocation happens while measuring.
    static constexpr size_t kRoom = 60 * 60 * 16;

    std::vector<Clock::time_point> Copy(const std::vector<Clock::time_point>& times) const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return times;
    }

    mutable std::mutex m_lock;
    std::vector<Clock::time_point> m_requests;
    std::vector<Clock::time_point> m_answers;
    std::vector<int32_t> m_numbers;
    std::vector<Clock::time_point> m_pictures;
};

Timeline g_timeline;

// A picture reached the renderer (SetPictureHook), on the decoder thread.
void OnPicture()
{
    if (g_timeline.decoderThread.load(std::memory_order_relaxed) == 0) {
        g_timeline.decoderThread.store(ThreadId());
    }
    g_timeline.Picture();
}

// The relay's TCP transport, noting each frame request as it goes to the
// socket.
class StampingTransport : public TcpCommunication
{
public:
    bool SendWithPayload(const RelayCommandData& commandData) override
    {
        if (commandData.service == RelayServiceVideo &&
            commandData.command == RelayCommandRequestFrame) {
            if (g_timeline.transportThread.load(std::memory_order_relaxed) == 0) {
                g_timeline.transportThread.store(ThreadId());
            }
            g_timeline.Request();
        }
        return TcpCommunication::SendWithPayload(commandData);
    }
};

// What the relay and kyr-sim had used up at one moment.
struct Snapshot
{
    Clock::time_point at;
    double process = 0;
    double gui = 0;
    double transport = 0;
    double decoder = 0;
    double kyr = 0;

    static Snapshot Take(pid_t kyr)
    {
        Snapshot snapshot;
        snapshot.at = Clock::now();
        snapshot.process = ProcessCpuSeconds();
        snapshot.gui = ThreadCpuSeconds(getpid());
        snapshot.transport = ThreadCpuSeconds(g_timeline.transportThread.load());
        snapshot.decoder = ThreadCpuSeconds(g_timeline.decoderThread.load());
        snapshot.kyr = ::velorane::test::CpuSecondsOf(kyr);
        return snapshot;
    }
};

double Milliseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

void PrintSpread(const char* what, const std::vector<double>& values)
{
    std::printf("  %-44s p50 %7.1f ms  p99 %7.1f ms  min %7.1f  max %7.1f  (%zu)\n", what,
                Quantile(values, 0.5), Quantile(values, 0.99),
                values.empty() ? 0.0 : *std::min_element(values.begin(), values.end()),
                values.empty() ? 0.0 : *std::max_element(values.begin(), values.end()),
                values.size());
}

// Lines of kyr-sim's own output that hold text.
std::vector<std::string> OutputLines(const std::string& output, const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(output);
    std::string line;
    while (std::getline(stream, line)) {
        if (line.find(text) != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--seconds=", 0) == 0) {
            options.seconds = std::max(2, std::atoi(argument.c_str() + 10));
        } else if (argument.rfind("--size=", 0) == 0 &&
                   std::sscanf(argument.c_str() + 7, "%dx%d", &options.width, &options.height) ==
                       2) {
            continue;
        } else {
            std::fprintf(stderr, "usage: %s [--seconds=N] [--size=WxH]\n", argv[0]);
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        return 2;
    }

    // kyr-sim with a throw-away certificate, on a free port.
    ::velorane::test::TempDir folder;
    ::velorane::test::ChildProcess kyr;
    const int port =
        StartTlsKyr(folder, kyr, kPassword, folder.File("kyr.rec"), options.seconds + 60);
    if (port < 0) {
        return 1;
    }

    // The relay's process set-up: types for the queued connections, the
    // application, the log file store.
    RegisterRelayTypes();
    ::velorane::bench::SetPictureHook(&OnPicture);
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    // Without a display the window's GL context can't be made current, so
    // nothing is painted, and Qt says so at every update; the figures here
    // end at renderFrame in any case.
    if (QApplication::platformName() == QLatin1String("offscreen")) {
        QLoggingCategory::setFilterRules(QStringLiteral("qt.qpa.backingstore.warning=false"));
    }

    const std::string logFolder = folder.File("logs");
    CRefCountPtr<ILogStore> fileStore = AddLogFileStore(logFolder);

    // The window, the transport on its own thread and their connections,
    // as the relay's ApplicationWrapper makes them.
    RelayConfig config;
    config.windowName = "Velorane relay latency benchmark";
    config.kyrIp = "127.0.0.1";
    config.windowWidth = options.width;
    config.windowHeight = options.height;
    config.relayPassword = kPassword;
    config.useTcp = true;
    config.standalone = true;
    config.useMonitor = false;
    auto window = std::make_unique<RelayWindow>(config);
    StampingTransport transport;
    transport.setPassword(config.relayPassword);
    transport.setHostAddress(QHostAddress(QString::fromStdString(config.kyrIp)),
                             static_cast<uint16_t>(port));
    QThread transportThread;
    transport.moveToThread(&transportThread);
    QObject::connect(&transportThread, &QThread::started, &transport,
                     &IConferenceTransport::slotThreadStarted);
    QObject::connect(&transportThread, &QThread::finished, &transport,
                     &IConferenceTransport::slotThreadFinished);
    QObject::connect(window.get(), &RelayWindow::SignalSendRelayCommand, &transport,
                     &IConferenceTransport::SendWithPayload);
    // The answer is complete and decrypted when DataCallback is emitted, on
    // the transport thread. Connected before the window, so that the time is
    // taken before the answer is posted on to the GUI thread.
    QObject::connect(
        &transport, &IConferenceTransport::DataCallback, &transport,
        [](RelayService service, RelayCommand command, const QByteArray& data) {
            if (service != RelayServiceVideo || command != RelayCommandRequestFrame) {
                return;
            }
            int32_t number = -1;
            if (data.size() >= 4) {
                std::memcpy(&number, data.constData(), sizeof(number));
            }
            g_timeline.Answer(number);
        },
        Qt::DirectConnection);
    QObject::connect(&transport, &IConferenceTransport::DataCallback, window.get(),
                     &RelayWindow::ReceiveRelayCommandResponse);

    bool failed = false;
    QObject::connect(&transport, &IConferenceTransport::SignalConnectionFailed, &application, [&] {
        std::fprintf(stderr, "the connection to kyr-sim failed\n");
        failed = true;
        application.quit();
    });

    Snapshot start;
    Snapshot end;
    long rssStart = 0;
    long rssEnd = 0;
    long hwmEnd = 0;
    MachineLoad machine;
    QObject::connect(&transport, &IConferenceTransport::SignalConnectComplete, window.get(), [&] {
        window->Initialize();
        window->show();
        window->BeginRequestingFramesFromKyr();
        // The first second is left out of every figure.
        QTimer::singleShot(1000, Qt::PreciseTimer, window.get(), [&] {
            start = Snapshot::Take(kyr.Pid());
            rssStart = StatusKb("VmRSS");
            machine.Restart();
        });
        QTimer::singleShot(1000 + options.seconds * 1000, Qt::PreciseTimer, window.get(), [&] {
            end = Snapshot::Take(kyr.Pid());
            rssEnd = StatusKb("VmRSS");
            hwmEnd = StatusKb("VmHWM");
            application.quit();
        });
    });

    double load[3] = {};
    getloadavg(load, 3);
    std::printf("relay against kyr-sim at %dx%d, one request every %d ms, %d s measured after "
                "the first; platform %s; load average %.2f %.2f %.2f\n",
                options.width, options.height, RelayWindow::kFrameIntervalMs, options.seconds,
                qPrintable(QApplication::platformName()), load[0], load[1], load[2]);
    std::fflush(stdout);

    transportThread.start(QThread::InheritPriority);
    application.exec();
    const double others = machine.Others();

    // The relay's way down: the transport first, then the window.
    QObject::disconnect(&transport, nullptr, nullptr, nullptr);
    transportThread.quit();
    transportThread.wait();
    window->Terminate();
    window.reset();
    if (failed || end.process == 0) {
        std::fprintf(stderr, "no measurement; kyr-sim said:\n%s\n", kyr.Output().c_str());
        return 1;
    }
    FinishLogFileStore(fileStore);

    // Request k, answer k and picture k belong together.
    const auto requests = g_timeline.Requests();
    const auto answers = g_timeline.Answers();
    const auto pictures = g_timeline.Pictures();
    const auto numbers = g_timeline.Numbers();
    size_t gaps = 0;
    for (size_t k = 1; k < numbers.size(); ++k) {
        gaps += numbers[k] != numbers[k - 1] + 1;
    }
    const size_t queueFull = CountLogLines(logFolder, "frame queue is full");
    const size_t decodeErrors = CountLogLines(logFolder, "Decode error");
    const size_t outOfOrder = CountLogLines(logFolder, "Frame out of order");
    std::printf("%zu requests, %zu answers, %zu pictures; numbering gaps %zu, full queue %zu, "
                "decode errors %zu, out of order %zu\n",
                requests.size(), answers.size(), pictures.size(), gaps, queueFull, decodeErrors,
                outOfOrder);
    if (pictures.size() > answers.size() || answers.size() > requests.size() || gaps != 0 ||
        queueFull != 0 || decodeErrors != 0 || outOfOrder != 0) {
        std::fprintf(stderr, "pictures can't be matched to requests in order\n");
        return 1;
    }

    std::vector<double> latency;
    std::vector<double> toAnswer;
    std::vector<double> answerToPicture;
    std::vector<double> nextAnswerToPicture;
    std::vector<double> interval;
    size_t measuredPictures = 0;
    for (size_t k = 0; k < pictures.size(); ++k) {
        if (requests[k] < start.at || requests[k] > end.at) {
            continue;
        }
        ++measuredPictures;
        latency.push_back(Milliseconds(pictures[k] - requests[k]));
        toAnswer.push_back(Milliseconds(answers[k] - requests[k]));
        answerToPicture.push_back(Milliseconds(pictures[k] - answers[k]));
        if (k + 1 < answers.size()) {
            nextAnswerToPicture.push_back(Milliseconds(pictures[k] - answers[k + 1]));
        }
        if (k + 1 < requests.size()) {
            interval.push_back(Milliseconds(requests[k + 1] - requests[k]));
        }
    }
    const double seconds = std::chrono::duration<double>(end.at - start.at).count();
    size_t measuredAnswers = 0;
    for (const auto& answer : answers) {
        measuredAnswers += answer >= start.at && answer <= end.at;
    }
    const double framesPerSecond = static_cast<double>(measuredAnswers) / seconds;

    std::printf("\nrequest to picture, over %.1f s (%zu pictures, %.2f frames per second; "
                "wanted %.2f):\n",
                seconds, measuredPictures, framesPerSecond, kFramesPerSecondWanted);
    PrintSpread("request -> picture in renderFrame", latency);
    PrintSpread("  request -> answer complete (kyr-sim, TLS)", toAnswer);
    PrintSpread("  answer -> picture", answerToPicture);
    PrintSpread("  next frame's answer -> picture", nextAnswerToPicture);
    PrintSpread("interval between requests", interval);
    for (const std::string& line : OutputLines(kyr.Output(), "encoded ")) {
        std::printf("  %s\n", line.c_str());
    }

    const auto perSecond = [&](double Snapshot::*field) {
        return (end.*field - start.*field) * 1e3 / seconds;
    };
    const double relayMs = perSecond(&Snapshot::process);
    const double named =
        perSecond(&Snapshot::gui) + perSecond(&Snapshot::transport) + perSecond(&Snapshot::decoder);
    const double kyrMs = perSecond(&Snapshot::kyr);
    std::printf("\nCPU per second of video (ms/s): relay %.1f = GUI thread %.1f + transport "
                "thread %.1f + decoder thread %.1f + other threads %.1f; kyr-sim %.1f; other "
                "programs %.2f processors\n",
                relayMs, perSecond(&Snapshot::gui), perSecond(&Snapshot::transport),
                perSecond(&Snapshot::decoder), relayMs - named, kyrMs,
                std::max(0.0, others - kyrMs / 1e3));
    std::printf("decoder thread per frame: %.2f ms CPU\n",
                perSecond(&Snapshot::decoder) / framesPerSecond);
    std::printf("resident memory: VmRSS %ld kB after the first second, %ld kB at the end; VmHWM "
                "%ld kB\n",
                rssStart, rssEnd, hwmEnd);

    // The bare library on the same access units: kyr-sim numbers frames from
    // 0 on a connection and draws the number into the picture, so its
    // encoder makes the same units again.
    simcommon::H264Encoder encoder;
    QString error;
    if (!encoder.Open(options.width, options.height, &error)) {
        std::fprintf(stderr, "can't encode the stream again: %s\n", qPrintable(error));
        return 1;
    }
    std::vector<QByteArray> units;
    for (size_t k = 0; k < answers.size(); ++k) {
        units.push_back(encoder.EncodeNext(static_cast<int64_t>(k), numbers[k], &error));
    }
    // The first second's units warm the decoder up; the rest are timed,
    // back to back as in the decode benchmark. Then the first kPaced of
    // them again on a new decoder, one every 66 ms as they come to the
    // relay, so that caches go cold between pictures as they do there.
    const size_t first = std::min(units.size(), static_cast<size_t>(kFramesPerSecondWanted));
    const auto decode = [&](BareDecoder& bare, size_t from, size_t to, bool paced) {
        double seconds = 0;
        for (size_t k = from; k < to; ++k) {
            if (paced) {
                std::this_thread::sleep_for(
                    std::chrono::milliseconds(RelayWindow::kFrameIntervalMs));
            }
            const double cpuStart = OwnCpuSeconds();
            bare.Decode(reinterpret_cast<const uint8_t*>(units[k].constData()),
                        static_cast<size_t>(units[k].size()));
            seconds += OwnCpuSeconds() - cpuStart;
        }
        return to > from ? seconds * 1e3 / static_cast<double>(to - from) : 0.0;
    };
    BareDecoder backToBack;
    decode(backToBack, 0, first, false);
    const double bareMsPerFrame = decode(backToBack, first, units.size(), false);
    constexpr size_t kPaced = 150;
    BareDecoder paced;
    decode(paced, 0, first, false);
    const double pacedMsPerFrame =
        decode(paced, first, std::min(units.size(), first + kPaced), true);
    std::printf("bare libavcodec on the same units: back to back %.2f ms CPU per frame, %.1f ms/s "
                "at %.2f frames per second (relay / bare %.2f); one every %d ms %.2f ms per "
                "frame, %.1f ms/s (relay / bare %.2f)\n",
                bareMsPerFrame, bareMsPerFrame * framesPerSecond, framesPerSecond,
                relayMs / (bareMsPerFrame * framesPerSecond), RelayWindow::kFrameIntervalMs,
                pacedMsPerFrame, pacedMsPerFrame * framesPerSecond,
                relayMs / (pacedMsPerFrame * framesPerSecond));
    return 0;
}
