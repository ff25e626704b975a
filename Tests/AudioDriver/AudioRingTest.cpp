// The lock-free ring between PipeWire's real-time thread and the main loop.

#include "Drivers/AudioDriver/AudioRing.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using quorvan::velorane::audiodriver::AudioRing;

namespace {

std::vector<int16_t> Frames(int16_t first, size_t frames)
{
    std::vector<int16_t> samples;
    for (size_t i = 0; i < frames; ++i) {
        samples.push_back(static_cast<int16_t>(first + i));
        samples.push_back(static_cast<int16_t>(-(first + i)));
    }
    return samples;
}

} // namespace

TEST(AudioRingTest, CapacityIsRoundedUpToAPowerOfTwo)
{
    EXPECT_EQ(AudioRing(1000).CapacityFrames(), 1024u);
    EXPECT_EQ(AudioRing(1024).CapacityFrames(), 1024u);
}

TEST(AudioRingTest, FramesComeOutAsTheyWentInAcrossTheEnd)
{
    AudioRing ring(8);
    std::vector<int16_t> out(2 * 8);
    for (int16_t round = 0; round < 5; ++round) {
        const auto in = Frames(static_cast<int16_t>(100 * round), 5);
        ASSERT_EQ(ring.Write(in.data(), 5), 5u);
        EXPECT_EQ(ring.Available(), 5u);
        ASSERT_EQ(ring.Read(out.data(), 8), 5u);
        EXPECT_EQ(std::vector<int16_t>(out.begin(), out.begin() + 10), in);
        EXPECT_EQ(ring.Available(), 0u);
    }
}

TEST(AudioRingTest, WriterDropsWhatDoesNotFitAndCountsIt)
{
    AudioRing ring(8);
    const auto in = Frames(1, 6);
    EXPECT_EQ(ring.Write(in.data(), 6), 6u);
    EXPECT_EQ(ring.Write(in.data(), 6), 2u);
    EXPECT_EQ(ring.Dropped(), 4u);
    EXPECT_EQ(ring.WriteSilence(3), 0u);
    EXPECT_EQ(ring.Dropped(), 7u);
    std::vector<int16_t> out(2 * 8);
    ASSERT_EQ(ring.Read(out.data(), 8), 8u);
    // The oldest frames stay; the newest were dropped.
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[12], 1);
    EXPECT_EQ(out[14], 2);
}

TEST(AudioRingTest, SilenceAndSkipping)
{
    AudioRing ring(2048);
    const auto in = Frames(7, 1);
    ring.Write(in.data(), 1);
    EXPECT_EQ(ring.WriteSilence(600), 600u);
    ring.Write(in.data(), 1);
    EXPECT_EQ(ring.Skip(1), 1u);
    std::vector<int16_t> out(2 * 601);
    ASSERT_EQ(ring.Read(out.data(), 601), 601u);
    for (size_t i = 0; i < 1200; ++i) {
        ASSERT_EQ(out[i], 0) << i;
    }
    EXPECT_EQ(out[1200], 7);
    EXPECT_EQ(ring.Skip(10), 0u);
    EXPECT_EQ(ring.WriteSilence(3000), 2048u);
    EXPECT_EQ(ring.Dropped(), 952u);
}

TEST(AudioRingTest, OneWriterAndOneReaderOnTwoThreadsLoseNothing)
{
    AudioRing ring(256);
    constexpr int kFrames = 200000;
    std::thread writer([&ring] {
        int next = 0;
        while (next < kFrames) {
            const int16_t sample[2] = {static_cast<int16_t>(next),
                                       static_cast<int16_t>(next >> 16)};
            if (ring.Write(sample, 1) == 1) {
                ++next;
            } else {
                std::this_thread::yield();
            }
        }
    });
    int expected = 0;
    int16_t sample[2 * 64];
    while (expected < kFrames) {
        const size_t read = ring.Read(sample, 64);
        for (size_t i = 0; i < read; ++i, ++expected) {
            ASSERT_EQ(sample[2 * i], static_cast<int16_t>(expected));
        }
        if (read == 0) {
            std::this_thread::yield();
        }
    }
    writer.join();
    // Writes that found the ring full were tried again, but still count.
    EXPECT_EQ(ring.Available(), 0u);
}
