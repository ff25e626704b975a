// Start, Stop, Terminate and destruction, in every order the owner might
// use them.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

#include <gtest/gtest.h>

#include <thread>

using namespace quorvan;
using namespace velorane::test;
using Access = quorvan::VideoDecoderTestAccess;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kEnter = "VideoDecoder: enter decoding thread";
const std::string kExit = "VideoDecoder: exit decoding thread";

CRefCountPtr<VideoDecoder> SoftwareDecoder(IVideoDecoder::FrameCallback callback)
{
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    EXPECT_TRUE(decoder->Initialize(std::move(callback), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    return decoder;
}

// Frames keep being taken: six go in, two at a time beyond the tokens.
bool FramesAreConsumed(IVideoDecoder& decoder)
{
    for (int32_t number = 0; number < 6; ++number) {
        if (!DeliverWithRetry(decoder, {0, 0, 0, 1, 0x65, 0x88, 0x84}, number,
                              std::chrono::seconds(10))) {
            return false;
        }
    }
    return true;
}

} // namespace

TEST(VideoDecoderLifecycleTest, StartTwiceStartsOneThread)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    decoder->Start();
    ASSERT_TRUE(capture->WaitFor(kEnter, std::chrono::seconds(5)));
    decoder->Stop();
    EXPECT_EQ(capture->Count(kEnter), 1u);
    EXPECT_EQ(capture->Count(kExit), 1u);
}

TEST(VideoDecoderLifecycleTest, StopTwiceJoinsOnce)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    decoder->Stop();
    decoder->Stop();
    EXPECT_EQ(capture->Count(kEnter), 1u);
    EXPECT_EQ(capture->Count(kExit), 1u);
}

TEST(VideoDecoderLifecycleTest, StopWithoutStartDoesNothing)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    capture->Clear();
    decoder->Stop();
    EXPECT_TRUE(capture->Messages().empty());
}

TEST(VideoDecoderLifecycleTest, StopOfAnIdleLoopTakesAtMostAboutOneSecond)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    ASSERT_TRUE(capture->WaitFor(kEnter, std::chrono::seconds(5)));
    const auto start = Clock::now();
    decoder->Stop();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(capture->Count(kExit), 1u);
}

TEST(VideoDecoderLifecycleTest, StartAfterStopDecodesOn)
{
    if (H264EncoderName().empty()) {
        GTEST_SKIP() << "libavcodec has no H.264 encoder";
    }
    const H264Stream stream = EncodeTestPattern(320, 240, 20);
    ASSERT_EQ(stream.accessUnits.size(), 20u);
    H264Stream firstHalf = stream;
    firstHalf.accessUnits.resize(10);
    H264Stream secondHalf = stream;
    secondHalf.accessUnits.erase(secondHalf.accessUnits.begin(),
                                 secondHalf.accessUnits.begin() + 10);

    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    ASSERT_TRUE(DeliverPaced(*decoder, recorder, firstHalf));
    ASSERT_TRUE(recorder.WaitForCount(9, std::chrono::seconds(20)));
    decoder->Stop();
    decoder->Start();
    // The parser still holds unit 9, which unit 10 pushes out.
    for (size_t unit = 0; unit < secondHalf.accessUnits.size(); ++unit) {
        ASSERT_TRUE(DeliverWithRetry(*decoder, secondHalf.accessUnits[unit],
                                     static_cast<int32_t>(10 + unit), std::chrono::seconds(10)));
    }
    ASSERT_TRUE(recorder.WaitForCount(19, std::chrono::seconds(20)));
    decoder->Stop();
    EXPECT_EQ(capture->Count(kEnter), 2u);
    EXPECT_EQ(capture->Count(kExit), 2u);
    const auto pictures = recorder.Pictures();
    ASSERT_EQ(pictures.size(), 19u);
    EXPECT_NEAR(pictures.back().luma[0], PatternLuma(80, 60, 18, 320, 240), 10);
}

TEST(VideoDecoderLifecycleTest, TerminateTwiceDoesNothingTheSecondTime)
{
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    ASSERT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    decoder->Terminate();
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::CurrentContext(*decoder), nullptr);
    EXPECT_EQ(Access::Parser(*decoder), nullptr);
    EXPECT_EQ(Access::Packet(*decoder), nullptr);
    EXPECT_EQ(Access::Device(*decoder), nullptr);
    // Both contexts null: the answer is the hardware one, as before Initialize.
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
    decoder->Terminate();
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderHardware);
}

TEST(VideoDecoderLifecycleTest, StopThenTerminateThenDestroyAsTheWindowDoes)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    ASSERT_TRUE(capture->WaitFor(kEnter, std::chrono::seconds(5)));
    decoder->Stop();
    decoder->Terminate();
    decoder.Reset();
    EXPECT_EQ(capture->Count(kExit), 1u);
}

TEST(VideoDecoderLifecycleTest, TerminateWhileRunningStopsTheThreadFirst)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    ASSERT_TRUE(FramesAreConsumed(*decoder));
    decoder->Terminate();
    EXPECT_EQ(capture->Count(kExit), 1u);
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
}

TEST(VideoDecoderLifecycleTest, StartAfterTerminateOnlyReturnsFrames)
{
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Terminate();
    decoder->Start();
    EXPECT_TRUE(FramesAreConsumed(*decoder));
    decoder->Stop();
    EXPECT_EQ(recorder.Count(), 0u);
}

TEST(VideoDecoderLifecycleTest, StartBeforeInitializeOnlyReturnsFrames)
{
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    decoder->Start();
    EXPECT_TRUE(FramesAreConsumed(*decoder));
    decoder->Stop();
}

TEST(VideoDecoderLifecycleTest, RecycledContextsLeaveTheLoopIdle)
{
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->RecycleContexts();
    EXPECT_EQ(Access::SoftwareContext(*decoder), nullptr);
    EXPECT_EQ(Access::HardwareContext(*decoder), nullptr);
    // The current context still names the freed one, so it isn't the
    // (null) hardware context.
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    decoder->Start();
    EXPECT_TRUE(FramesAreConsumed(*decoder));
    decoder->Stop();
    EXPECT_EQ(recorder.Count(), 0u);
}

TEST(VideoDecoderLifecycleTest, DestructionStopsTheThread)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    auto decoder = SoftwareDecoder(recorder.Callback());
    decoder->Start();
    ASSERT_TRUE(capture->WaitFor(kEnter, std::chrono::seconds(5)));
    decoder.Reset();
    EXPECT_EQ(capture->Count(kExit), 1u);
}

TEST(VideoDecoderLifecycleTest, DestructionWhileDecoding)
{
    if (H264EncoderName().empty()) {
        GTEST_SKIP() << "libavcodec has no H.264 encoder";
    }
    const H264Stream stream = EncodeTestPattern(640, 480, 30);
    ASSERT_EQ(stream.accessUnits.size(), 30u);
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<IVideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    decoder->Start();
    // Three frames queued and the thread busy with them when the last
    // reference goes.
    for (size_t unit = 0; unit < 10; ++unit) {
        ASSERT_TRUE(DeliverWithRetry(*decoder, stream.accessUnits[unit], static_cast<int32_t>(unit),
                                     std::chrono::seconds(10)));
    }
    decoder.Reset();
    const size_t after = recorder.Count();
    EXPECT_EQ(capture->Count(kExit), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(recorder.Count(), after);
    EXPECT_LE(after, 9u);
}

TEST(VideoDecoderLifecycleTest, InitializeWhileDecodingStopsTheThreadFirst)
{
    if (H264EncoderName().empty()) {
        GTEST_SKIP() << "libavcodec has no H.264 encoder";
    }
    const H264Stream stream = EncodeTestPattern(320, 240, 20);
    ASSERT_EQ(stream.accessUnits.size(), 20u);
    ScopedLogCapture capture;
    PictureRecorder first;
    PictureRecorder second;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(first.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    decoder->Start();
    // Frames queued and the thread busy with them when the set-up is
    // replaced under it.
    for (size_t unit = 0; unit < 10; ++unit) {
        ASSERT_TRUE(DeliverWithRetry(*decoder, stream.accessUnits[unit], static_cast<int32_t>(unit),
                                     std::chrono::seconds(10)));
    }
    ASSERT_TRUE(decoder->Initialize(second.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    // The loop ended before the parser and the contexts went, and a new
    // Initialize doesn't start it again.
    EXPECT_EQ(capture->Count(kExit), 1u);
    const size_t firstCount = first.Count();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(first.Count(), firstCount);
    EXPECT_EQ(second.Count(), 0u);

    // Started again with the old frames dropped, as the owner does at a new
    // stream, the new set-up decodes the stream from its start.
    Access::Queue(*decoder).ResetQueue();
    decoder->Start();
    ASSERT_TRUE(DeliverPaced(*decoder, second, stream));
    ASSERT_TRUE(second.WaitForCount(stream.accessUnits.size() - 1, std::chrono::seconds(10)));
    decoder->Stop();
    EXPECT_EQ(capture->Count(kEnter), 2u);
    EXPECT_EQ(first.Count(), firstCount);
}
