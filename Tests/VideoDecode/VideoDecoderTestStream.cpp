#include "Tests/VideoDecode/VideoDecoderTestStream.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include "Common/Logger/Src/Logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>

namespace velorane::test {

namespace {

constexpr int kBoxSize = 32;

// FFmpeg reports every broken slice of the garbage and fallback tests on
// standard error; the tests assert on the decoder's own log instead. Set
// before main, so before any decoder thread reads it.
[[maybe_unused]] const bool kQuietFfmpeg = [] {
    av_log_set_level(AV_LOG_FATAL);
    return true;
}();

// Each test starts with a fresh logger: the limits per log site and thread
// would otherwise let one test's messages silence the next test's, since a
// new decoder thread often gets the id of the last one.
class FreshLoggerPerTest : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override { quorvan::ReleaseLoggerInstance(); }
};

[[maybe_unused]] const bool kFreshLoggers = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshLoggerPerTest());
    return true;
}();

const AVCodec* FindH264Encoder()
{
    if (const AVCodec* x264 = avcodec_find_encoder_by_name("libx264")) {
        return x264;
    }
    return avcodec_find_encoder(AV_CODEC_ID_H264);
}

void DrawPattern(AVFrame* picture, int index)
{
    const int width = picture->width;
    const int height = picture->height;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = picture->data[0] + y * picture->linesize[0];
        for (int x = 0; x < width; ++x) {
            row[x] = static_cast<uint8_t>(PatternLuma(x, y, index, width, height));
        }
    }
    for (int y = 0; y < height / 2; ++y) {
        for (int x = 0; x < width / 2; ++x) {
            picture->data[1][y * picture->linesize[1] + x] = kPatternU;
            picture->data[2][y * picture->linesize[2] + x] = kPatternV;
        }
    }
}

void Drain(AVCodecContext* encoder, AVPacket* packet, H264Stream& stream)
{
    while (avcodec_receive_packet(encoder, packet) == 0) {
        stream.accessUnits.emplace_back(packet->data, packet->data + packet->size);
        av_packet_unref(packet);
    }
}

} // namespace

int PatternLuma(int x, int y, int index, int width, int height)
{
    const int boxTop = height / 2 - kBoxSize / 2;
    const int boxLeft = (8 * index) % (width - kBoxSize);
    if (y >= boxTop && y < boxTop + kBoxSize && x >= boxLeft && x < boxLeft + kBoxSize) {
        return 235;
    }
    return 40 + x * 100 / width + y * 60 / height + index;
}

std::string H264EncoderName()
{
    const AVCodec* encoder = FindH264Encoder();
    return encoder ? encoder->name : "";
}

H264Stream EncodeTestPattern(int width, int height, int count, int gopSize, int threads)
{
    H264Stream stream;
    stream.width = width;
    stream.height = height;
    const AVCodec* codec = FindH264Encoder();
    if (!codec) {
        return stream;
    }

    AVCodecContext* encoder = avcodec_alloc_context3(codec);
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->time_base = AVRational{1, 30};
    encoder->framerate = AVRational{30, 1};
    encoder->gop_size = gopSize;
    encoder->max_b_frames = 0;
    encoder->thread_count = threads;
    av_opt_set(encoder->priv_data, "preset", "ultrafast", 0);
    av_opt_set(encoder->priv_data, "tune", "zerolatency", 0);

    AVFrame* picture = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    if (avcodec_open2(encoder, codec, nullptr) == 0) {
        picture->width = width;
        picture->height = height;
        picture->format = AV_PIX_FMT_YUV420P;
        av_frame_get_buffer(picture, 0);
        for (int i = 0; i < count; ++i) {
            av_frame_make_writable(picture);
            DrawPattern(picture, i);
            picture->pts = i;
            if (avcodec_send_frame(encoder, picture) == 0) {
                Drain(encoder, packet, stream);
            }
        }
        avcodec_send_frame(encoder, nullptr);
        Drain(encoder, packet, stream);
    }
    av_packet_free(&packet);
    av_frame_free(&picture);
    avcodec_free_context(&encoder);
    return stream;
}

std::unique_ptr<quorvan::VideoFrame> MakeFrame(const std::vector<uint8_t>& bytes, int32_t number,
                                               uint32_t width, uint32_t height)
{
    auto frame = std::make_unique<quorvan::VideoFrame>();
    const size_t size = std::min<size_t>(bytes.size(), quorvan::kMaxFrameSize);
    frame->number = number;
    frame->wireNumber = number;
    frame->size = static_cast<int32_t>(size);
    frame->wireSize = static_cast<int32_t>(size);
    frame->width = width;
    frame->height = height;
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size), frame->data);
    std::memcpy(frame->data + size, &width, sizeof(width));
    std::memcpy(frame->data + size + sizeof(width), &height, sizeof(height));
    return frame;
}

quorvan::IVideoDecoder::FrameCallback PictureRecorder::Callback()
{
    return [this](uint32_t width, uint32_t height, int* stride, uint8_t* y, uint8_t* u,
                  uint8_t* v) { OnPicture(width, height, stride, y, u, v); };
}

void PictureRecorder::SamplePoint(int which, int width, int height, int* x, int* y)
{
    static const int kNumerators[3][2] = {{1, 1}, {3, 1}, {2, 3}};
    *x = width * kNumerators[which][0] / 4;
    *y = height * kNumerators[which][1] / 4;
}

void PictureRecorder::OnPicture(uint32_t width, uint32_t height, int* stride, uint8_t* y,
                                uint8_t* u, uint8_t* v)
{
    Picture picture;
    picture.width = width;
    picture.height = height;
    for (int i = 0; i < 3; ++i) {
        picture.stride[i] = stride ? stride[i] : 0;
    }
    picture.hasY = y != nullptr;
    picture.hasU = u != nullptr;
    picture.hasV = v != nullptr;
    const int w = static_cast<int>(width);
    const int h = static_cast<int>(height);
    if (y && w > 0 && h > 0) {
        for (int i = 0; i < 3; ++i) {
            int sx = 0;
            int sy = 0;
            SamplePoint(i, w, h, &sx, &sy);
            picture.luma[i] = y[sy * picture.stride[0] + sx];
        }
    }
    if (u && v && w > 0 && h > 0) {
        picture.u = u[(h / 4) * picture.stride[1] + w / 4];
        picture.v = v[(h / 4) * picture.stride[2] + w / 4];
    }
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_pictures.push_back(picture);
    }
    m_changed.notify_all();
}

size_t PictureRecorder::Count() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_pictures.size();
}

std::vector<PictureRecorder::Picture> PictureRecorder::Pictures() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_pictures;
}

bool PictureRecorder::WaitForCount(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, timeout, [&] { return m_pictures.size() >= count; });
}

bool DeliverPaced(quorvan::IVideoDecoder& decoder, const PictureRecorder& recorder,
                  const H264Stream& stream, size_t picturesBefore)
{
    // Unit k's token is back once picture k - 1 has come (the same pass
    // released it), so at most two units are ever out.
    for (size_t k = 0; k < stream.accessUnits.size(); ++k) {
        if (k >= 2 && !recorder.WaitForCount(picturesBefore + k - 1, std::chrono::seconds(10))) {
            return false;
        }
        if (!decoder.DeliverFrame(MakeFrame(stream.accessUnits[k], static_cast<int32_t>(k),
                                            static_cast<uint32_t>(stream.width),
                                            static_cast<uint32_t>(stream.height)))) {
            return false;
        }
    }
    return true;
}

bool DeliverWithRetry(quorvan::IVideoDecoder& decoder, const std::vector<uint8_t>& bytes,
                      int32_t number, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!decoder.DeliverFrame(MakeFrame(bytes, number))) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::vector<uint8_t> GarbageFrame(uint32_t seed, size_t size)
{
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    // Start codes with slice, key slice, SPS and PPS headers every so often.
    static const uint8_t kNalHeaders[] = {0x41, 0x65, 0x67, 0x68, 0x06};
    for (size_t at = 0; at + 5 < size; at += 40 + random() % 400) {
        bytes[at] = 0;
        bytes[at + 1] = 0;
        bytes[at + 2] = 0;
        bytes[at + 3] = 1;
        bytes[at + 4] = kNalHeaders[random() % sizeof(kNalHeaders)];
    }
    return bytes;
}

FakeHardware::FakeHardware(std::vector<AVHWDeviceType> walk) : types(std::move(walk)) {}

FakeHardware::~FakeHardware()
{
    av_buffer_unref(&device);
}

void FakeHardware::SetConfig(AVHWDeviceType deviceType, AVPixelFormat pixelFormat)
{
    hasConfig = true;
    config.pix_fmt = pixelFormat;
    config.methods = AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX;
    config.device_type = deviceType;
}

quorvan::HardwareProbe FakeHardware::Probe()
{
    quorvan::HardwareProbe probe;
    probe.iterateTypes = [this](AVHWDeviceType previous) {
        ++walks;
        if (previous == AV_HWDEVICE_TYPE_NONE) {
            return types.empty() ? AV_HWDEVICE_TYPE_NONE : types.front();
        }
        for (size_t i = 0; i + 1 < types.size(); ++i) {
            if (types[i] == previous) {
                return types[i + 1];
            }
        }
        return AV_HWDEVICE_TYPE_NONE;
    };
    probe.createDevice = [this](AVBufferRef** made, AVHWDeviceType type) {
        created.push_back(type);
        if (createResult < 0) {
            return createResult;
        }
        // Any device type this libavutil knows will do: nothing opens it.
        AVBufferRef* standIn =
            av_hwdevice_ctx_alloc(av_hwdevice_iterate_types(AV_HWDEVICE_TYPE_NONE));
        if (!standIn) {
            standIn = av_buffer_allocz(64);
        }
        av_buffer_unref(&device);
        device = standIn;
        *made = av_buffer_ref(standIn);
        return createResult;
    };
    probe.hardwareConfig = [this](const AVCodec*, int index) -> const AVCodecHWConfig* {
        configIndexes.push_back(index);
        if (!hasConfig || index < 0) {
            return nullptr;
        }
        if (index == 0) {
            return &config;
        }
        const size_t later = static_cast<size_t>(index - 1);
        return later < laterConfigs.size() ? &laterConfigs[later] : nullptr;
    };
    return probe;
}

size_t CountOutsideInformation(const CapturingLogStore& store)
{
    size_t count = 0;
    for (const auto& line : store.Lines()) {
        if (line.group != quorvan::EGroupValueInformation) {
            ++count;
        }
    }
    return count;
}

size_t CountPrefix(const std::vector<std::string>& messages, const std::string& prefix)
{
    size_t count = 0;
    for (const auto& message : messages) {
        if (message.compare(0, prefix.size(), prefix) == 0) {
            ++count;
        }
    }
    return count;
}

long IndexOf(const std::vector<std::string>& messages, const std::string& text)
{
    for (size_t i = 0; i < messages.size(); ++i) {
        if (messages[i] == text) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

} // namespace velorane::test
