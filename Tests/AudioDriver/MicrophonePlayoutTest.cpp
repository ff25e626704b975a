// What the microphone node plays each graph cycle.

#include "Drivers/AudioDriver/MicrophonePlayout.h"

#include <gtest/gtest.h>

#include <vector>

using quorvan::velorane::audiodriver::AudioRing;
using quorvan::velorane::audiodriver::MicrophonePlayout;

namespace {

constexpr size_t kCycle = 256;

class MicrophonePlayoutTest : public ::testing::Test
{
protected:
    void Write(int16_t value, size_t frames)
    {
        const std::vector<int16_t> samples(2 * frames, value);
        m_ring.Write(samples.data(), frames);
    }

    // One cycle; its first left sample, and all frames must be alike.
    int16_t Cycle()
    {
        std::vector<int16_t> out(2 * kCycle, -1);
        m_playout.OnCycle(out.data(), kCycle);
        for (size_t i = 1; i < out.size(); ++i) {
            EXPECT_EQ(out[i], out[0]) << i;
        }
        return out[0];
    }

    AudioRing m_ring{16384};
    MicrophonePlayout m_playout{m_ring};
};

} // namespace

TEST_F(MicrophonePlayoutTest, SilenceUntilACyclePlusTheCushionIsThere)
{
    EXPECT_EQ(Cycle(), 0);
    Write(5, kCycle + MicrophonePlayout::kCushionFrames - 1);
    EXPECT_EQ(Cycle(), 0);
    Write(5, 1);
    EXPECT_EQ(Cycle(), 5);
    EXPECT_EQ(m_ring.Available(), MicrophonePlayout::kCushionFrames);
}

TEST_F(MicrophonePlayoutTest, RunningDryPlaysSilenceAndWaitsForTheCushionAgain)
{
    Write(5, kCycle + MicrophonePlayout::kCushionFrames);
    for (size_t i = 0; i < 1 + MicrophonePlayout::kCushionFrames / kCycle; ++i) {
        EXPECT_EQ(Cycle(), 5);
    }
    // 160 frames were left: played, then silence.
    std::vector<int16_t> out(2 * kCycle, -1);
    m_playout.OnCycle(out.data(), kCycle);
    EXPECT_EQ(out[2 * 159], 5);
    EXPECT_EQ(out[2 * 160], 0);
    EXPECT_EQ(out[2 * kCycle - 1], 0);
    EXPECT_EQ(m_playout.Underruns(), 1u);
    Write(6, kCycle);
    EXPECT_EQ(Cycle(), 0);
}

TEST_F(MicrophonePlayoutTest, TooMuchWaitingIsSkippedDownToTheCushion)
{
    Write(1, 8000);
    Write(2, kCycle + MicrophonePlayout::kCushionFrames);
    EXPECT_EQ(Cycle(), 2);
    EXPECT_EQ(m_playout.Skipped(), 8000u);
    EXPECT_EQ(m_ring.Available(), MicrophonePlayout::kCushionFrames);
}
