// The encoder's packets set against libopus driven by hand with the same
// settings (48 kHz, the audio application, the music signal, nothing else):
// the bytes must be the same, over streams long enough to wrap the ring
// and cut into pieces that leave bytes waiting between calls.

#include "Common/Audio/Src/AudioResult.h"
#include "Common/Audio/Src/IAudioEncoder.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>
#include <opus/opus.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

using namespace quorvan;
using velorane::test::ScopedLogCapture;

namespace {

using Packet = std::vector<uint8_t>;

// A libopus encoder as the relay's is made, fed 480 frames at a time.
class BareOpus
{
public:
    explicit BareOpus(int channels) : m_channels(channels)
    {
        int error = OPUS_OK;
        m_encoder = opus_encoder_create(48000, channels, OPUS_APPLICATION_AUDIO, &error);
        EXPECT_EQ(error, OPUS_OK);
        opus_encoder_ctl(m_encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    }
    ~BareOpus() { opus_encoder_destroy(m_encoder); }
    BareOpus(const BareOpus&) = delete;
    BareOpus& operator=(const BareOpus&) = delete;

    // The packets of all whole 480-frame blocks of frames.
    std::vector<Packet> EncodeAll(const std::vector<int16_t>& samples)
    {
        std::vector<Packet> packets;
        const size_t block = 480 * static_cast<size_t>(m_channels);
        const int maxPacket = m_channels * 960 - 4;
        for (size_t first = 0; first + block <= samples.size(); first += block) {
            Packet packet(static_cast<size_t>(maxPacket));
            const int n =
                opus_encode(m_encoder, samples.data() + first, 480, packet.data(), maxPacket);
            EXPECT_GT(n, 0);
            packet.resize(static_cast<size_t>(n > 0 ? n : 0));
            packets.push_back(packet);
        }
        return packets;
    }

private:
    int m_channels;
    OpusEncoder* m_encoder = nullptr;
};

// The records of an Encode output: each packet behind its big-endian length.
std::vector<Packet> Records(const uint8_t* data, size_t size)
{
    std::vector<Packet> packets;
    size_t offset = 0;
    while (offset + 4 <= size) {
        const uint32_t n = (uint32_t(data[offset]) << 24) | (uint32_t(data[offset + 1]) << 16) |
                           (uint32_t(data[offset + 2]) << 8) | uint32_t(data[offset + 3]);
        offset += 4;
        if (n > size - offset) {
            ADD_FAILURE() << "a record runs past the output";
            break;
        }
        packets.emplace_back(data + offset, data + offset + n);
        offset += n;
    }
    EXPECT_EQ(offset, size);
    return packets;
}

// frames frames of music-like audio: two tones and a little noise, the
// channels unlike.
std::vector<int16_t> Music(size_t frames, int channels)
{
    std::vector<int16_t> samples;
    uint32_t noise = 12345;
    for (size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / 48000.0;
        for (int c = 0; c < channels; ++c) {
            noise = noise * 1664525u + 1013904223u;
            const double value = 8000.0 * std::sin(2 * M_PI * (440.0 + 110.0 * c) * t) +
                                 3000.0 * std::sin(2 * M_PI * 2500.0 * t) +
                                 static_cast<double>(static_cast<int>(noise >> 22) - 512);
            samples.push_back(static_cast<int16_t>(std::lround(value)));
        }
    }
    return samples;
}

// Encodes samples in calls of the given byte counts, in turn, until all
// are used; the packets of all calls in order.
std::vector<Packet> EncodeInPieces(IAudioEncoder& encoder, const std::vector<int16_t>& samples,
                                   const std::vector<size_t>& pieces)
{
    std::vector<Packet> packets;
    const auto* bytes = reinterpret_cast<const uint8_t*>(samples.data());
    const size_t total = samples.size() * 2;
    size_t offset = 0;
    for (size_t call = 0; offset < total; ++call) {
        const size_t size = std::min(pieces[call % pieces.size()], total - offset);
        std::vector<int16_t> piece(size / 2);
        std::memcpy(piece.data(), bytes + offset, size);
        std::unique_ptr<uint8_t[]> output;
        size_t outputSize = 0;
        EXPECT_EQ(encoder.Encode(piece.data(), size, output, outputSize), 0);
        for (Packet& packet : Records(output.get(), outputSize)) {
            packets.push_back(std::move(packet));
        }
        offset += size;
    }
    return packets;
}

} // namespace

TEST(AudioEncoderStreamTest, StereoStreamOverTheRingsEndMatchesLibopusByteForByte)
{
    ScopedLogCapture capture;
    // 2.5 s: 480,000 bytes through a ring of 192,000.
    const std::vector<int16_t> samples = Music(120000, 2);
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    const std::vector<Packet> packets =
        EncodeInPieces(*encoder, samples, {3528, 1000, 1920, 4, 7000, 3536, 12});
    BareOpus bare(2);
    const std::vector<Packet> expected = bare.EncodeAll(samples);
    ASSERT_EQ(packets.size(), 250u);
    ASSERT_EQ(expected.size(), 250u);
    for (size_t i = 0; i < packets.size(); ++i) {
        ASSERT_EQ(packets[i], expected[i]) << "packet " << i;
    }
    EXPECT_TRUE(capture->Messages().empty());
}

TEST(AudioEncoderStreamTest, MonoPacketsAre480FramesOf960Bytes)
{
    // Mono: 960 bytes make a packet, so 3 calls of 700 give 2 packets and
    // leave 180 bytes.
    const std::vector<int16_t> samples = Music(1050, 1);
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(1, 48000));
    const std::vector<Packet> packets = EncodeInPieces(*encoder, samples, {700});
    BareOpus bare(1);
    EXPECT_EQ(packets, bare.EncodeAll(samples));
    EXPECT_EQ(packets.size(), 2u);
    // 180 waiting and 780 more make the third.
    const std::vector<int16_t> more(390, 0);
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    ASSERT_EQ(encoder->Encode(more.data(), 778, output, size), 0);
    EXPECT_EQ(size, 0u);
    ASSERT_EQ(encoder->Encode(more.data(), 2, output, size), 0);
    EXPECT_EQ(Records(output.get(), size).size(), 1u);
}

TEST(AudioEncoderStreamTest, At44100EachInputFrameIsTakenByNearestNeighbour)
{
    // 441 frames become 480: output frame i is input frame i * 441 / 480.
    const std::vector<int16_t> input = Music(441, 2);
    std::vector<int16_t> resampled;
    for (size_t i = 0; i < 480; ++i) {
        const size_t source = i * 441 / 480;
        resampled.push_back(input[2 * source]);
        resampled.push_back(input[2 * source + 1]);
    }
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 44100));
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    ASSERT_EQ(encoder->Encode(input.data(), 441 * 4, output, size), 0);
    BareOpus bare(2);
    EXPECT_EQ(Records(output.get(), size), bare.EncodeAll(resampled));
    // All 1920 bytes went out: one more frame's worth makes no packet.
    ASSERT_EQ(encoder->Encode(input.data(), 441 * 4 - 4, output, size), 0);
    EXPECT_EQ(size, 0u);
}

TEST(AudioEncoderStreamTest, FullRingLosesTheCallsInputAndKeepsWhatWaits)
{
    ScopedLogCapture capture;
    const std::vector<int16_t> samples = Music(48480, 2);
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    std::unique_ptr<uint8_t[]> output;
    size_t size = 0;
    // 1000 bytes wait; the ring has 191,999 - 1000 bytes of room left.
    ASSERT_EQ(encoder->Encode(samples.data(), 1000, output, size), 0);
    EXPECT_EQ(encoder->Encode(samples.data(), 191000, output, size), AudioError);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"overflow: 191000 > 190999"});
    EXPECT_TRUE(capture->Contains(EGroupValueSevere, "overflow: 191000 > 190999"));
    // What waited is still first in line: 1000 bytes and the next 920 make
    // the packet that the first 480 frames make.
    ASSERT_EQ(encoder->Encode(samples.data() + 500, 920, output, size), 0);
    BareOpus bare(2);
    EXPECT_EQ(Records(output.get(), size),
              bare.EncodeAll(std::vector<int16_t>(samples.begin(), samples.begin() + 960)));
    // A call that just fits is taken whole.
    ASSERT_EQ(encoder->Encode(samples.data() + 960, 191996, output, size), 0);
    EXPECT_EQ(Records(output.get(), size).size(), 99u);
}

TEST(AudioEncoderStreamTest, NothingInNothingOut)
{
    ScopedLogCapture capture;
    std::unique_ptr<IAudioEncoder> encoder(IAudioEncoder::CreateInstance(2, 48000));
    std::unique_ptr<uint8_t[]> output;
    size_t size = 7;
    EXPECT_EQ(encoder->Encode(nullptr, 0, output, size), 0);
    EXPECT_EQ(size, 0u);
    // Less than a frame is no frame.
    const int16_t partial[1] = {5};
    EXPECT_EQ(encoder->Encode(partial, 2, output, size), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(capture->Messages().empty());
}
