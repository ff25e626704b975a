// Initialize: the codec table, the hardware probe and the way to software.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>

using namespace quorvan;
using Access = quorvan::VideoDecoderTestAccess;
using namespace velorane::test;

namespace {

void NoPicture(uint32_t, uint32_t, int*, uint8_t*, uint8_t*, uint8_t*) {}

// What FindAcceleration says on the way out, whichever way it goes.
bool ProbeLogged(const std::vector<std::string>& messages)
{
    for (const auto& message : messages) {
        if (message.rfind("VideoDecoder: hardware type: ", 0) == 0 ||
            message.rfind("VideoDecoder: hardware acceleration: ", 0) == 0 ||
            message == "VideoDecoder: no hardware acceleration found!") {
            return true;
        }
    }
    return false;
}

} // namespace

TEST(VideoDecoderInitializeTest, FormatZeroIsInvalidWithNoThreadAndNoContext)
{
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_FALSE(decoder->Initialize(NoPicture, static_cast<IVideoDecoder::CodecFormat>(0),
                                     IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Count("VideoDecoder: invalid codec requested!"), 1u);
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::CurrentContext(*decoder), nullptr);
    EXPECT_EQ(Access::Parser(*decoder), nullptr);
    EXPECT_EQ(capture->Count("VideoDecoder: enter decoding thread"), 0u);
    EXPECT_EQ(capture->Messages().size(), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
}

TEST(VideoDecoderInitializeTest, FormatSixIsInvalidWithNoThreadAndNoContext)
{
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_FALSE(decoder->Initialize(NoPicture, static_cast<IVideoDecoder::CodecFormat>(6),
                                     IVideoDecoder::DecoderSoftware));
    EXPECT_EQ(capture->Count("VideoDecoder: invalid codec requested!"), 1u);
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
    EXPECT_EQ(capture->Messages().size(), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
}

TEST(VideoDecoderInitializeTest, InvalidFormatKeepsTheCallback)
{
    // The callback is stored before the format is checked; a later Start
    // with no decoder just idles, so only the lack of a crash is visible.
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_FALSE(decoder->Initialize(NoPicture, static_cast<IVideoDecoder::CodecFormat>(0),
                                     IVideoDecoder::DecoderSoftware));
    decoder->Start();
    EXPECT_TRUE(decoder->DeliverFrame(MakeFrame({0, 0, 0, 1, 0x65}, 1)));
    decoder->Stop();
}

TEST(VideoDecoderInitializeTest, SoftwareNeverCallsFindAcceleration)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderSoftware));
    EXPECT_EQ(hardware.walks, 0);
    EXPECT_FALSE(ProbeLogged(capture->Messages()));
    EXPECT_EQ(capture->Count("VideoDecoder: trying to initialize hardware decoder"), 0u);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: selected codec: h264",
                                        "VideoDecoder: trying to initialize software decoder",
                                        "VideoDecoder: software decoder initialized"}));
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
}

TEST(VideoDecoderInitializeTest, NoAcceptedDeviceTypeEndsAtNoneAndSoftwareRuns)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VDPAU, AV_HWDEVICE_TYPE_CUDA, AV_HWDEVICE_TYPE_QSV,
                           AV_HWDEVICE_TYPE_DRM, AV_HWDEVICE_TYPE_OPENCL, AV_HWDEVICE_TYPE_VULKAN});
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    // Six types passed over without a word, then the walk's end.
    EXPECT_EQ(hardware.walks, 7);
    EXPECT_EQ(Access::HardwareType(*decoder), AV_HWDEVICE_TYPE_NONE);
    EXPECT_TRUE(hardware.created.empty());
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: selected codec: h264",
                                        "VideoDecoder: trying to initialize hardware decoder",
                                        "VideoDecoder: no hardware acceleration found!",
                                        "VideoDecoder: trying to initialize software decoder",
                                        "VideoDecoder: software decoder initialized"}));
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    EXPECT_NE(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::CurrentContext(*decoder), Access::SoftwareContext(*decoder));
}

struct AcceptedType
{
    AVHWDeviceType type;
    const char* logged;
};

void PrintTo(const AcceptedType& accepted, std::ostream* out)
{
    *out << av_hwdevice_get_type_name(accepted.type);
}

class VideoDecoderAcceptedTypeTest : public testing::TestWithParam<AcceptedType>
{
};

TEST_P(VideoDecoderAcceptedTypeTest, FirstAcceptedTypeIsTakenAndNamed)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_CUDA, GetParam().type, AV_HWDEVICE_TYPE_DRM});
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(hardware.walks, 2);
    ASSERT_EQ(hardware.created.size(), 1u);
    EXPECT_EQ(hardware.created[0], GetParam().type);
    const std::string name = av_hwdevice_get_type_name(GetParam().type);
    EXPECT_EQ(Access::HardwareTypeName(*decoder), name);
    const int rc = AVERROR(ENODEV);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{
                  "VideoDecoder: selected codec: h264",
                  "VideoDecoder: trying to initialize hardware decoder", GetParam().logged,
                  "VideoDecoder: hardware acceleration: " + name,
                  "VideoDecoder: av_hwdevice_ctx_create failed: " + std::to_string(rc),
                  "VideoDecoder: trying to initialize software decoder",
                  "VideoDecoder: software decoder initialized"}));
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    DeviceTypes, VideoDecoderAcceptedTypeTest,
    testing::Values(AcceptedType{AV_HWDEVICE_TYPE_DXVA2,
                                 "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_DXVA2"},
                    AcceptedType{AV_HWDEVICE_TYPE_VIDEOTOOLBOX,
                                 "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VIDEOTOOLBOX"},
                    AcceptedType{AV_HWDEVICE_TYPE_MEDIACODEC,
                                 "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_MEDIACODEC"},
                    AcceptedType{AV_HWDEVICE_TYPE_VAAPI,
                                 "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VAAPI"}));

TEST(VideoDecoderInitializeTest, EarliestAcceptedTypeInTheWalkWins)
{
    ScopedLogCapture capture;
    FakeHardware hardware(
        {AV_HWDEVICE_TYPE_VAAPI, AV_HWDEVICE_TYPE_DXVA2, AV_HWDEVICE_TYPE_VIDEOTOOLBOX});
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware);
    EXPECT_EQ(hardware.walks, 1);
    EXPECT_EQ(hardware.created, std::vector<AVHWDeviceType>{AV_HWDEVICE_TYPE_VAAPI});
}

TEST(VideoDecoderInitializeTest, MissingHardwareConfigurationFallsBackToSoftware)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Count("VideoDecoder: decoder (h264) doesn't support device type vaapi"), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    // The device stays until Terminate.
    EXPECT_NE(Access::Device(*decoder), nullptr);
    decoder->Terminate();
    EXPECT_EQ(Access::Device(*decoder), nullptr);
    EXPECT_EQ(av_buffer_get_ref_count(hardware.device), 1);
}

TEST(VideoDecoderInitializeTest, ConfigurationOfAnotherDeviceTypeFallsBackToSoftware)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    hardware.SetConfig(AV_HWDEVICE_TYPE_CUDA, AV_PIX_FMT_CUDA);
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Count("VideoDecoder: cannot retrieve hardware configuration!"), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
}

TEST(VideoDecoderInitializeTest, ConfigurationWithoutTheDeviceMethodFallsBackToSoftware)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    hardware.SetConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_VAAPI);
    hardware.config.methods = AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Count("VideoDecoder: cannot retrieve hardware configuration!"), 1u);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
}

TEST(VideoDecoderInitializeTest, UsableHardwareConfigurationReadiesTheHardwareDecoder)
{
    ScopedLogCapture capture;
    FakeHardware hardware({AV_HWDEVICE_TYPE_VAAPI});
    hardware.createResult = 0;
    hardware.SetConfig(AV_HWDEVICE_TYPE_VAAPI, AV_PIX_FMT_VAAPI);
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(hardware.Probe()));
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: selected codec: h264",
                                        "VideoDecoder: trying to initialize hardware decoder",
                                        "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VAAPI",
                                        "VideoDecoder: hardware acceleration: vaapi",
                                        "VideoDecoder: hardware decoder initialized"}));
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
    AVCodecContext* context = Access::HardwareContext(*decoder);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(Access::CurrentContext(*decoder), context);
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(context->opaque, static_cast<void*>(decoder.Get()));
    EXPECT_EQ(context->codec_id, AV_CODEC_ID_H264);
    EXPECT_NE(context->get_format, nullptr);
    ASSERT_NE(context->hw_device_ctx, nullptr);
    EXPECT_EQ(context->hw_device_ctx->data, hardware.device->data);
    // The test's reference, the decoder's and the context's.
    EXPECT_EQ(av_buffer_get_ref_count(hardware.device), 3);
}

TEST(VideoDecoderInitializeTest, ThisMachineProbesItsHardwareAndFallsBackToSoftware)
{
    if (std::filesystem::exists("/dev/dri")) {
        GTEST_SKIP() << "this machine has a render device";
    }
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware));
    const auto messages = capture->Messages();
    const long hardware = IndexOf(messages, "VideoDecoder: trying to initialize hardware decoder");
    const long software = IndexOf(messages, "VideoDecoder: trying to initialize software decoder");
    ASSERT_GE(hardware, 0);
    ASSERT_GT(software, hardware);
    EXPECT_TRUE(ProbeLogged(messages));
    EXPECT_EQ(messages.back(), "VideoDecoder: software decoder initialized");
    EXPECT_EQ(capture->Count("VideoDecoder: hardware decoder initialized"), 0u);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    // Debian's libavutil knows VAAPI, and there is no device to open.
    if (av_hwdevice_find_type_by_name("vaapi") == AV_HWDEVICE_TYPE_VAAPI) {
        EXPECT_GE(IndexOf(messages, "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VAAPI"), 0);
        EXPECT_GE(IndexOf(messages, "VideoDecoder: hardware acceleration: vaapi"), 0);
    }
}

struct CodecRow
{
    IVideoDecoder::CodecFormat format;
    const char* name;
    int32_t id;
    // WMV3 has no parser in FFmpeg, and its decoder won't open without the
    // sequence header that a container would carry.
    bool opens;
};

void PrintTo(const CodecRow& row, std::ostream* out)
{
    *out << row.name;
}

class VideoDecoderCodecTableTest : public testing::TestWithParam<CodecRow>
{
};

TEST_P(VideoDecoderCodecTableTest, FormatSelectsItsDecoderByName)
{
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_EQ(decoder->Initialize(NoPicture, GetParam().format, IVideoDecoder::DecoderSoftware),
              GetParam().opens);
    EXPECT_EQ(Access::CodecName(*decoder), GetParam().name);
    EXPECT_EQ(Access::CodecId(*decoder), GetParam().id);
    const auto messages = capture->Messages();
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[0], std::string("VideoDecoder: selected codec: ") + GetParam().name);
    if (GetParam().opens) {
        EXPECT_EQ(messages[1], "VideoDecoder: trying to initialize software decoder");
        EXPECT_EQ(messages.back(), "VideoDecoder: software decoder initialized");
        EXPECT_NE(Access::Parser(*decoder), nullptr);
        EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    } else {
        // The parser's failure is passed over; the open's ends Initialize,
        // the context left allocated and not current.
        EXPECT_EQ(messages[1], "VideoDecoder: failed to initialize H264 parser!");
        EXPECT_EQ(messages[2], "VideoDecoder: trying to initialize software decoder");
        EXPECT_EQ(messages.back().rfind("VideoDecoder: avcodec_open2 failed: 0x", 0), 0u);
        EXPECT_EQ(Access::Parser(*decoder), nullptr);
        EXPECT_NE(Access::SoftwareContext(*decoder), nullptr);
        EXPECT_EQ(Access::CurrentContext(*decoder), nullptr);
    }
}

// The numbers are FFmpeg's own ids, as the linked libavcodec has them.
INSTANTIATE_TEST_SUITE_P(Formats, VideoDecoderCodecTableTest,
                         testing::Values(CodecRow{IVideoDecoder::CodecH264, "h264", 27, true},
                                         CodecRow{IVideoDecoder::CodecHevc, "hevc", 173, true},
                                         CodecRow{IVideoDecoder::CodecMpeg2, "mpeg2video", 2, true},
                                         CodecRow{IVideoDecoder::CodecVp9, "vp9", 167, true},
                                         CodecRow{IVideoDecoder::CodecWmv3, "wmv3", 71, false}),
                         [](const testing::TestParamInfo<CodecRow>& info) {
                             return std::string(info.param.name);
                         });

TEST(VideoDecoderInitializeTest, FailedInitializeLeavesARunningLoopOnlyReturningFrames)
{
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_FALSE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecWmv3,
                                     IVideoDecoder::DecoderSoftware));
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame({0, 0, 0, 1, 0x65, 0x88}, 1)));
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
    EXPECT_FALSE(Access::ReceiveDeliverFrames(*decoder));
    decoder->Start();
    for (int32_t number = 2; number < 8; ++number) {
        EXPECT_TRUE(
            DeliverWithRetry(*decoder, {0, 0, 0, 1, 0x65, 0x88}, number, std::chrono::seconds(10)));
    }
    decoder->Stop();
    EXPECT_EQ(recorder.Count(), 0u);
}

TEST(VideoDecoderInitializeTest, GetDecoderBeforeInitializeIsHardware)
{
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
}

TEST(VideoDecoderInitializeTest, SecondInitializeReplacesTheFirst)
{
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecHevc, IVideoDecoder::DecoderSoftware));
    ASSERT_TRUE(
        decoder->Initialize(NoPicture, IVideoDecoder::CodecH264, IVideoDecoder::DecoderSoftware));
    EXPECT_EQ(Access::CodecId(*decoder), AV_CODEC_ID_H264);
    EXPECT_EQ(Access::SoftwareContext(*decoder)->codec_id, AV_CODEC_ID_H264);
}

TEST(VideoDecoderInitializeTest, FactoryGivesOneReference)
{
    IVideoDecoder* raw = nullptr;
    ASSERT_EQ(CreateVideoDecoder(&raw), Success);
    ASSERT_NE(raw, nullptr);
    CRefCountPtr<IVideoDecoder> decoder(raw);
    EXPECT_EQ(decoder->GetRefCount(), 1);
    EXPECT_EQ(CreateVideoDecoder(nullptr), ResultInvalidPointer);
}
