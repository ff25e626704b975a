// The relay's decode path against a bare libavcodec loop, on the same
// access units, with the same decoder thread count (FFmpeg's default, one).
//
//   relay: DeliverFrame on this thread, the decoder thread parses, decodes
//          and calls back; the callback copies the planes as the renderer
//          does. Every frame is decoded: the next one goes only once a
//          token is back, which the pictures tell.
//   bare:  avcodec_send_packet / avcodec_receive_frame per access unit and
//          the same plane copy, on this thread.
//
// The streams (1920x1080 and 1280x720, 120 pictures each) are made with
// libx264 at start. The parser holds the last unit back, so both sides
// decode the first 119 units. Repetitions run interleaved; after the run
// the median and the best pictures per second of each side and their
// ratios are printed, by the wall clock (fps) and per CPU second of the
// process (cpu_fps, which other programs on a busy machine don't move).

#include "Common/VideoDecode/Src/VideoDecoder.h"

#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace quorvan;

constexpr int kStreamPictures = 120;
constexpr int kDecodedPictures = kStreamPictures - 1;

struct Stream
{
    int width = 0;
    int height = 0;
    std::vector<std::vector<uint8_t>> units;
};

std::map<std::string, Stream> g_streams;

// CPU seconds of this process, all threads: the decoder thread's work and
// the delivering thread's, whatever else runs on the machine.
double ProcessCpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Wall-clock pictures per second, and pictures per CPU second of the
// process: the second doesn't move when other programs take the CPU.
void SetRates(benchmark::State& state, double cpuSeconds)
{
    state.counters["fps"] =
        benchmark::Counter(kDecodedPictures, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["cpu_fps"] = cpuSeconds > 0
                                    ? static_cast<double>(kDecodedPictures) *
                                          static_cast<double>(state.iterations()) / cpuSeconds
                                    : 0.0;
}

// Moving waves with a little fixed texture, so that every picture has work
// in it for the decoder.
void DrawPicture(AVFrame* picture, int index)
{
    const int width = picture->width;
    const int height = picture->height;
    uint32_t noise = 12345;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = picture->data[0] + y * picture->linesize[0];
        for (int x = 0; x < width; ++x) {
            noise = noise * 1103515245u + 12345u;
            const double wave = std::sin((x + 6 * index) / 23.0) * std::cos((y - 3 * index) / 31.0);
            row[x] = static_cast<uint8_t>(128 + 80 * wave + ((noise >> 16) & 7));
        }
    }
    for (int y = 0; y < height / 2; ++y) {
        for (int x = 0; x < width / 2; ++x) {
            picture->data[1][y * picture->linesize[1] + x] =
                static_cast<uint8_t>(128 + 40 * std::sin((x + index) / 17.0));
            picture->data[2][y * picture->linesize[2] + x] =
                static_cast<uint8_t>(128 + 40 * std::cos((y + index) / 19.0));
        }
    }
}

Stream Encode(int width, int height)
{
    Stream stream;
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
        for (int i = 0; i <= kStreamPictures; ++i) {
            if (i < kStreamPictures) {
                av_frame_make_writable(picture);
                DrawPicture(picture, i);
                picture->pts = i;
            }
            avcodec_send_frame(encoder, i < kStreamPictures ? picture : nullptr);
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

// The renderer's copy: whole rows with their padding, chroma of half the
// height.
class PlaneCopy
{
public:
    void Copy(uint32_t height, const int* stride, const uint8_t* y, const uint8_t* u,
              const uint8_t* v)
    {
        CopyPlane(m_y, y, static_cast<size_t>(stride[0]) * height);
        CopyPlane(m_u, u, static_cast<size_t>(stride[1]) * height / 2);
        if (v) {
            CopyPlane(m_v, v, static_cast<size_t>(stride[2]) * height / 2);
        }
    }

private:
    static void CopyPlane(std::vector<uint8_t>& plane, const uint8_t* data, size_t bytes)
    {
        if (plane.size() < bytes) {
            plane.resize(bytes);
        }
        std::memcpy(plane.data(), data, bytes);
    }

    std::vector<uint8_t> m_y;
    std::vector<uint8_t> m_u;
    std::vector<uint8_t> m_v;
};

// Counts the pictures of the decoder thread for the delivering thread.
class PictureCount
{
public:
    void Add()
    {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            ++m_count;
        }
        m_changed.notify_one();
    }
    void WaitFor(int count)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return m_count >= count; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_count = 0;
};

std::unique_ptr<VideoFrame> MakeFrame(const Stream& stream, size_t unit)
{
    // As the relay window builds it: zeroed, header, bytes, size behind.
    auto frame = std::make_unique<VideoFrame>();
    const std::vector<uint8_t>& bytes = stream.units[unit];
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

void RelayDecoder(benchmark::State& state, const std::string& name)
{
    const Stream& stream = g_streams[name];
    double cpuSeconds = 0;
    for (auto _ : state) {
        PlaneCopy copy;
        PictureCount pictures;
        CRefCountPtr<IVideoDecoder> decoder(new VideoDecoder());
        decoder->Initialize(
            [&](uint32_t, uint32_t height, int* stride, uint8_t* y, uint8_t* u, uint8_t* v) {
                copy.Copy(height, stride, y, u, v);
                pictures.Add();
            },
            IVideoDecoder::CodecH264, IVideoDecoder::DecoderSoftware);
        decoder->Start();

        // The frames are built as the relay window builds them, before the
        // clock starts: the measured path begins at DeliverFrame.
        std::vector<std::unique_ptr<VideoFrame>> frames;
        for (size_t unit = 0; unit < stream.units.size(); ++unit) {
            frames.push_back(MakeFrame(stream, unit));
        }

        const double cpuStart = ProcessCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        for (size_t unit = 0; unit < frames.size(); ++unit) {
            // The pass that decodes picture j - 1 has given unit j's token
            // back, so with picture k - 3 out at most two units are in
            // flight and unit k may take the third token.
            if (unit >= 3) {
                pictures.WaitFor(static_cast<int>(unit) - 2);
            }
            if (!decoder->DeliverFrame(std::move(frames[unit]))) {
                state.SkipWithError("a frame was dropped");
                break;
            }
        }
        pictures.WaitFor(kDecodedPictures);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        cpuSeconds += ProcessCpuSeconds() - cpuStart;
        state.SetIterationTime(elapsed.count());

        decoder->Stop();
        decoder->Terminate();
    }
    SetRates(state, cpuSeconds);
}

void BareLibavcodec(benchmark::State& state, const std::string& name)
{
    const Stream& stream = g_streams[name];
    const AVCodec* codec = avcodec_find_decoder_by_name("h264");
    double cpuSeconds = 0;
    for (auto _ : state) {
        PlaneCopy copy;
        AVCodecContext* context = avcodec_alloc_context3(codec);
        avcodec_open2(context, codec, nullptr);
        AVPacket* packet = av_packet_alloc();
        AVFrame* picture = av_frame_alloc();

        const double cpuStart = ProcessCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        int decoded = 0;
        for (int unit = 0; unit < kDecodedPictures; ++unit) {
            packet->data = const_cast<uint8_t*>(stream.units[unit].data());
            packet->size = static_cast<int>(stream.units[unit].size());
            avcodec_send_packet(context, packet);
            while (avcodec_receive_frame(context, picture) == 0) {
                copy.Copy(static_cast<uint32_t>(picture->height), picture->linesize,
                          picture->data[0], picture->data[1], picture->data[2]);
                ++decoded;
            }
        }
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        cpuSeconds += ProcessCpuSeconds() - cpuStart;
        state.SetIterationTime(elapsed.count());
        if (decoded != kDecodedPictures) {
            state.SkipWithError("the bare loop lost pictures");
        }

        packet->data = nullptr;
        packet->size = 0;
        av_frame_free(&picture);
        av_packet_free(&packet);
        avcodec_free_context(&context);
    }
    SetRates(state, cpuSeconds);
}

// Keeps each repetition's pictures per second, to print the medians and
// their ratio after the run.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) {
                continue;
            }
            for (const char* counter : {"fps", "cpu_fps"}) {
                const auto found = run.counters.find(counter);
                if (found != run.counters.end()) {
                    m_rates[run.run_name.function_name + " " + counter].push_back(
                        found->second.value);
                }
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    double Median(const std::string& name, const char* counter) const
    {
        std::vector<double> values = Values(name + " " + counter);
        return values.empty() ? 0.0 : values[values.size() / 2];
    }

    double Best(const std::string& name, const char* counter) const
    {
        std::vector<double> values = Values(name + " " + counter);
        return values.empty() ? 0.0 : values.back();
    }

private:
    std::vector<double> Values(const std::string& name) const
    {
        const auto found = m_rates.find(name);
        std::vector<double> values;
        if (found != m_rates.end()) {
            values = found->second;
        }
        std::sort(values.begin(), values.end());
        return values;
    }

    std::map<std::string, std::vector<double>> m_rates;
};

} // namespace

int main(int argc, char** argv)
{
    av_log_set_level(AV_LOG_ERROR);
    const std::pair<int, int> sizes[] = {{1920, 1080}, {1280, 720}};
    std::vector<std::string> names;
    for (const auto& [width, height] : sizes) {
        const std::string name = std::to_string(width) + "x" + std::to_string(height);
        Stream stream = Encode(width, height);
        if (stream.units.size() != static_cast<size_t>(kStreamPictures)) {
            std::fprintf(stderr, "could not make the %s stream\n", name.c_str());
            return 1;
        }
        size_t bytes = 0;
        size_t largest = 0;
        for (const auto& unit : stream.units) {
            bytes += unit.size();
            largest = std::max(largest, unit.size());
        }
        if (largest > kMaxFrameSize) {
            std::fprintf(stderr, "a %s unit is larger than a frame\n", name.c_str());
            return 1;
        }
        std::printf("stream %s: %d units, %zu bytes, largest %zu\n", name.c_str(), kStreamPictures,
                    bytes, largest);
        g_streams[name] = std::move(stream);
        names.push_back(name);
    }

    for (const std::string& name : names) {
        benchmark::RegisterBenchmark(("relay/" + name).c_str(), RelayDecoder, name)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(2)
            ->Repetitions(9);
        benchmark::RegisterBenchmark(("bare/" + name).c_str(), BareLibavcodec, name)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(2)
            ->Repetitions(9);
    }

    // Interleaved repetitions, so that a busy moment of the machine falls on
    // both sides alike.
    std::vector<char*> arguments(argv, argv + argc);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\npictures per second, decoder thread count 1 on both sides (target ratio "
                ">= 0.95)\n");
    for (const std::string& name : names) {
        for (const char* counter : {"fps", "cpu_fps"}) {
            const double relayMedian = reporter.Median("relay/" + name, counter);
            const double bareMedian = reporter.Median("bare/" + name, counter);
            const double relayBest = reporter.Best("relay/" + name, counter);
            const double bareBest = reporter.Best("bare/" + name, counter);
            std::printf("%-10s %-8s median: relay %7.1f bare %7.1f ratio %.3f | best: relay "
                        "%7.1f bare %7.1f ratio %.3f\n",
                        name.c_str(), counter, relayMedian, bareMedian,
                        bareMedian > 0 ? relayMedian / bareMedian : 0.0, relayBest, bareBest,
                        bareBest > 0 ? relayBest / bareBest : 0.0);
        }
    }
    return 0;
}
