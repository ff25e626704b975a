// The encoding chain: resampler, ring, write buffer and the Opus encoder
// behind IAudioEncoder, with their log texts and results.

#include "Common/Audio/Src/AudioResult.h"
#include "Common/Audio/Src/IAudioEncoder.h"
#include "Common/Audio/Src/ResamplerNearestNeighbor.h"
#include "Common/Audio/Src/RingBuffer.h"
#include "Common/Audio/Src/WriteBuffer.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>
#include <opus/opus.h>

#include <cmath>
#include <memory>
#include <vector>

using namespace quorvan;
using velorane::test::ScopedLogCapture;

namespace {

constexpr double kPi = 3.141592653589793;

// Stereo frames of a tone, both channels alike.
std::vector<int16_t> Tone(size_t frames, double hz, size_t first = 0)
{
    std::vector<int16_t> samples;
    for (size_t i = 0; i < frames; ++i) {
        const auto value = static_cast<int16_t>(std::lround(
            12000.0 * std::sin(2 * kPi * hz * static_cast<double>(first + i) / 48000.0)));
        samples.push_back(value);
        samples.push_back(value);
    }
    return samples;
}

// Reads a row of length-prefixed packets: their sizes.
std::vector<uint32_t> PacketSizes(const uint8_t* data, size_t size)
{
    std::vector<uint32_t> sizes;
    size_t offset = 0;
    while (offset + 4 <= size) {
        const uint32_t n = (uint32_t(data[offset]) << 24) | (uint32_t(data[offset + 1]) << 16) |
                           (uint32_t(data[offset + 2]) << 8) | uint32_t(data[offset + 3]);
        sizes.push_back(n);
        offset += 4 + n;
    }
    EXPECT_EQ(offset, size);
    return sizes;
}

// A reader of plain bytes, counting from 0.
class CountingReader : public virtual IReader
{
public:
    int32_t Read(uint8_t* destination, size_t offset, size_t size) override
    {
        for (size_t i = 0; i < size; ++i) {
            destination[i] = static_cast<uint8_t>(offset + i);
        }
        return 0;
    }
};

// Brings a ring of 16 to write position 4 by writing 12 bytes, skipping
// skipped of them and writing 8 more over the end.
void WrapAround(RingBuffer& ring, size_t skipped)
{
    CountingReader reader;
    ASSERT_EQ(ring.Write(reader, 12), 0);
    ASSERT_EQ(ring.Skip(skipped), 0);
    ASSERT_EQ(ring.Write(reader, 8), 0);
}

} // namespace

TEST(AudioEncoderTest, OnePacketOfStereoLeavesTheRingEmpty)
{
    ScopedLogCapture capture;
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    const std::vector<int16_t> samples = Tone(480, 1000);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    ASSERT_EQ(encoder->Encode(samples.data(), 1920, output, size), 0);
    ASSERT_NE(output, nullptr);
    const std::vector<uint32_t> packets = PacketSizes(output.get(), size);
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_GT(packets[0], 0u);
    EXPECT_LE(packets[0], 1916u);
    // Nothing waited: the next 1000 bytes alone make no packet.
    ASSERT_EQ(encoder->Encode(samples.data(), 1000, output, size), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(capture->Messages().empty());
}

TEST(AudioEncoderTest, ThousandBytesWaitForTheNextCall)
{
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    const std::vector<int16_t> samples = Tone(480, 1000);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 99;
    EXPECT_EQ(encoder->Encode(samples.data(), 1000, output, size), 0);
    EXPECT_EQ(size, 0u);
    // 1000 waiting and 920 more make one packet.
    EXPECT_EQ(encoder->Encode(samples.data(), 920, output, size), 0);
    EXPECT_EQ(PacketSizes(output.get(), size).size(), 1u);
}

TEST(AudioEncoderTest, EightHundredEightyTwoFramesGiveOnePacketAndKeep1608Bytes)
{
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    const std::vector<int16_t> samples = Tone(882, 1000);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    ASSERT_EQ(encoder->Encode(samples.data(), 3528, output, size), 0);
    EXPECT_EQ(PacketSizes(output.get(), size).size(), 1u);
    // 1608 waiting: 312 more bytes make the next packet, 311 don't.
    ASSERT_EQ(encoder->Encode(samples.data(), 308, output, size), 0);
    EXPECT_EQ(size, 0u);
    ASSERT_EQ(encoder->Encode(samples.data(), 4, output, size), 0);
    EXPECT_EQ(PacketSizes(output.get(), size).size(), 1u);
}

TEST(AudioEncoderTest, PacketsDecodeBackToTheTone)
{
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    int error = 0;
    OpusDecoder* decoder = opus_decoder_create(48000, 2, &error);
    ASSERT_EQ(error, OPUS_OK);
    std::vector<int16_t> decoded;
    for (size_t block = 0; block < 20; ++block) {
        const std::vector<int16_t> samples = Tone(441, 1000, block * 441);
        std::unique_ptr<uint8_t[]> output;
        size_t size = 0;
        ASSERT_EQ(encoder->Encode(samples.data(), samples.size() * 2, output, size), 0);
        size_t offset = 0;
        for (const uint32_t n : PacketSizes(output.get(), size)) {
            std::vector<opus_int16> pcm(960 * 2);
            const int frames = opus_decode(decoder, output.get() + offset + 4,
                                           static_cast<opus_int32>(n), pcm.data(), 960, 0);
            ASSERT_EQ(frames, 480);
            for (int i = 0; i < frames; ++i) {
                decoded.push_back(pcm[static_cast<size_t>(2 * i)]);
            }
            offset += 4 + n;
        }
    }
    opus_decoder_destroy(decoder);
    // 8820 frames in, 18 whole packets out.
    ASSERT_EQ(decoded.size(), 18u * 480u);
    double at1k = 0, quadrature1k = 0, at5k = 0, quadrature5k = 0;
    for (size_t i = 960; i < decoded.size(); ++i) {
        const double t = static_cast<double>(i) / 48000.0;
        at1k += decoded[i] * std::sin(2 * kPi * 1000 * t);
        quadrature1k += decoded[i] * std::cos(2 * kPi * 1000 * t);
        at5k += decoded[i] * std::sin(2 * kPi * 5000 * t);
        quadrature5k += decoded[i] * std::cos(2 * kPi * 5000 * t);
    }
    const double strength1k = std::hypot(at1k, quadrature1k);
    const double strength5k = std::hypot(at5k, quadrature5k);
    EXPECT_GT(strength1k, 20 * strength5k);
    EXPECT_GT(strength1k, 12000.0 * 7680 / 2 / 4);
}

TEST(AudioEncoderTest, OtherInputRatesAreResampledTo48k)
{
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 24000));
    // 240 frames at 24 kHz are 480 at 48 kHz: one packet.
    const std::vector<int16_t> samples = Tone(240, 500);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    ASSERT_EQ(encoder->Encode(samples.data(), 960, output, size), 0);
    EXPECT_EQ(PacketSizes(output.get(), size).size(), 1u);
}

TEST(AudioEncoderTest, RefusedChannelCountFailsAndStaysInErrorState)
{
    ScopedLogCapture capture;
    // libopus would refuse three channels, but nothing asks it yet.
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(3, 48000));
    EXPECT_TRUE(capture->Messages().empty());
    const std::vector<int16_t> samples(3 * 480, 0);
    auto output = std::make_unique<uint8_t[]>(8);
    size_t size = 5;
    EXPECT_EQ(encoder->Encode(samples.data(), samples.size() * 2, output, size), AudioError);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(encoder->Encode(samples.data(), samples.size() * 2, output, size), AudioError);
    EXPECT_EQ(capture->Messages(), (std::vector<std::string>{"unable to create encoder",
                                                             "opus encoder in error state"}));
    EXPECT_TRUE(capture->Contains(EGroupValueSevere, "unable to create encoder"));
    EXPECT_TRUE(capture->Contains(EGroupValueSevere, "opus encoder in error state"));
}

TEST(AudioEncoderTest, FullRingLosesTheCallsInputAndKeepsWhatIsStored)
{
    ScopedLogCapture capture;
    // At 8 kHz, 16000 frames become 96000: 384000 bytes, more than the ring's
    // 192000 less one.
    const std::vector<int16_t> samples(2 * 16000, 7);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    std::unique_ptr<IAudioEncoder> slow(IAudioEncoder::CreateInstance(2, 8000));
    EXPECT_EQ(slow->Encode(samples.data(), samples.size() * 2, output, size), AudioError);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"overflow: 384000 > 191999"});
    // The encoder was made all the same; the ring holds nothing.
    const std::vector<int16_t> frame(2 * 80, 7);
    EXPECT_EQ(slow->Encode(frame.data(), frame.size() * 2, output, size), 0);
    EXPECT_EQ(PacketSizes(output.get(), size).size(), 1u);
}

TEST(RingBufferTest, EmptyRingTakesOneByteLessThanItsCapacity)
{
    ScopedLogCapture capture;
    RingBuffer ring(16);
    CountingReader reader;
    EXPECT_EQ(ring.Write(reader, 16), AudioError);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"overflow: 16 > 15"});
    EXPECT_EQ(ring.Write(reader, 15), 0);
    EXPECT_EQ(ring.Stored(), 15u);
}

TEST(RingBufferTest, WritesWrapAroundAndReadsComeBackInOrder)
{
    RingBuffer ring(16);
    // Write position 12, read position 10: 8 bytes go in as 4 and 4.
    WrapAround(ring, 10);
    EXPECT_EQ(ring.Stored(), 10u);
    const uint8_t* pointer = nullptr;
    ASSERT_EQ(ring.GetContiguous(0, 6, pointer), 0);
    ASSERT_NE(pointer, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(pointer, pointer + 6),
              (std::vector<uint8_t>{10, 11, 0, 1, 2, 3}));
    // With the read position ahead no byte is held back.
    ASSERT_EQ(ring.Skip(6), 0);
    ASSERT_EQ(ring.GetContiguous(0, 4, pointer), 0);
    EXPECT_EQ(std::vector<uint8_t>(pointer, pointer + 4), (std::vector<uint8_t>{4, 5, 6, 7}));
}

TEST(RingBufferTest, ReadAcrossTheEndIsRefusedAndPastTheStoredAmountIsNoError)
{
    ScopedLogCapture capture;
    RingBuffer ring(16);
    WrapAround(ring, 12);
    const uint8_t* pointer = reinterpret_cast<const uint8_t*>(1);
    EXPECT_EQ(ring.GetContiguous(0, 9, pointer), 0);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_TRUE(capture->Messages().empty());
    EXPECT_EQ(ring.GetContiguous(0, 8, pointer), AudioError);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"non-contiguous read: 12, 8, 16"});
}

TEST(RingBufferTest, WithTheReadPositionAheadNoByteIsHeldBack)
{
    ScopedLogCapture capture;
    RingBuffer ring(16);
    CountingReader reader;
    WrapAround(ring, 10);
    // Write position 4, read position 10: the room is all 6 bytes between.
    EXPECT_EQ(ring.Write(reader, 7), AudioError);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"overflow: 7 > 6"});
    EXPECT_TRUE(capture->Contains(EGroupValueSevere, "overflow: 7 > 6"));
    EXPECT_EQ(ring.Stored(), 10u);
    // Taking them brings the positions together, and a full ring reads as
    // an empty one.
    EXPECT_EQ(ring.Write(reader, 6), 0);
    EXPECT_EQ(ring.Stored(), 0u);
    const uint8_t* pointer = reinterpret_cast<const uint8_t*>(1);
    EXPECT_EQ(ring.GetContiguous(0, 1, pointer), 0);
    EXPECT_EQ(pointer, nullptr);
}

namespace {

// Records each Read it is asked for, and fails the one numbered failAt.
class RecordingReader : public virtual IReader
{
public:
    explicit RecordingReader(int failAt) : m_failAt(failAt) {}
    int32_t Read(uint8_t* destination, size_t offset, size_t size) override
    {
        calls.emplace_back(offset, size);
        if (static_cast<int>(calls.size()) == m_failAt) {
            return AudioError;
        }
        for (size_t i = 0; i < size; ++i) {
            destination[i] = static_cast<uint8_t>(100 + offset + i);
        }
        return 0;
    }
    std::vector<std::pair<size_t, size_t>> calls;

private:
    int m_failAt;
};

} // namespace

TEST(RingBufferTest, WriteOverTheEndReadsTwiceAndAFailedReadStoresNothing)
{
    RingBuffer ring(16);
    CountingReader counting;
    ASSERT_EQ(ring.Write(counting, 12), 0);
    ASSERT_EQ(ring.Skip(12), 0);

    RecordingReader failsSecond(2);
    EXPECT_EQ(ring.Write(failsSecond, 10), AudioError);
    EXPECT_EQ(failsSecond.calls, (std::vector<std::pair<size_t, size_t>>{{0, 4}, {4, 6}}));
    EXPECT_EQ(ring.Stored(), 0u);

    RecordingReader failsFirst(1);
    EXPECT_EQ(ring.Write(failsFirst, 10), AudioError);
    EXPECT_EQ(failsFirst.calls, (std::vector<std::pair<size_t, size_t>>{{0, 4}}));
    EXPECT_EQ(ring.Stored(), 0u);

    RecordingReader succeeds(0);
    ASSERT_EQ(ring.Write(succeeds, 10), 0);
    EXPECT_EQ(ring.Stored(), 10u);
    const uint8_t* pointer = nullptr;
    ASSERT_EQ(ring.GetContiguous(0, 4, pointer), 0);
    EXPECT_EQ(std::vector<uint8_t>(pointer, pointer + 4),
              (std::vector<uint8_t>{100, 101, 102, 103}));
    ASSERT_EQ(ring.Skip(4), 0);
    ASSERT_EQ(ring.GetContiguous(0, 6, pointer), 0);
    EXPECT_EQ(std::vector<uint8_t>(pointer, pointer + 6),
              (std::vector<uint8_t>{104, 105, 106, 107, 108, 109}));
    // A write that ends right at the end wraps its position to 0.
    RingBuffer exact(8);
    ASSERT_EQ(exact.Write(counting, 5), 0);
    ASSERT_EQ(exact.Skip(5), 0);
    ASSERT_EQ(exact.Write(counting, 3), 0);
    const uint8_t* tail = nullptr;
    ASSERT_EQ(exact.GetContiguous(0, 3, tail), 0);
    EXPECT_EQ(std::vector<uint8_t>(tail, tail + 3), (std::vector<uint8_t>{0, 1, 2}));
    ASSERT_EQ(exact.Skip(3), 0);
    ASSERT_EQ(exact.Write(counting, 2), 0);
    ASSERT_EQ(exact.GetContiguous(0, 2, pointer), 0);
    EXPECT_EQ(pointer, tail - 5);
    EXPECT_EQ(std::vector<uint8_t>(pointer, pointer + 2), (std::vector<uint8_t>{0, 1}));
}

TEST(RingBufferTest, SkippingMoreThanStoredIsRefused)
{
    ScopedLogCapture capture;
    RingBuffer ring(16);
    CountingReader reader;
    ASSERT_EQ(ring.Write(reader, 3), 0);
    EXPECT_EQ(ring.Skip(4), AudioError);
    EXPECT_EQ(ring.Stored(), 3u);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"read overflow: 4 > 3"});
}

TEST(ResamplerTest, TwoBytesOnAStereoResamplerIsBadAlignment)
{
    ScopedLogCapture capture;
    const std::vector<uint8_t> input(16, 0);
    ResamplerNearestNeighbor resampler(input.data(), 4, 4, 2);
    uint8_t out[16];
    EXPECT_EQ(resampler.Read(out, 0, 2), AudioError);
    EXPECT_EQ(resampler.Read(out, 2, 4), AudioError);
    EXPECT_EQ(resampler.Read(out, 4, 16), AudioError);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"bad alignment: 0, 2, 4", "bad alignment: 2, 4, 4",
                                        "underflow: 4, 16, 16"}));
}

TEST(ResamplerTest, ThreeToSixRepeatsAndSixToThreeTakesEveryOther)
{
    // Mono frames of two bytes: frame k holds k, k.
    std::vector<uint8_t> input;
    for (uint8_t k = 0; k < 6; ++k) {
        input.push_back(k);
        input.push_back(k);
    }
    uint8_t out[12];
    ResamplerNearestNeighbor up(input.data(), 3, 6, 1);
    ASSERT_EQ(up.Read(out, 0, 12), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 12),
              (std::vector<uint8_t>{0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2}));
    ResamplerNearestNeighbor down(input.data(), 6, 3, 1);
    ASSERT_EQ(down.Read(out, 0, 6), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 6), (std::vector<uint8_t>{0, 0, 2, 2, 4, 4}));
    // An offset into the output starts at its frame.
    ASSERT_EQ(up.Read(out, 6, 4), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 4), (std::vector<uint8_t>{1, 1, 2, 2}));
}

TEST(ResamplerTest, EqualFrameCountsArePlainCopies)
{
    std::vector<uint8_t> input;
    for (uint8_t k = 0; k < 20; ++k) {
        input.push_back(k);
    }
    ResamplerNearestNeighbor same(input.data(), 5, 5, 2);
    uint8_t out[20] = {};
    ASSERT_EQ(same.Read(out, 0, 20), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 20), input);
    ASSERT_EQ(same.Read(out, 8, 8), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 8),
              std::vector<uint8_t>(input.begin() + 8, input.begin() + 16));
}

TEST(WriteBufferTest, SkipAndWriteStayInside)
{
    ScopedLogCapture capture;
    uint8_t data[8] = {};
    WriteBuffer writer(data, 8);
    EXPECT_EQ(writer.WriteUInt32(4, 0x01020304u), 0);
    EXPECT_EQ(writer.Position(), 0u);
    EXPECT_EQ(std::vector<uint8_t>(data, data + 8), (std::vector<uint8_t>{0, 0, 0, 0, 1, 2, 3, 4}));
    EXPECT_EQ(writer.WriteUInt32(5, 1), AudioError);
    EXPECT_EQ(writer.Skip(6), 0);
    EXPECT_EQ(writer.Skip(3), AudioError);
    EXPECT_EQ(writer.Position(), 6u);
    EXPECT_EQ(capture->Messages(),
              (std::vector<std::string>{"write overflow: 5, 4, 8", "skip overflow: 6, 3, 8"}));
}

TEST(AudioEncoderTest, NoChannelsOrNoRateNeverDividesByZero)
{
    ScopedLogCapture capture;
    const std::vector<int16_t> samples(2 * 480, 3);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    std::unique_ptr<IAudioEncoder> noChannels(IAudioEncoder::CreateInstance(0, 48000));
    EXPECT_EQ(noChannels->Encode(samples.data(), 1920, output, size), AudioError);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"unable to create encoder"});
    capture->Clear();
    // A rate of 0 gives no output frames: the call stores nothing.
    std::unique_ptr<IAudioEncoder> noRate(IAudioEncoder::CreateInstance(2, 0));
    EXPECT_EQ(noRate->Encode(samples.data(), 1920, output, size), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(capture->Messages().empty());
}
