// DeliverFrame: admission by token, sizes at and over the limit, garbage.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

#include <gtest/gtest.h>

using namespace quorvan;
using namespace velorane::test;
using Access = quorvan::VideoDecoderTestAccess;

namespace {

void NoPicture(uint32_t, uint32_t, int*, uint8_t*, uint8_t*, uint8_t*) {}

std::unique_ptr<VideoFrame> FrameOfSize(int64_t size, int32_t number)
{
    auto frame = std::make_unique<VideoFrame>();
    frame->size = static_cast<int32_t>(size);
    frame->wireSize = frame->size;
    frame->number = number;
    return frame;
}

CRefCountPtr<VideoDecoder> SoftwareDecoder(IVideoDecoder::FrameCallback callback = NoPicture)
{
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_TRUE(decoder->Initialize(std::move(callback), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    return decoder;
}

} // namespace

TEST(VideoDecoderDeliverTest, FourthFrameWithThreeUndecodedIsRefusedAndDropped)
{
    ScopedLogCapture capture;
    auto decoder = SoftwareDecoder();
    for (int32_t number = 1; number <= 3; ++number) {
        EXPECT_TRUE(decoder->DeliverFrame(FrameOfSize(100, number)));
    }
    EXPECT_EQ(capture->Count("VideoDecoder: frame queue is full, no frame available!"), 0u);
    EXPECT_FALSE(decoder->DeliverFrame(FrameOfSize(100, 4)));
    EXPECT_EQ(capture->Count("VideoDecoder: frame queue is full, no frame available!"), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);

    // The three that got in wait in order; the fourth is nowhere.
    FrameQueue& queue = Access::Queue(*decoder);
    std::unique_ptr<VideoFrame> frame;
    for (int32_t number = 1; number <= 3; ++number) {
        ASSERT_EQ(queue.PopFrame(frame), FrameQueueOk);
        EXPECT_EQ(frame->number, number);
        queue.ReleaseFrame(std::move(frame));
    }
    EXPECT_EQ(queue.PopFrame(frame), FrameQueueEmpty);
}

TEST(VideoDecoderDeliverTest, DeliveredFrameTakesTheTokensPlace)
{
    auto decoder = SoftwareDecoder();
    auto frame = FrameOfSize(10, 9);
    VideoFrame* delivered = frame.get();
    ASSERT_TRUE(decoder->DeliverFrame(std::move(frame)));
    std::unique_ptr<VideoFrame> popped;
    ASSERT_EQ(Access::Queue(*decoder).PopFrame(popped), FrameQueueOk);
    EXPECT_EQ(popped.get(), delivered);
}

TEST(VideoDecoderDeliverTest, FrameOfExactlyMaxSizeIsQueued)
{
    auto decoder = SoftwareDecoder();
    EXPECT_TRUE(decoder->DeliverFrame(FrameOfSize(kMaxFrameSize, 1)));
    std::unique_ptr<VideoFrame> popped;
    ASSERT_EQ(Access::Queue(*decoder).PopFrame(popped), FrameQueueOk);
    EXPECT_EQ(popped->size, 0x100000);
}

TEST(VideoDecoderDeliverTest, OversizedFrameIsParkedAsATokenAndAcceptedSilently)
{
    // The queue answers FrameTooLarge, which DeliverFrame doesn't look for:
    // the answer is true and the too-large message stays silent.
    ScopedLogCapture capture;
    auto decoder = SoftwareDecoder();
    auto frame = FrameOfSize(int64_t{kMaxFrameSize} + 1, 1);
    VideoFrame* oversized = frame.get();
    EXPECT_TRUE(decoder->DeliverFrame(std::move(frame)));
    EXPECT_EQ(capture->Count("VideoDecoder: receiving a frame, size is too large for queue!"), 0u);

    FrameQueue& queue = Access::Queue(*decoder);
    std::unique_ptr<VideoFrame> popped;
    EXPECT_EQ(queue.PopFrame(popped), FrameQueueEmpty);
    // Still three tokens, the last of them the oversized frame.
    std::unique_ptr<VideoFrame> tokens[4];
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(queue.RequestFrame(tokens[i]), FrameQueueOk);
    }
    EXPECT_EQ(queue.RequestFrame(tokens[3]), NoFreeFrame);
    EXPECT_EQ(tokens[2].get(), oversized);
}

TEST(VideoDecoderDeliverTest, NullFrameIsRefusedAndTheTokenKept)
{
    auto decoder = SoftwareDecoder();
    EXPECT_FALSE(decoder->DeliverFrame(nullptr));
    FrameQueue& queue = Access::Queue(*decoder);
    std::unique_ptr<VideoFrame> tokens[4];
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(queue.RequestFrame(tokens[i]), FrameQueueOk);
    }
    EXPECT_EQ(queue.RequestFrame(tokens[3]), NoFreeFrame);
}

TEST(VideoDecoderDeliverTest, FramesOfMaxSizeAndAboveGoThroughARunningDecoder)
{
    if (H264EncoderName().empty()) {
        GTEST_SKIP() << "libavcodec has no H.264 encoder";
    }
    // Units padded with zero bytes to the largest payload, then garbage of
    // that size, then frames one byte too large: the parser reads each to
    // its last byte, and the oversized ones never reach it.
    const H264Stream stream = EncodeTestPattern(320, 240, 5);
    ASSERT_EQ(stream.accessUnits.size(), 5u);
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    for (size_t unit = 0; unit < stream.accessUnits.size(); ++unit) {
        std::vector<uint8_t> padded = stream.accessUnits[unit];
        padded.resize(kMaxFrameSize, 0);
        ASSERT_TRUE(DeliverWithRetry(*decoder, padded, static_cast<int32_t>(unit),
                                     std::chrono::seconds(10)));
    }
    EXPECT_TRUE(recorder.WaitForCount(4, std::chrono::seconds(20)));
    ASSERT_TRUE(
        DeliverWithRetry(*decoder, GarbageFrame(7, kMaxFrameSize), 5, std::chrono::seconds(10)));
    for (int32_t number = 6; number < 9; ++number) {
        EXPECT_TRUE(decoder->DeliverFrame(FrameOfSize(int64_t{kMaxFrameSize} + 1, number)));
    }
    decoder->Stop();
    const auto pictures = recorder.Pictures();
    ASSERT_GE(pictures.size(), 4u);
    for (size_t index = 0; index < 4; ++index) {
        EXPECT_EQ(pictures[index].width, 320u);
        EXPECT_EQ(pictures[index].height, 240u);
        EXPECT_NEAR(pictures[index].luma[0], PatternLuma(80, 60, static_cast<int>(index), 320, 240),
                    10);
    }
}

TEST(VideoDecoderDeliverTest, GarbageInsteadOfH264IsSurvivedAndDecodingGoesOn)
{
    if (H264EncoderName().empty()) {
        GTEST_SKIP() << "libavcodec has no H.264 encoder";
    }
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        ASSERT_TRUE(DeliverWithRetry(*decoder, GarbageFrame(seed, 200 + seed * 97),
                                     static_cast<int32_t>(seed), std::chrono::seconds(10)));
    }
    // Plain random bytes too, without a start code.
    std::vector<uint8_t> noise = GarbageFrame(99, 5000);
    for (size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<uint8_t>(noise[i] | 0x80);
    }
    ASSERT_TRUE(DeliverWithRetry(*decoder, noise, 41, std::chrono::seconds(10)));

    const H264Stream stream = EncodeTestPattern(320, 240, 30);
    ASSERT_EQ(stream.accessUnits.size(), 30u);
    const size_t before = recorder.Count();
    for (size_t unit = 0; unit < stream.accessUnits.size(); ++unit) {
        ASSERT_TRUE(DeliverWithRetry(*decoder, stream.accessUnits[unit],
                                     static_cast<int32_t>(100 + unit), std::chrono::seconds(10)));
    }
    // Whatever the garbage left in the parser may spoil the first unit;
    // from the next key unit on the pattern comes through.
    EXPECT_TRUE(recorder.WaitForCount(before + 20, std::chrono::seconds(20)));
    decoder->Stop();
    EXPECT_GE(CountPrefix(capture->Messages(), "Decode error: "), 1u);
    const auto pictures = recorder.Pictures();
    ASSERT_FALSE(pictures.empty());
    const auto& last = pictures.back();
    EXPECT_EQ(last.width, 320u);
    EXPECT_EQ(last.height, 240u);
    EXPECT_NEAR(last.luma[0], PatternLuma(80, 60, 28, 320, 240), 10);
}
