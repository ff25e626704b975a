#pragma once

// Support for the decoder tests: H.264 streams made at test time with
// libavcodec's encoder, frames built from their access units, a recorder
// for the decoder's callback, and a window on the decoder's private parts.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quorvan {

// Reaches the decoder's private operations and state, so a test can run one
// step of the decoder thread on its own thread while the decoder is not
// started.
class VideoDecoderTestAccess
{
public:
    static bool ParseDecodePackets(VideoDecoder& decoder) { return decoder.ParseDecodePackets(); }
    static bool ReceiveDeliverFrames(VideoDecoder& decoder)
    {
        return decoder.ReceiveDeliverFrames();
    }
    static AVPixelFormat GetFormat(AVCodecContext* context, const AVPixelFormat* formats)
    {
        return VideoDecoder::GetFormat(context, formats);
    }
    static void SetHardwarePixelFormat(VideoDecoder& decoder, AVPixelFormat format)
    {
        decoder.m_hardwarePixelFormat = format;
    }
    static FrameQueue& Queue(VideoDecoder& decoder) { return decoder.m_frameQueue; }
    static AVPacket* Packet(VideoDecoder& decoder) { return decoder.m_packet; }
    static AVCodecParserContext* Parser(VideoDecoder& decoder) { return decoder.m_parser; }
    static AVCodecContext* HardwareContext(VideoDecoder& decoder)
    {
        return decoder.m_hardwareContext;
    }
    static AVCodecContext* SoftwareContext(VideoDecoder& decoder)
    {
        return decoder.m_softwareContext;
    }
    static AVCodecContext* CurrentContext(VideoDecoder& decoder)
    {
        return decoder.m_currentContext;
    }
    static AVBufferRef* Device(VideoDecoder& decoder) { return decoder.m_hardwareDeviceContext; }
    static AVHWDeviceType HardwareType(VideoDecoder& decoder) { return decoder.m_hardwareType; }
    static const std::string& HardwareTypeName(VideoDecoder& decoder)
    {
        return decoder.m_hardwareTypeName;
    }
    static int32_t CodecId(VideoDecoder& decoder) { return decoder.m_codecId; }
    // Replaces the probing calls of a decoder that was made with the default
    // ones, for instance to see whether it probes again.
    static void SetProbe(VideoDecoder& decoder, HardwareProbe probe)
    {
        decoder.m_probe = std::move(probe);
    }
    // The decoder thread, while it runs; for its CPU clock.
    static std::thread::native_handle_type ThreadHandle(VideoDecoder& decoder)
    {
        return decoder.m_thread.native_handle();
    }
    static const std::string& CodecName(VideoDecoder& decoder) { return decoder.m_codecName; }
};

} // namespace quorvan

namespace velorane::test {

// A stream of access units, one per packet, in decoding order, no B-frames.
struct H264Stream
{
    int width = 0;
    int height = 0;
    std::vector<std::vector<uint8_t>> accessUnits;
};

// The luma of the test pattern at (x, y) of picture index: a gradient that
// brightens by one step a picture. A bright box moves along the middle rows
// (PatternBoxTop to PatternBoxTop + 32), which the samples stay clear of.
int PatternLuma(int x, int y, int index, int width, int height);
constexpr int kPatternU = 90;
constexpr int kPatternV = 170;

// Encodes count pictures of the pattern with libx264 (or, without it, the
// first H.264 encoder libavcodec has), a key picture every gopSize.
// Encoder threads stay at threads, 1 by default, so that no thread of the
// encoder runs beside the decoder under test.
H264Stream EncodeTestPattern(int width, int height, int count, int gopSize = 10, int threads = 1);
// The name of the encoder EncodeTestPattern uses, empty when there is none.
std::string H264EncoderName();

// A frame as the relay window builds it: header values, the bytes, then
// width and height behind them.
std::unique_ptr<quorvan::VideoFrame> MakeFrame(const std::vector<uint8_t>& bytes, int32_t number,
                                               uint32_t width = 0, uint32_t height = 0);

// Records what the decoder's callback saw. The callback runs on the decoder
// thread; the test thread reads under the same lock.
class PictureRecorder
{
public:
    struct Picture
    {
        uint32_t width = 0;
        uint32_t height = 0;
        int stride[3] = {0, 0, 0};
        bool hasY = false;
        bool hasU = false;
        bool hasV = false;
        // Luma at the sample points, chroma at the centre; -1 without plane.
        int luma[3] = {-1, -1, -1};
        int u = -1;
        int v = -1;
    };

    quorvan::IVideoDecoder::FrameCallback Callback();
    size_t Count() const;
    std::vector<Picture> Pictures() const;
    bool WaitForCount(size_t count, std::chrono::milliseconds timeout) const;

    // The luma sample points of a width by height picture.
    static void SamplePoint(int which, int width, int height, int* x, int* y);

private:
    void OnPicture(uint32_t width, uint32_t height, int* stride, uint8_t* y, uint8_t* u,
                   uint8_t* v);

    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    std::vector<Picture> m_pictures;
};

// Delivers every access unit without a drop: the next goes only once the
// token of an earlier one is back, which the pictures tell (the parser holds
// one unit back, so unit k yields picture k - 1). False on a time-out.
bool DeliverPaced(quorvan::IVideoDecoder& decoder, const PictureRecorder& recorder,
                  const H264Stream& stream, size_t picturesBefore = 0);

// Delivers one frame, trying again while all tokens are out; false if none
// came back within the time-out.
bool DeliverWithRetry(quorvan::IVideoDecoder& decoder, const std::vector<uint8_t>& bytes,
                      int32_t number, std::chrono::milliseconds timeout);

// Bytes that look like H.264 to the parser (start codes, NAL headers) with
// random content behind them.
std::vector<uint8_t> GarbageFrame(uint32_t seed, size_t size);

// Stands in for the machine's hardware: a device type walk of the test's
// choosing (ended by AV_HWDEVICE_TYPE_NONE), device creation that fails
// with createResult or, when that is not negative, hands out a stand-in
// device (an uninitialised device context, which no decoder opens), and the
// codec's first hardware configuration (none when hasConfig is false). The
// probe it makes is used on the thread that calls Initialize.
class FakeHardware
{
public:
    explicit FakeHardware(std::vector<AVHWDeviceType> types);
    ~FakeHardware();
    FakeHardware(const FakeHardware&) = delete;
    FakeHardware& operator=(const FakeHardware&) = delete;

    quorvan::HardwareProbe Probe();
    // Pairs deviceType with pixelFormat by the device-context method.
    void SetConfig(AVHWDeviceType deviceType, AVPixelFormat pixelFormat);

    std::vector<AVHWDeviceType> types;
    int walks = 0; // calls of the type walk
    int createResult = AVERROR(ENODEV);
    std::vector<AVHWDeviceType> created; // types asked of createDevice
    bool hasConfig = false;
    AVCodecHWConfig config = {};
    // Configurations behind the first one, at index 1 and on.
    std::vector<AVCodecHWConfig> laterConfigs;
    std::vector<int> configIndexes; // indexes asked of hardwareConfig
    // The test's own reference to the last stand-in device.
    AVBufferRef* device = nullptr;
};

// Counts the captured messages that begin with prefix.
size_t CountPrefix(const std::vector<std::string>& messages, const std::string& prefix);
// Index of the first message equal to text, or -1.
long IndexOf(const std::vector<std::string>& messages, const std::string& text);
// Counts the captured lines that went to any group but the information
// group, where every line of the decoder goes, failures included.
size_t CountOutsideInformation(const CapturingLogStore& store);

} // namespace velorane::test
