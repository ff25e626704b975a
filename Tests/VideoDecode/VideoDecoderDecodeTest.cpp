// Decoding real H.264, made at test time, on the software path.

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include <pthread.h>

using namespace quorvan;
using namespace velorane::test;
using Access = quorvan::VideoDecoderTestAccess;

namespace {

constexpr int kPictures = 30;
constexpr int kLumaTolerance = 10;
constexpr int kChromaTolerance = 6;
constexpr auto kPictureWait = std::chrono::seconds(20);

class VideoDecoderDecodeTest : public testing::TestWithParam<std::pair<int, int>>
{
protected:
    void SetUp() override
    {
        if (H264EncoderName().empty()) {
            GTEST_SKIP() << "libavcodec has no H.264 encoder";
        }
    }
};

void ExpectPatternPicture(const PictureRecorder::Picture& picture, int width, int height, int index)
{
    EXPECT_EQ(picture.width, static_cast<uint32_t>(width));
    EXPECT_EQ(picture.height, static_cast<uint32_t>(height));
    EXPECT_GE(picture.stride[0], width);
    EXPECT_GE(picture.stride[1], width / 2);
    EXPECT_GE(picture.stride[2], width / 2);
    EXPECT_TRUE(picture.hasY);
    EXPECT_TRUE(picture.hasU);
    EXPECT_TRUE(picture.hasV);
    for (int which = 0; which < 3; ++which) {
        int x = 0;
        int y = 0;
        PictureRecorder::SamplePoint(which, width, height, &x, &y);
        EXPECT_NEAR(picture.luma[which], PatternLuma(x, y, index, width, height), kLumaTolerance)
            << "picture " << index << " sample " << which;
    }
    EXPECT_NEAR(picture.u, kPatternU, kChromaTolerance);
    EXPECT_NEAR(picture.v, kPatternV, kChromaTolerance);
}

} // namespace

TEST_P(VideoDecoderDecodeTest, DecodesEveryPictureWithThreePlanesAndThePattern)
{
    const auto [width, height] = GetParam();
    const H264Stream stream = EncodeTestPattern(width, height, kPictures);
    ASSERT_EQ(stream.accessUnits.size(), static_cast<size_t>(kPictures));

    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<IVideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    decoder->Start();
    ASSERT_TRUE(DeliverPaced(*decoder, recorder, stream));
    // The parser holds the last unit back until the next one begins.
    ASSERT_TRUE(recorder.WaitForCount(kPictures - 1, kPictureWait));
    decoder->Stop();

    const auto pictures = recorder.Pictures();
    ASSERT_EQ(pictures.size(), static_cast<size_t>(kPictures - 1));
    for (int index = 0; index < kPictures - 1; ++index) {
        ExpectPatternPicture(pictures[index], width, height, index);
    }
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    EXPECT_EQ(capture->Count("VideoDecoder: frame queue is full, no frame available!"), 0u);
    EXPECT_EQ(CountPrefix(capture->Messages(), "Decode error: "), 0u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, VideoDecoderDecodeTest,
                         testing::Values(std::make_pair(320, 240), std::make_pair(640, 480)),
                         [](const testing::TestParamInfo<std::pair<int, int>>& info) {
                             return std::to_string(info.param.first) + "x" +
                                    std::to_string(info.param.second);
                         });

TEST(VideoDecoderStepTest, FrameOfSizeZeroIsReleasedAtOnceWithoutTheParser)
{
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    PictureRecorder recorder;
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    // The parser writes the packet's pointer and size on every call.
    AVPacket* packet = Access::Packet(*decoder);
    uint8_t marker = 0;
    packet->data = &marker;
    packet->size = 4321;

    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame({}, 1)));
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
    EXPECT_EQ(packet->data, &marker);
    EXPECT_EQ(packet->size, 4321);

    // The frame went back to the free list: three tokens again.
    FrameQueue& queue = Access::Queue(*decoder);
    std::unique_ptr<VideoFrame> tokens[4];
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(queue.RequestFrame(tokens[i]), FrameQueueOk);
    }
    EXPECT_EQ(queue.RequestFrame(tokens[3]), NoFreeFrame);
    std::unique_ptr<VideoFrame> none;
    EXPECT_EQ(queue.PopFrame(none), FrameQueueEmpty);
    for (int i = 0; i < 3; ++i) {
        queue.ReleaseFrame(std::move(tokens[i]));
    }
    packet->data = nullptr;
    packet->size = 0;
}

TEST(VideoDecoderStepTest, ParserWithoutPacketLeavesTheResultFalse)
{
    const H264Stream stream = EncodeTestPattern(320, 240, 3);
    ASSERT_EQ(stream.accessUnits.size(), 3u);
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    PictureRecorder recorder;
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));

    // The first unit stays inside the parser: no packet, nothing decoded.
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[0], 0)));
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
    EXPECT_FALSE(Access::ReceiveDeliverFrames(*decoder));

    // The second pushes the first out, which decodes.
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[1], 1)));
    EXPECT_TRUE(Access::ParseDecodePackets(*decoder));
    EXPECT_TRUE(Access::ReceiveDeliverFrames(*decoder));
    EXPECT_EQ(recorder.Count(), 1u);
    EXPECT_FALSE(Access::ReceiveDeliverFrames(*decoder));

    // An empty queue: nothing parsed.
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
}

TEST(VideoDecoderStepTest, LoopSleepsOnlyWhenNeitherStepDidAnything)
{
    // A frame holding two units makes two packets at once; the second
    // picture then waits inside the decoder, and the pass after the first
    // picture parses nothing but receives it. Were the loop to sleep there,
    // the second picture would come a second late.
    const H264Stream stream = EncodeTestPattern(320, 240, 3);
    ASSERT_EQ(stream.accessUnits.size(), 3u);
    std::vector<uint8_t> twoUnits = stream.accessUnits[1];
    twoUnits.insert(twoUnits.end(), stream.accessUnits[2].begin(), stream.accessUnits[2].end());

    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<IVideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    decoder->Start();
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[0], 0)));
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(twoUnits, 1)));
    ASSERT_TRUE(recorder.WaitForCount(1, kPictureWait));
    const auto first = std::chrono::steady_clock::now();
    ASSERT_TRUE(recorder.WaitForCount(2, std::chrono::seconds(3)));
    EXPECT_LT(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(700));
    decoder->Stop();
    // The decoder was still holding a packet when the parser offered more.
    EXPECT_GE(capture->Count("VideoDecoder: breaking to receive frames!"), 1u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
}

// The CPU time the decoder thread has used so far.
std::chrono::nanoseconds DecoderThreadCpuTime(VideoDecoder& decoder)
{
    clockid_t clock = 0;
    EXPECT_EQ(pthread_getcpuclockid(Access::ThreadHandle(decoder), &clock), 0);
    timespec now{};
    EXPECT_EQ(clock_gettime(clock, &now), 0);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

TEST(VideoDecoderStepTest, IdleLoopSleepsInTheQueueWait)
{
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    // With the queue empty and nothing inside the decoder, neither step has
    // anything to do.
    ASSERT_FALSE(Access::ParseDecodePackets(*decoder));
    ASSERT_FALSE(Access::ReceiveDeliverFrames(*decoder));

    decoder->Start();
    ASSERT_TRUE(capture->WaitFor("VideoDecoder: enter decoding thread", std::chrono::seconds(5)));
    const auto cpuBefore = DecoderThreadCpuTime(*decoder);
    const auto wallBefore = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const auto cpu = DecoderThreadCpuTime(*decoder) - cpuBefore;
    const auto wall = std::chrono::steady_clock::now() - wallBefore;

    // Each pass ends in the queue's one-second wait, so the thread makes a
    // pass or two and is asleep the rest of the time. A loop that went round
    // without waiting would use the thread's CPU for nearly all of it.
    EXPECT_LT(cpu, wall / 10) << "the idle decoder thread used "
                              << std::chrono::duration_cast<std::chrono::milliseconds>(cpu).count()
                              << " ms of CPU in "
                              << std::chrono::duration_cast<std::chrono::milliseconds>(wall).count()
                              << " ms";
    decoder->Stop();
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_EQ(capture->Count("VideoDecoder: exit decoding thread"), 1u);
    // The decoder's lines go to the information group.
    EXPECT_TRUE(capture->Contains(EGroupValueInformation, "VideoDecoder: enter decoding thread"));
    EXPECT_TRUE(capture->Contains(EGroupValueInformation, "VideoDecoder: exit decoding thread"));
    EXPECT_TRUE(
        capture->Contains(EGroupValueInformation, "VideoDecoder: software decoder initialized"));
}

TEST(VideoDecoderStepTest, SoftwareDecodeErrorLosesThePacketAndGoesOn)
{
    const H264Stream stream = EncodeTestPattern(320, 240, 12);
    ASSERT_EQ(stream.accessUnits.size(), 12u);
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    auto step = [&](size_t unit) {
        ASSERT_TRUE(
            decoder->DeliverFrame(MakeFrame(stream.accessUnits[unit], static_cast<int>(unit))));
        Access::ParseDecodePackets(*decoder);
        Access::ReceiveDeliverFrames(*decoder);
    };
    // Two predicted units before any parameter set: the decoder refuses the
    // first when the second pushes it out of the parser, and the second
    // when the key unit does.
    step(3);
    step(4);
    step(0);
    EXPECT_EQ(CountPrefix(capture->Messages(), "Decode error: "), 2u);
    EXPECT_EQ(CountOutsideInformation(capture.Store()), 0u);
    EXPECT_EQ(recorder.Count(), 0u);
    for (size_t unit = 1; unit < stream.accessUnits.size(); ++unit) {
        step(unit);
    }
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
    EXPECT_EQ(capture->Count("VideoDecoder: reverting to software decoder!"), 0u);
    EXPECT_EQ(CountPrefix(capture->Messages(), "Decode error: "), 2u);
    // The refused packets are lost and nothing else: units 0 to 10 decode.
    const auto pictures = recorder.Pictures();
    ASSERT_EQ(pictures.size(), 11u);
    for (int index = 0; index < 11; ++index) {
        ExpectPatternPicture(pictures[index], 320, 240, index);
    }
}

TEST(VideoDecoderStepTest, EveryPassHandsTheParserTheStartOfTheFrame)
{
    // A slice with no parameter set before it, six bytes, then an access
    // unit delimiter: the parser ends its first packet at the delimiter.
    // Every pass starts again at the frame's first byte and takes the same
    // six bytes, and only the count of what is left goes down, so a frame
    // of 24 bytes is four passes of the same refused slice. (A parser that
    // moved on would refuse the slice once and then find no further unit.)
    std::vector<uint8_t> bytes = {0x00, 0x00, 0x01, 0x65, 0x88, 0x80, 0x00, 0x00, 0x01, 0x09, 0xF0};
    bytes.resize(24, 0x00);
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(bytes, 0)));
    // A refused packet is still a packet handed over: the pass says so.
    EXPECT_TRUE(Access::ParseDecodePackets(*decoder));
    EXPECT_EQ(CountPrefix(capture->Messages(), "Decode error: "), 4u);
    EXPECT_FALSE(Access::ReceiveDeliverFrames(*decoder));
    EXPECT_EQ(recorder.Count(), 0u);
}

TEST(VideoDecoderStepTest, ReceiveErrorGivesNoPictureThatPassAndDecodingGoesOn)
{
    const H264Stream stream = EncodeTestPattern(320, 240, 4);
    ASSERT_EQ(stream.accessUnits.size(), 4u);
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    // The first unit comes out of the parser with the second and is decoded
    // at once; its picture waits inside the decoder.
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[0], 0)));
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
    ASSERT_TRUE(decoder->DeliverFrame(MakeFrame(stream.accessUnits[1], 1)));
    EXPECT_TRUE(Access::ParseDecodePackets(*decoder));
    // Behind that picture the decoder takes a packet with no picture in it
    // (an access unit delimiter alone). It is decoded only when the picture
    // has been taken, and then the receive reports the failure.
    uint8_t delimiter[] = {0x00, 0x00, 0x00, 0x01, 0x09, 0x10};
    AVPacket* packet = av_packet_alloc();
    ASSERT_NE(packet, nullptr);
    packet->data = delimiter;
    packet->size = sizeof(delimiter);
    EXPECT_EQ(avcodec_send_packet(Access::SoftwareContext(*decoder), packet), 0);
    av_packet_free(&packet);

    EXPECT_TRUE(Access::ReceiveDeliverFrames(*decoder));
    EXPECT_EQ(recorder.Count(), 1u);
    capture->Clear();
    EXPECT_FALSE(Access::ReceiveDeliverFrames(*decoder));
    EXPECT_EQ(recorder.Count(), 1u);
    const std::string expected = "VideoDecoder: avcodec_receive_frame error: 0x" + [] {
        char hex[16];
        std::snprintf(hex, sizeof(hex), "%08x", static_cast<unsigned>(AVERROR_INVALIDDATA));
        return std::string(hex);
    }();
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{expected});
    EXPECT_TRUE(capture->Contains(EGroupValueInformation, expected));

    // Nothing else was lost: the next units decode.
    for (size_t unit = 2; unit < stream.accessUnits.size(); ++unit) {
        ASSERT_TRUE(
            decoder->DeliverFrame(MakeFrame(stream.accessUnits[unit], static_cast<int>(unit))));
        Access::ParseDecodePackets(*decoder);
        Access::ReceiveDeliverFrames(*decoder);
    }
    EXPECT_EQ(recorder.Count(), 3u);
    EXPECT_EQ(decoder->GetDecoder(), IVideoDecoder::DecoderSoftware);
}

TEST(VideoDecoderStepTest, PacketRefusedWhileAPictureWaitsIsLost)
{
    const H264Stream stream = EncodeTestPattern(320, 240, 5);
    ASSERT_EQ(stream.accessUnits.size(), 5u);
    ScopedLogCapture capture;
    PictureRecorder recorder;
    CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    ASSERT_TRUE(decoder->Initialize(recorder.Callback(), IVideoDecoder::CodecH264,
                                    IVideoDecoder::DecoderSoftware));
    auto deliver = [&](size_t unit) {
        ASSERT_TRUE(
            decoder->DeliverFrame(MakeFrame(stream.accessUnits[unit], static_cast<int>(unit))));
    };
    // Unit 0 comes out of the parser with unit 1 and is decoded; its
    // picture waits inside the decoder.
    deliver(0);
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
    deliver(1);
    EXPECT_TRUE(Access::ParseDecodePackets(*decoder));
    // Unit 1 goes in beside it, as a second packet of that pass would, and
    // waits in front of the decoder.
    AVPacket* packet = av_packet_alloc();
    ASSERT_NE(packet, nullptr);
    std::vector<uint8_t> bytes = stream.accessUnits[1];
    packet->data = bytes.data();
    packet->size = static_cast<int>(bytes.size());
    EXPECT_EQ(avcodec_send_packet(Access::SoftwareContext(*decoder), packet), 0);
    av_packet_free(&packet);

    // With nothing received yet, the parser's unit 1 finds the decoder full:
    // it is refused and not sent again.
    capture->Clear();
    deliver(2);
    EXPECT_FALSE(Access::ParseDecodePackets(*decoder));
    EXPECT_EQ(capture->Messages(),
              std::vector<std::string>{"VideoDecoder: breaking to receive frames!"});
    EXPECT_TRUE(
        capture->Contains(EGroupValueInformation, "VideoDecoder: breaking to receive frames!"));
    while (Access::ReceiveDeliverFrames(*decoder)) {
    }
    EXPECT_EQ(recorder.Count(), 2u);

    // The units behind it decode as usual, and no picture comes twice.
    for (size_t unit = 3; unit < stream.accessUnits.size(); ++unit) {
        deliver(unit);
        EXPECT_TRUE(Access::ParseDecodePackets(*decoder));
        EXPECT_TRUE(Access::ReceiveDeliverFrames(*decoder));
    }
    EXPECT_FALSE(Access::ReceiveDeliverFrames(*decoder));
    EXPECT_EQ(recorder.Count(), 4u);
    EXPECT_EQ(capture->Count("VideoDecoder: breaking to receive frames!"), 1u);
    EXPECT_EQ(CountPrefix(capture->Messages(), "Decode error: "), 0u);
}
