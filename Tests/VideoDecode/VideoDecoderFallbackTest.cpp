// The hardware path without hardware: a stand-in device and configuration
// drive the decoder through format negotiation, the first hardware decode
// error, the move to software, and the transfer of hardware pictures.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace quorvan;
using namespace velorane::test;
using Access = quorvan::VideoDecoderTestAccess;

namespace {

constexpr int kPictures = 30;

class VideoDecoderFallbackTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (H264EncoderName().empty()) {
            GTEST_SKIP() << "libavcodec has no H.264 encoder";
        }
        // A hardware format the software decoder never offers, so the
        // format negotiation refuses, as it does when a device can't serve.
        m_hardware.createResult = 0;
        m_hardware.SetConfig(AV_HWDEVICE_TYPE_VIDEOTOOLBOX, AV_PIX_FMT_VIDEOTOOLBOX);
    }

    FakeHardware m_hardware{{AV_HWDEVICE_TYPE_VIDEOTOOLBOX}};
};

// A decoder context to hand GetFormat, as FFmpeg would.
struct FormatContext
{
    explicit FormatContext(VideoDecoder* decoder) : context(avcodec_alloc_context3(nullptr))
    {
        context->opaque = decoder;
    }
    ~FormatContext() { avcodec_free_context(&context); }
    AVCodecContext* context;
};

} // namespace

TEST_F(VideoDecoderFallbackTest, FirstHardwareDecodeErrorSwitchesToSoftwareForGood)
{
    const H264Stream stream = EncodeTestPattern(320, 240, kPictures);
    ASSERT_EQ(stream.accessUnits.size(), static_cast<size_t>(kPictures));
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(m_hardware.Probe()));
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderHardware));
    ASSERT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
    capture->Clear();

    decoder->Start();
    ASSERT_TRUE(DeliverPaced(*decoder, recorder, stream));
    ASSERT_TRUE(recorder.WaitForCount(kPictures - 1, std::chrono::seconds(20)));
    decoder->Stop();

    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
    ASSERT_NE(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::CurrentContext(*decoder), Access::SoftwareContext(*decoder));

    // The refused packet went again to the software context: nothing lost,
    // and every picture has its third plane.
    const auto pictures = recorder.Pictures();
    ASSERT_EQ(pictures.size(), static_cast<size_t>(kPictures - 1));
    for (const auto& picture : pictures) {
        EXPECT_TRUE(picture.hasV);
        EXPECT_EQ(picture.width, 320u);
        EXPECT_EQ(picture.height, 240u);
    }

    const auto messages = capture->Messages();
    const long offered = IndexOf(messages, "VideoDecoder: GetFormat, which formats are offered");
    const long refused = IndexOf(messages, "VideoDecoder: failed to get hardware pixel format!");
    const long reverting = IndexOf(messages, "VideoDecoder: reverting to software decoder!");
    ASSERT_GE(offered, 0);
    EXPECT_GT(refused, offered);
    EXPECT_GT(reverting, refused);
    EXPECT_EQ(messages[reverting - 1], "Decode error: " + std::to_string(AVERROR_INVALIDDATA));
    EXPECT_EQ(capture->Count("VideoDecoder: reverting to software decoder!"), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(CountPrefix(messages, "Decode error: "), 1u);
    EXPECT_EQ(capture->Count("VideoDecoder: GetFormat, which formats are offered"), 1u);
    // The offered list ends with the software format the decoder would use.
    EXPECT_EQ(messages[refused - 1].rfind("VideoDecoder: format ", 0), 0u);
    EXPECT_NE(messages[refused - 1].find(": yuv420p"), std::string::npos);
}

TEST_F(VideoDecoderFallbackTest, HardwareDeviceReferenceIsHeldUntilTerminate)
{
    const H264Stream stream = EncodeTestPattern(320, 240, 3);
    ASSERT_EQ(stream.accessUnits.size(), 3u);
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(m_hardware.Probe()));
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderHardware));
    AVBufferRef* device = Access::Device(*decoder);
    ASSERT_NE(device, nullptr);
    // The test's reference, the decoder's, the hardware context's.
    EXPECT_EQ(av_buffer_get_ref_count(m_hardware.device), 3);

    for (size_t unit = 0; unit < 2; ++unit) {
        ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[unit], 0)));
        Access::ParseDecodePackets(*decoder);
        Access::ReceiveDeliverFrames(*decoder);
    }
    ASSERT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    ASSERT_EQ(recorder.Count(), 1u);

    // The hardware context is gone with its reference; the decoder's stays.
    EXPECT_EQ(Access::Device(*decoder), device);
    EXPECT_EQ(av_buffer_get_ref_count(m_hardware.device), 2);
    decoder->Terminate();
    EXPECT_EQ(Access::Device(*decoder), nullptr);
    EXPECT_EQ(av_buffer_get_ref_count(m_hardware.device), 1);
}

TEST_F(VideoDecoderFallbackTest, GetFormatTakesTheHardwareFormatWhereverItIsOffered)
{
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    Access::SetHardwarePixelFormat(*decoder, AV_PIX_FMT_VAAPI);
    FormatContext format(decoder.Get());
    const AVPixelFormat offered[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_VAAPI, AV_PIX_FMT_NONE};
    EXPECT_EQ(Access::GetFormat(format.context, offered), AV_PIX_FMT_VAAPI);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: GetFormat, which formats are offered",
                                        "VideoDecoder: format 0: yuv420p",
                                        "VideoDecoder: format 1: vaapi",
                                        "VideoDecoder: found pixel format: vaapi"}));
}

TEST_F(VideoDecoderFallbackTest, GetFormatOffersNoSoftwareFormatInstead)
{
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    Access::SetHardwarePixelFormat(*decoder, AV_PIX_FMT_VAAPI);
    FormatContext format(decoder.Get());
    const AVPixelFormat offered[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
    EXPECT_EQ(Access::GetFormat(format.context, offered), AV_PIX_FMT_NONE);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: GetFormat, which formats are offered",
                                        "VideoDecoder: format 0: yuv420p",
                                        "VideoDecoder: failed to get hardware pixel format!"}));
}

TEST_F(VideoDecoderFallbackTest, GetFormatWithAnEmptyListRefuses)
{
    ScopedLogCapture capture;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    Access::SetHardwarePixelFormat(*decoder, AV_PIX_FMT_VAAPI);
    FormatContext format(decoder.Get());
    const AVPixelFormat offered[] = {AV_PIX_FMT_NONE};
    EXPECT_EQ(Access::GetFormat(format.context, offered), AV_PIX_FMT_NONE);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"VideoDecoder: GetFormat, which formats are offered",
                                        "VideoDecoder: failed to get hardware pixel format!"}));
}

TEST_F(VideoDecoderFallbackTest, FailedTransferStillPassesTheTransferFrameOnWithTwoPlanes)
{
    // A configuration whose format is the software one: the hardware
    // context then decodes into memory, the transfer fails, and the picture
    // passed on is the untouched transfer frame, with a null third plane.
    m_hardware.SetConfig(AV_HWDEVICE_TYPE_VIDEOTOOLBOX, AV_PIX_FMT_YUV420P);
    const H264Stream stream = EncodeTestPattern(320, 240, 3);
    ASSERT_EQ(stream.accessUnits.size(), 3u);
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder(m_hardware.Probe()));
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderHardware));
    for (size_t unit = 0; unit < 3; ++unit) {
        ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[unit], 0)));
        Access::ParseDecodePackets(*decoder);
        Access::ReceiveDeliverFrames(*decoder);
    }
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
    const auto pictures = recorder.Pictures();
    ASSERT_EQ(pictures.size(), 2u);
    for (const auto& picture : pictures) {
        EXPECT_EQ(picture.width, 0u);
        EXPECT_EQ(picture.height, 0u);
        EXPECT_FALSE(picture.hasY);
        EXPECT_FALSE(picture.hasU);
        EXPECT_FALSE(picture.hasV);
    }
    char reason[64] = {};
    av_strerror(AVERROR(ENOSYS), reason, sizeof(reason));
    char expected[160];
    std::snprintf(expected, sizeof(expected),
                  "VideoDecoder: av_hwframe_transfer_data error: 0x%08x: %s",
                  static_cast<unsigned>(AVERROR(ENOSYS)), reason);
    EXPECT_EQ(capture->Count(expected), 2u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(capture->Count("VideoDecoder: found pixel format: yuv420p"), 1u);
}
