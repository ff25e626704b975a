// The relay's decode path against a bare libavcodec loop, on the same
// access units, with the same decoder thread count (FFmpeg's default, one)
// and the same plane copy per picture.
//
//   relay: DeliverFrame on the delivering thread (the GUI thread in the
//          relay), the decoder thread parses, decodes and calls back; the
//          callback copies the planes as renderFrame does. Every frame is
//          decoded: a unit goes in only once a token is free, which the
//          count of pictures tells.
//   bare:  BareDecoder (avcodec_send_packet / avcodec_receive_frame per
//          access unit and the same copy) on one thread.
//
// The streams (1920x1080 and 1280x720, libx264 veryfast, an IDR picture
// every 60) are made at start and played in a loop. Each side keeps one
// decoder for the whole run, as the relay does while the picture size
// stays. The sides take turns of 10 pictures, the side that goes first
// alternating; a round is 300 pictures on each side, and the ratio is
// taken per round, its median over 30 rounds being the figure. The
// machine's speed drifts by 10 to 20 % within seconds (other programs,
// other virtual machines on the host); turns that short put both sides
// under the same conditions, which repetitions of whole runs did not.
//
// Printed per side: pictures per second by the wall clock (first unit in
// to last picture copied) and CPU time per picture of the side's own path;
// for the relay, its decoder thread's share, DeliverFrame's share, and how
// often the decoder thread went idle for want of a unit (the measure of
// whether this harness kept it fed) or was preempted.

#include "Benchmarks/BareDecoder.h"
#include "Benchmarks/BenchStats.h"
#include "Benchmarks/MachineLoad.h"
#include "Common/VideoDecode/Src/VideoDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace quorvan;
using velorane::bench::BareDecoder;
using velorane::bench::MachineLoad;
using velorane::bench::OwnCpuSeconds;
using velorane::bench::PlaneCopy;
using velorane::bench::Quantile;
using velorane::bench::ThreadCpuSeconds;
using Clock = std::chrono::steady_clock;

struct Options
{
    int rounds = 30;
    int pictures = 300; // per round and side
    int turn = 10;      // pictures of one side's turn
    bool pin = true;
    bool relay = true; // --only=relay or --only=bare leave the other side out (profiling)
    bool bare = true;
    bool verbose = false; // every round on stderr
    bool wakePerPicture = false;
    std::vector<std::pair<int, int>> sizes;
};

struct Stream
{
    std::string name;
    int width = 0;
    int height = 0;
    std::vector<std::vector<uint8_t>> units;

    const std::vector<uint8_t>& Unit(int64_t unit) const
    {
        return units[static_cast<size_t>(unit % static_cast<int64_t>(units.size()))];
    }
};

// What some pictures cost: the wall clock from the first unit in to the
// last picture copied, and the CPU time of the side's own path: for the
// bare loop its thread; for the relay its decoder thread plus the
// delivering thread's time inside DeliverFrame (the time this harness
// spends waiting for tokens is no part of the relay). For the relay also
// how often its decoder thread went idle or was preempted.
struct Cost
{
    int pictures = 0;
    double seconds = 0;
    double cpuSeconds = 0;
    double decoderCpuSeconds = 0;
    double deliverCpuSeconds = 0;
    long decoderWaits = 0;
    long decoderPreempted = 0;

    void Add(const Cost& other)
    {
        pictures += other.pictures;
        seconds += other.seconds;
        cpuSeconds += other.cpuSeconds;
        decoderCpuSeconds += other.decoderCpuSeconds;
        deliverCpuSeconds += other.deliverCpuSeconds;
        decoderWaits += other.decoderWaits;
        decoderPreempted += other.decoderPreempted;
    }
    double Fps() const { return seconds > 0 ? pictures / seconds : 0; }
    double CpuMsPerPicture() const { return pictures > 0 ? cpuSeconds * 1e3 / pictures : 0; }
};

// Voluntary and involuntary context switches of one thread of this process.
std::pair<long, long> ThreadSwitches(long tid)
{
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    std::pair<long, long> switches{0, 0};
    while (std::getline(status, line)) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            switches.first = std::atol(line.c_str() + line.find(':') + 1);
        } else if (line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
            switches.second = std::atol(line.c_str() + line.find(':') + 1);
        }
    }
    return switches;
}

// Unless --no-pin is given, the decoding thread of each side (the relay's
// decoder thread, the bare loop) runs on processor 1 and the relay's
// delivering thread on processor 0, so that both sides decode on the same
// processor and the hand-overs always cross between two. On a machine that
// other programs keep busy a pinned thread can't move away from them: take
// figures on an idle one.
class Pinning
{
public:
    explicit Pinning(bool pin) : m_pin(pin && sysconf(_SC_NPROCESSORS_ONLN) >= 2) {}
    bool Active() const { return m_pin; }
    // The calling thread and the threads it starts from now on.
    void DecodingThread() const { Pin(1); }
    void DeliveringThread() const { Pin(0); }

private:
    void Pin(int processor) const
    {
        if (!m_pin) {
            return;
        }
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(processor, &set);
        sched_setaffinity(0, sizeof(set), &set);
    }

    bool m_pin;
};

// Moving waves with a little fixed texture, so that every picture has work
// in it for the decoder. The waves are separable, so the sines of a column
// and of a row are taken once per picture.
void DrawPicture(AVFrame* picture, int index)
{
    const int width = picture->width;
    const int height = picture->height;
    std::vector<double> across(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) {
        across[static_cast<size_t>(x)] = std::sin((x + 6 * index) / 23.0);
    }
    uint32_t noise = 12345;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = picture->data[0] + y * picture->linesize[0];
        const double down = std::cos((y - 3 * index) / 31.0);
        for (int x = 0; x < width; ++x) {
            noise = noise * 1103515245u + 12345u;
            const double wave = across[static_cast<size_t>(x)] * down;
            row[x] = static_cast<uint8_t>(128 + 80 * wave + ((noise >> 16) & 7));
        }
    }
    for (int y = 0; y < height / 2; ++y) {
        const auto v = static_cast<uint8_t>(128 + 40 * std::cos((y + index) / 19.0));
        for (int x = 0; x < width / 2; ++x) {
            picture->data[1][y * picture->linesize[1] + x] =
                static_cast<uint8_t>(128 + 40 * std::sin((x + index) / 17.0));
            picture->data[2][y * picture->linesize[2] + x] = v;
        }
    }
}

Stream Encode(int width, int height, int pictures)
{
    Stream stream;
    stream.name = std::to_string(width) + "x" + std::to_string(height);
    stream.width = width;
    stream.height = height;
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (!codec) {
        std::fprintf(stderr, "libx264 is missing from libavcodec\n");
        return stream;
    }
    AVCodecContext* encoder = avcodec_alloc_context3(codec);
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->time_base = AVRational{1, 30};
    encoder->framerate = AVRational{30, 1};
    encoder->gop_size = 60;
    encoder->max_b_frames = 0;
    av_opt_set(encoder->priv_data, "preset", "veryfast", 0);
    av_opt_set(encoder->priv_data, "tune", "zerolatency", 0);
    AVFrame* picture = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    if (avcodec_open2(encoder, codec, nullptr) == 0) {
        picture->width = width;
        picture->height = height;
        picture->format = AV_PIX_FMT_YUV420P;
        av_frame_get_buffer(picture, 0);
        for (int i = 0; i <= pictures; ++i) {
            if (i < pictures) {
                av_frame_make_writable(picture);
                DrawPicture(picture, i);
                picture->pts = i;
            }
            avcodec_send_frame(encoder, i < pictures ? picture : nullptr);
            while (avcodec_receive_packet(encoder, packet) == 0) {
                stream.units.emplace_back(packet->data, packet->data + packet->size);
                av_packet_unref(packet);
            }
        }
    }
    av_packet_free(&packet);
    av_frame_free(&picture);
    avcodec_free_context(&encoder);
    return stream;
}

// Counts the pictures of the decoder thread for the delivering thread and
// notes when the latest one was copied. The delivering thread looks every
// half millisecond, which is soon enough: with two units in hand the
// decoder has two pictures' time, at least 5 ms at 1280x720, before it runs
// dry. (Not so for pictures that decode in well under a millisecond, such
// as 320x240: there the decoder goes idle now and then, which the count of
// idle times shows.)
// Looking, rather than being woken, keeps the harness's own signalling off
// the decoder thread: waking a sleeping thread on another processor costs
// the waker 15 to 110 us of CPU on this virtual machine, as much as 3 % of
// a 720p picture, and the relay's decoder thread sends no such signal for
// tokens. With --wake-per-picture the delivering thread sleeps and every
// picture wakes it, as the old harness did (and as the relay window's
// repaint request wakes the GUI thread; that request is outside the path
// measured here, as renderFrame's copy is inside it).
class PictureCount
{
public:
    explicit PictureCount(bool wake) : m_wake(wake) {}

    void Add()
    {
        m_latestAt.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
        if (!m_wake) {
            m_count.fetch_add(1, std::memory_order_release);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_count.fetch_add(1, std::memory_order_release);
        }
        m_changed.notify_one();
    }
    // Waits for count pictures in all; answers when the latest one came.
    Clock::time_point WaitFor(int64_t count)
    {
        if (m_wake) {
            std::unique_lock<std::mutex> lock(m_lock);
            m_changed.wait(lock, [&] { return m_count.load() >= count; });
        } else {
            while (m_count.load(std::memory_order_acquire) < count) {
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        }
        return Clock::time_point(Clock::duration(m_latestAt.load(std::memory_order_relaxed)));
    }

private:
    const bool m_wake;
    std::atomic<int64_t> m_count{0};
    std::atomic<Clock::rep> m_latestAt{0};
    std::mutex m_lock;
    std::condition_variable m_changed;
};

// Unit `unit` of the looped stream as the relay window builds it: zeroed,
// header, bytes, size behind.
std::unique_ptr<VideoFrame> MakeFrame(const Stream& stream, int64_t unit)
{
    auto frame = std::make_unique<VideoFrame>();
    const std::vector<uint8_t>& bytes = stream.Unit(unit);
    const auto width = static_cast<uint32_t>(stream.width);
    const auto height = static_cast<uint32_t>(stream.height);
    frame->number = frame->wireNumber = static_cast<int32_t>(unit);
    frame->size = frame->wireSize = static_cast<int32_t>(bytes.size());
    frame->width = width;
    frame->height = height;
    std::memcpy(frame->data, bytes.data(), bytes.size());
    std::memcpy(frame->data + bytes.size(), &width, sizeof(width));
    std::memcpy(frame->data + bytes.size() + sizeof(width), &height, sizeof(height));
    return frame;
}

// The relay's decoder over the looped stream. The parser gives a unit's
// packet out when the next unit comes, so pictures [first, first + count)
// are decoded from units first + 1 to first + count. Picture 0 is decoded
// when the side is made, so that the tokens of units 0 and 1 are known to
// be back before the first turn; turns start at picture 1.
class RelaySide
{
public:
    RelaySide(const Stream& stream, const Pinning& pinning, bool wakePerPicture)
        : m_stream(stream), m_pinning(pinning), m_pictures(wakePerPicture)
    {
        m_decoder->Initialize(
            [this](uint32_t, uint32_t height, int* stride, uint8_t* y, uint8_t* u, uint8_t* v) {
                m_copy.Copy(height, stride, y, u, v);
                if (m_decoderTid.load(std::memory_order_relaxed) == 0) {
                    m_decoderTid.store(syscall(SYS_gettid));
                }
                m_pictures.Add();
            },
            IVideoDecoder::CodecH264, IVideoDecoder::DecoderSoftware);
        // The decoder thread takes the processor of the thread that starts
        // it.
        m_pinning.DecodingThread();
        m_decoder->Start();
        m_pinning.DeliveringThread();
        m_decoder->DeliverFrame(MakeFrame(m_stream, 0));
        m_decoder->DeliverFrame(MakeFrame(m_stream, 1));
        m_pictures.WaitFor(1);
    }

    // Stops the decoder without its one-second wait: Stop runs on a helper
    // thread while empty frames wake the loop, which then sees the cleared
    // flag. It only keeps a run short.
    ~RelaySide()
    {
        std::atomic<bool> stopped{false};
        std::thread stopper([&] {
            m_decoder->Stop();
            stopped.store(true);
        });
        while (!stopped.load()) {
            m_decoder->DeliverFrame(std::make_unique<VideoFrame>());
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        stopper.join();
        m_decoder->Terminate();
    }

    RelaySide(const RelaySide&) = delete;
    RelaySide& operator=(const RelaySide&) = delete;

    Cost Decode(int64_t first, int count)
    {
        m_pinning.DeliveringThread();
        // The frames are built as the relay window builds them, before the
        // clock starts: the measured path begins at DeliverFrame.
        std::vector<std::unique_ptr<VideoFrame>> frames;
        for (int64_t unit = first + 1; unit <= first + count; ++unit) {
            frames.push_back(MakeFrame(m_stream, unit));
        }
        const long tid = m_decoderTid.load();
        const auto decoderBefore = tid ? ThreadSwitches(tid) : std::pair<long, long>{};
        const double decoderCpuBefore = tid ? ThreadCpuSeconds(tid) : 0;

        Cost cost;
        const auto start = Clock::now();
        for (int i = 0; i < count; ++i) {
            // The decoder gives a unit's token back once the unit's bytes
            // are parsed and sent, before the picture of that pass comes
            // out. So with picture k - 4 out, only units k - 2 and k - 1 may
            // still hold tokens, and unit k takes the third. (Waiting for
            // picture k - 3 left a token unused: the decoder then had one
            // unit in hand instead of two and went idle whenever this
            // thread came late.)
            const int64_t unit = first + 1 + i;
            m_pictures.WaitFor(unit - 3);
            const double deliverStart = OwnCpuSeconds();
            const bool accepted =
                m_decoder->DeliverFrame(std::move(frames[static_cast<size_t>(i)]));
            cost.deliverCpuSeconds += OwnCpuSeconds() - deliverStart;
            if (!accepted) {
                std::fprintf(stderr, "relay %s: unit %lld was dropped\n", m_stream.name.c_str(),
                             static_cast<long long>(unit));
                std::exit(1);
            }
        }
        // The turn ends when its last picture was copied, not when this
        // thread got round to seeing it.
        const std::chrono::duration<double> elapsed = m_pictures.WaitFor(first + count) - start;
        cost.seconds = elapsed.count();
        cost.pictures = count;
        if (tid) {
            const auto decoderAfter = ThreadSwitches(tid);
            cost.decoderWaits = decoderAfter.first - decoderBefore.first;
            cost.decoderPreempted = decoderAfter.second - decoderBefore.second;
            cost.decoderCpuSeconds = ThreadCpuSeconds(tid) - decoderCpuBefore;
        }
        cost.cpuSeconds = cost.decoderCpuSeconds + cost.deliverCpuSeconds;
        return cost;
    }

private:
    const Stream& m_stream;
    const Pinning& m_pinning;
    PlaneCopy m_copy;
    PictureCount m_pictures;
    std::atomic<long> m_decoderTid{0};
    CRefCountPtr<IVideoDecoder> m_decoder{new VideoDecoder()};
};

// The bare loop over the same looped stream: picture k from unit k.
class BareSide
{
public:
    // Picture 0 is decoded here, as on the relay's side.
    BareSide(const Stream& stream, const Pinning& pinning) : m_stream(stream), m_pinning(pinning)
    {
        const std::vector<uint8_t>& bytes = m_stream.Unit(0);
        m_decoder.Decode(bytes.data(), bytes.size());
    }

    int ThreadCount() const { return m_decoder.ThreadCount(); }

    Cost Decode(int64_t first, int count)
    {
        m_pinning.DecodingThread();
        Cost cost;
        const double cpuStart = OwnCpuSeconds();
        const auto start = Clock::now();
        for (int64_t unit = first; unit < first + count; ++unit) {
            const std::vector<uint8_t>& bytes = m_stream.Unit(unit);
            cost.pictures += m_decoder.Decode(bytes.data(), bytes.size());
        }
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        cost.cpuSeconds = OwnCpuSeconds() - cpuStart;
        cost.seconds = elapsed.count();
        if (cost.pictures != count) {
            std::fprintf(stderr, "bare %s: %d pictures of %d\n", m_stream.name.c_str(),
                         cost.pictures, count);
            std::exit(1);
        }
        return cost;
    }

private:
    const Stream& m_stream;
    const Pinning& m_pinning;
    BareDecoder m_decoder;
};

// What waking a thread that sleeps on the other processor costs the waker,
// in CPU time: the relay's decoder thread pays it for each picture, when it
// tells the delivering thread (here) or the GUI thread (in the relay, the
// repaint request) that a picture is out; the bare loop never does. The
// sleeper is given a millisecond to fall asleep each time, as between
// pictures.
double WakeCostMicroseconds(const Pinning& pinning)
{
    std::mutex lock;
    std::condition_variable changed;
    int posted = 0;
    int seen = 0;
    constexpr int kWakes = 300;
    pinning.DeliveringThread();
    std::thread sleeper([&] {
        std::unique_lock<std::mutex> guard(lock);
        while (seen < kWakes) {
            changed.wait(guard, [&] { return posted > seen; });
            seen = posted;
        }
    });
    pinning.DecodingThread();
    std::vector<double> costs;
    for (int i = 0; i < kWakes; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        timespec before{};
        timespec after{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
        {
            std::lock_guard<std::mutex> guard(lock);
            ++posted;
        }
        changed.notify_one();
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
        costs.push_back(static_cast<double>(after.tv_sec - before.tv_sec) * 1e6 +
                        static_cast<double>(after.tv_nsec - before.tv_nsec) * 1e-3);
    }
    sleeper.join();
    std::sort(costs.begin(), costs.end());
    return costs[costs.size() / 2];
}

// Standard deviation over mean.
double Spread(const std::vector<double>& values)
{
    if (values.size() < 2) {
        return 0;
    }
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / values.size();
    double squares = 0;
    for (double value : values) {
        squares += (value - mean) * (value - mean);
    }
    return std::sqrt(squares / static_cast<double>(values.size() - 1)) / mean;
}

// The rounds of one stream, side by side.
struct Results
{
    std::vector<Cost> relay;
    std::vector<Cost> bare;
    int turn = 0;
    double others = 0; // processors' worth of CPU taken by other programs

    void Print(const Stream& stream) const
    {
        std::printf("%s, %zu rounds, other programs took %.2f processors meanwhile\n",
                    stream.name.c_str(), std::max(relay.size(), bare.size()), others);
        PrintSide("relay", relay);
        PrintSide("bare", bare);
        if (!relay.empty()) {
            Cost all;
            for (const Cost& round : relay) {
                all.Add(round);
            }
            const double turns = static_cast<double>(all.pictures) / turn;
            std::printf("  relay: decoder thread %.3f ms CPU per picture, DeliverFrame %.3f ms; "
                        "decoder idle %.2f times per turn of %d pictures (1 is the pause between "
                        "turns), preempted %.2f times\n",
                        all.decoderCpuSeconds * 1e3 / all.pictures,
                        all.deliverCpuSeconds * 1e3 / all.pictures, all.decoderWaits / turns, turn,
                        all.decoderPreempted / turns);
        }
        if (relay.empty() || bare.empty()) {
            return;
        }
        std::vector<double> fpsRatios;
        std::vector<double> cpuRatios;
        Cost relayAll;
        Cost bareAll;
        for (size_t i = 0; i < std::min(relay.size(), bare.size()); ++i) {
            fpsRatios.push_back(relay[i].Fps() / bare[i].Fps());
            cpuRatios.push_back(bare[i].CpuMsPerPicture() / relay[i].CpuMsPerPicture());
            relayAll.Add(relay[i]);
            bareAll.Add(bare[i]);
        }
        std::printf("  ratio relay/bare, pictures per second:     median %.3f, quartiles %.3f "
                    "to %.3f, all rounds together %.3f (target >= 0.95)\n",
                    Quantile(fpsRatios, 0.5), Quantile(fpsRatios, 0.25), Quantile(fpsRatios, 0.75),
                    relayAll.Fps() / bareAll.Fps());
        std::printf("  ratio relay/bare, pictures per CPU second: median %.3f, quartiles %.3f "
                    "to %.3f, all rounds together %.3f\n",
                    Quantile(cpuRatios, 0.5), Quantile(cpuRatios, 0.25), Quantile(cpuRatios, 0.75),
                    bareAll.CpuMsPerPicture() / relayAll.CpuMsPerPicture());
    }

private:
    // Pictures per second by round (median, range, spread); CPU time per
    // picture over all rounds together.
    static void PrintSide(const char* side, const std::vector<Cost>& rounds)
    {
        if (rounds.empty()) {
            return;
        }
        std::vector<double> fps;
        Cost all;
        for (const Cost& round : rounds) {
            fps.push_back(round.Fps());
            all.Add(round);
        }
        std::printf("  %-5s %6.1f fps median (%.1f to %.1f, spread %.1f %%); %.3f ms CPU per "
                    "picture\n",
                    side, Quantile(fps, 0.5), *std::min_element(fps.begin(), fps.end()),
                    *std::max_element(fps.begin(), fps.end()), 100 * Spread(fps),
                    all.CpuMsPerPicture());
    }
};

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const auto value = [&](const char* prefix) -> const char* {
            return argument.rfind(prefix, 0) == 0 ? argument.c_str() + std::strlen(prefix)
                                                  : nullptr;
        };
        if (const char* rounds = value("--rounds=")) {
            options.rounds = std::max(1, std::atoi(rounds));
        } else if (const char* pictures = value("--pictures=")) {
            options.pictures = std::max(4, std::atoi(pictures));
        } else if (const char* turn = value("--turn=")) {
            options.turn = std::max(4, std::atoi(turn));
        } else if (const char* size = value("--size=")) {
            int width = 0;
            int height = 0;
            if (std::sscanf(size, "%dx%d", &width, &height) != 2 || width < 16 || height < 16) {
                std::fprintf(stderr, "bad size %s\n", size);
                return false;
            }
            options.sizes.emplace_back(width & ~1, height & ~1);
        } else if (argument == "--no-pin") {
            options.pin = false;
        } else if (argument == "--wake-per-picture") {
            options.wakePerPicture = true;
        } else if (argument == "--verbose") {
            options.verbose = true;
        } else if (const char* only = value("--only=")) {
            options.relay = std::strcmp(only, "bare") != 0;
            options.bare = std::strcmp(only, "relay") != 0;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--rounds=N] [--pictures=N] [--turn=N] [--size=WxH]... "
                         "[--no-pin] [--wake-per-picture] [--only=relay|bare] [--verbose]\n",
                         argv[0]);
            return false;
        }
    }
    if (options.sizes.empty()) {
        options.sizes = {{1920, 1080}, {1280, 720}};
    }
    return true;
}

void ShowRound(const Options& options, const Stream& stream, int round, const Cost& relay,
               const Cost& bare)
{
    if (!options.verbose) {
        return;
    }
    std::fprintf(stderr,
                 "%s round %2d: relay %6.1f fps %.3f ms CPU, bare %6.1f fps %.3f ms CPU, "
                 "relay idle %ld\n",
                 stream.name.c_str(), round + 1, relay.Fps(), relay.CpuMsPerPicture(), bare.Fps(),
                 bare.CpuMsPerPicture(), relay.decoderWaits);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    const Pinning pinning(options.pin);

    std::vector<Stream> streams;
    for (const auto& [width, height] : options.sizes) {
        // One unit more than a round, so that a round doesn't start on the
        // same unit each time.
        Stream stream = Encode(width, height, options.pictures + 1);
        if (stream.units.size() != static_cast<size_t>(options.pictures + 1)) {
            std::fprintf(stderr, "could not make the %s stream\n", stream.name.c_str());
            return 1;
        }
        size_t bytes = 0;
        size_t largest = 0;
        for (const auto& unit : stream.units) {
            bytes += unit.size();
            largest = std::max(largest, unit.size());
        }
        if (largest > kMaxFrameSize) {
            std::fprintf(stderr, "a %s unit is larger than a frame\n", stream.name.c_str());
            return 1;
        }
        std::printf("stream %s: %zu units, %zu bytes, largest %zu\n", stream.name.c_str(),
                    stream.units.size(), bytes, largest);
        streams.push_back(std::move(stream));
    }

    double load[3] = {};
    getloadavg(load, 3);
    std::printf("%d rounds of %d pictures per side, turns of %d, %s, %s, load average %.2f "
                "%.2f %.2f\n",
                options.rounds, options.pictures, options.turn,
                pinning.Active() ? "decoding on processor 1, delivering on 0" : "not pinned",
                options.wakePerPicture ? "each picture wakes the delivering thread"
                                       : "the delivering thread looks for tokens every 0.5 ms",
                load[0], load[1], load[2]);

    if (pinning.Active()) {
        std::printf("waking a sleeping thread on the other processor: %.1f us CPU to the waker "
                    "(median of 300)\n",
                    WakeCostMicroseconds(pinning));
    }

    std::vector<Results> results(streams.size());
    for (size_t s = 0; s < streams.size(); ++s) {
        const Stream& stream = streams[s];
        results[s].turn = options.turn;
        std::unique_ptr<RelaySide> relay;
        std::unique_ptr<BareSide> bare;
        if (options.relay) {
            relay = std::make_unique<RelaySide>(stream, pinning, options.wakePerPicture);
        }
        if (options.bare) {
            bare = std::make_unique<BareSide>(stream, pinning);
            if (s == 0) {
                std::printf("decoder threads: bare %d; the relay's context is opened alike\n",
                            bare->ThreadCount());
            }
        }
        // Two turns each first, not counted, so that both sides start with
        // warm caches and buffers of the right sizes.
        int64_t first = 1;
        for (int warm = 0; warm < 2; ++warm) {
            if (relay) {
                relay->Decode(first, options.turn);
            }
            if (bare) {
                bare->Decode(first, options.turn);
            }
            first += options.turn;
        }

        MachineLoad machine;
        for (int round = 0; round < options.rounds; ++round) {
            Cost relayRound;
            Cost bareRound;
            for (int done = 0; done < options.pictures; done += options.turn) {
                const int count = std::min(options.turn, options.pictures - done);
                // The side that goes first alternates, so that neither
                // always follows the other.
                const bool relayFirst = (done / options.turn + round) % 2 == 0;
                for (int side = 0; side < 2; ++side) {
                    if ((side == 0) == relayFirst) {
                        if (relay) {
                            relayRound.Add(relay->Decode(first, count));
                        }
                    } else if (bare) {
                        bareRound.Add(bare->Decode(first, count));
                    }
                }
                first += count;
            }
            if (relay) {
                results[s].relay.push_back(relayRound);
            }
            if (bare) {
                results[s].bare.push_back(bareRound);
            }
            ShowRound(options, stream, round, relayRound, bareRound);
        }
        results[s].others = machine.Others();
    }

    getloadavg(load, 3);
    std::printf("\nload average after the run %.2f %.2f %.2f\n", load[0], load[1], load[2]);
    for (size_t s = 0; s < streams.size(); ++s) {
        results[s].Print(streams[s]);
    }
    return 0;
}
