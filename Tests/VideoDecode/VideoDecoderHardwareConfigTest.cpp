// The codec's hardware configuration: the one that serves the chosen device
// through a device context, wherever it stands in the codec's list.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quorvan;
using Access = quorvan::VideoDecoderTestAccess;
using namespace velorane::test;

namespace {

void NoPicture(uint32_t, uint32_t, int*, uint8_t*, uint8_t*, uint8_t*) {}

AVCodecHWConfig DeviceConfig(AVHWDeviceType type, AVPixelFormat format, int methods)
{
    AVCodecHWConfig config = {};
    config.pix_fmt = format;
    config.methods = methods;
    config.device_type = type;
    return config;
}

// The index of the H.264 decoder's configuration for type by a device
// context in this libavcodec, or -1.
int RealConfigIndex(AVHWDeviceType type)
{
    const AVCodec* codec = avcodec_find_decoder_by_name("h264");
    for (int i = 0; codec; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(codec, i);
        if (!config) {
            break;
        }
        if (config->device_type == type &&
            (config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX)) {
            return i;
        }
    }
    return -1;
}

const std::vector<std::string> kHardwareReady = {
    "VideoDecoder: selected codec: h264",
    "VideoDecoder: trying to initialize hardware decoder",
    "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VAAPI",
    "VideoDecoder: hardware acceleration: vaapi",
    "VideoDecoder: hardware decoder initialized",
};

} // namespace

TEST(VideoDecoderHardwareConfigTest, RealH264TableServesVaapiBehindItsFirstEntry)
{
    const int vaapiIndex = RealConfigIndex(AV_HWDEVICE_TYPE_VAAPI);
    if (vaapiIndex < 0) {
        GTEST_SKIP() << "this libavcodec's H.264 decoder has no VAAPI configuration";
    }
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    HardwareProbe probe = hardware.Probe();
    probe.hardwareConfig = avcodec_get_hw_config; // the codec's own table
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(probe));

    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Messages(), kHardwareReady);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
    AVCodecContext* context = Access::HardwareContext(*decoder);
    ASSERT_NE(context, nullptr);
    EXPECT_NE(context->get_format, nullptr);
    // The decoder now asks for VAAPI surfaces when FFmpeg offers them.
    const AVPixelFormat offered[] = {AV_PIX_FMT_CUDA, AV_PIX_FMT_VAAPI, AV_PIX_FMT_YUV420P,
                                     AV_PIX_FMT_NONE};
    EXPECT_EQ(Access::GetFormat(context, offered), AV_PIX_FMT_VAAPI);
}

TEST(VideoDecoderHardwareConfigTest, FirstEntryServingTheDeviceIsTakenAsBefore)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    hardware.SetConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_VAAPI);
    hardware.laterConfigs = {DeviceConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_NV12,
                                          AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX)};
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Messages(), kHardwareReady);
    EXPECT_EQ(hardware.configIndexes, std::vector<int>{0});
    const AVPixelFormat offered[] = {AV_PIX_FMT_NV12, AV_PIX_FMT_VAAPI, AV_PIX_FMT_NONE};
    EXPECT_EQ(Access::GetFormat(Access::HardwareContext(*decoder), offered), AV_PIX_FMT_VAAPI);
}

TEST(VideoDecoderHardwareConfigTest, SkipsOtherDevicesAndFrameContextOnlyEntries)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    hardware.SetConfig(AV_HWDEVICE_TYPE_CUDA, AV_PIX_FMT_CUDA);
    hardware.laterConfigs = {
        DeviceConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_NV12,
                     AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX),
        DeviceConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_VAAPI,
                     AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX |
                         AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX),
        DeviceConfig(AV_HWDEVICE_TYPE_VDPAU, AV_PIX_FMT_VDPAU,
                     AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX),
    };
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Messages(), kHardwareReady);
    // The walk stops at the entry it takes.
    EXPECT_EQ(hardware.configIndexes, (std::vector<int>{0, 1, 2}));
    const AVPixelFormat offered[] = {AV_PIX_FMT_CUDA, AV_PIX_FMT_NV12, AV_PIX_FMT_VAAPI,
                                     AV_PIX_FMT_NONE};
    EXPECT_EQ(Access::GetFormat(Access::HardwareContext(*decoder), offered), AV_PIX_FMT_VAAPI);
}

TEST(VideoDecoderHardwareConfigTest, NoEntryForTheDeviceFallsBackToSoftwareWithTheSameLines)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    hardware.SetConfig(AV_HWDEVICE_TYPE_CUDA, AV_PIX_FMT_CUDA);
    hardware.laterConfigs = {
        DeviceConfig(AV_HWDEVICE_TYPE_VDPAU, AV_PIX_FMT_VDPAU,
                     AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX),
        DeviceConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_VAAPI,
                     AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX),
    };
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: selected codec: h264",
                                        "VideoDecoder: trying to initialize hardware decoder",
                                        "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VAAPI",
                                        "VideoDecoder: hardware acceleration: vaapi",
                                        "VideoDecoder: cannot retrieve hardware configuration!",
                                        "VideoDecoder: trying to initialize software decoder",
                                        "VideoDecoder: software decoder initialized"}));
    // Every entry was looked at, up to the end of the list.
    EXPECT_EQ(hardware.configIndexes, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
}
