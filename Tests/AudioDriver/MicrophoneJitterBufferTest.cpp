// The microphone datagrams' way into the ring: in stamp order, silence for
// the lost, nothing twice.

#include "Drivers/AudioDriver/MicrophoneJitterBuffer.h"

#include <gtest/gtest.h>

#include <vector>

using quorvan::velorane::audiodriver::AudioRing;
using quorvan::velorane::audiodriver::MicrophoneJitterBuffer;

namespace {

constexpr size_t kFrames = 480;

class MicrophoneJitterBufferTest : public ::testing::Test
{
protected:
    // Datagram k holds kFrames frames of the value 1000 + k at stamp
    // base + k * kFrames.
    void Push(int k, int64_t nowMs = 0, uint64_t base = 5000000)
    {
        const std::vector<int16_t> samples(2 * kFrames, static_cast<int16_t>(1000 + k));
        m_buffer.Push(base + static_cast<uint64_t>(k) * kFrames, samples.data(), kFrames, nowMs);
    }

    // The ring's content as runs: value and frames.
    std::vector<std::pair<int16_t, size_t>> Runs()
    {
        std::vector<std::pair<int16_t, size_t>> runs;
        int16_t frame[2];
        while (m_ring.Read(frame, 1) == 1) {
            EXPECT_EQ(frame[0], frame[1]);
            if (!runs.empty() && runs.back().first == frame[0]) {
                ++runs.back().second;
            } else {
                runs.emplace_back(frame[0], 1);
            }
        }
        return runs;
    }

    AudioRing m_ring{65536};
    MicrophoneJitterBuffer m_buffer{m_ring};
};

using RunList = std::vector<std::pair<int16_t, size_t>>;

} // namespace

TEST_F(MicrophoneJitterBufferTest, InOrderDatagramsGoStraightThrough)
{
    Push(0);
    Push(1);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}, {1001, 480}}));
    EXPECT_EQ(m_buffer.GetCounters().datagrams, 2u);
}

TEST_F(MicrophoneJitterBufferTest, SwappedDatagramsArePlayedInStampOrder)
{
    Push(0);
    Push(2);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}}));
    Push(1);
    EXPECT_EQ(Runs(), (RunList{{1001, 480}, {1002, 480}}));
    EXPECT_EQ(m_buffer.GetCounters().lostFrames, 0u);
}

TEST_F(MicrophoneJitterBufferTest, LostDatagramBecomesSilenceOnceTwentyMillisecondsWait)
{
    Push(0);
    Push(2);
    Push(3);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}, {0, 480}, {1002, 480}, {1003, 480}}));
    EXPECT_EQ(m_buffer.GetCounters().lostFrames, 480u);
    // The lost one, coming after all, is too late.
    Push(1);
    EXPECT_EQ(Runs(), RunList{});
    EXPECT_EQ(m_buffer.GetCounters().lateDatagrams, 1u);
}

TEST_F(MicrophoneJitterBufferTest, LostDatagramBecomesSilenceWhenNothingMoreComes)
{
    Push(0, 1000);
    Push(2, 1005);
    m_buffer.Poll(1044);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}}));
    m_buffer.Poll(1045);
    EXPECT_EQ(Runs(), (RunList{{0, 480}, {1002, 480}}));
}

TEST_F(MicrophoneJitterBufferTest, DuplicatesAndOverlapsAreNotPlayedTwice)
{
    Push(0);
    Push(0);
    Push(2);
    Push(2);
    EXPECT_EQ(m_buffer.GetCounters().lateDatagrams, 2u);
    // Half of it was played already: only its second half is new.
    const std::vector<int16_t> samples(2 * kFrames, 7);
    m_buffer.Push(5000000 + 240, samples.data(), kFrames, 0);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}, {7, 240}}));
    Push(1);
    Push(3);
    EXPECT_EQ(Runs(), (RunList{{1001, 240}, {1002, 480}, {1003, 480}}));
}

TEST_F(MicrophoneJitterBufferTest, AStreamThatStartsOverIsFollowed)
{
    Push(0);
    // A new relay's Kyr counts from 0 again.
    Push(3, 0, 0);
    Push(4, 0, 0);
    // Far ahead: started over too.
    Push(0, 0, 90000000);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}, {1003, 480}, {1004, 480}, {1000, 480}}));
    EXPECT_EQ(m_buffer.GetCounters().restarts, 2u);
    EXPECT_EQ(m_buffer.GetCounters().lostFrames, 0u);
}

TEST_F(MicrophoneJitterBufferTest, APauseStartsTheStreamOver)
{
    // One datagram missing, but after half a second of nothing: a new
    // stream, not a lost datagram.
    Push(0, 1000);
    Push(2, 1500);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}, {1002, 480}}));
    EXPECT_EQ(m_buffer.GetCounters().restarts, 1u);
    EXPECT_EQ(m_buffer.GetCounters().lostFrames, 0u);
}

TEST_F(MicrophoneJitterBufferTest, ResetForgetsWhatWaits)
{
    Push(0);
    Push(2);
    m_buffer.Reset();
    Push(5, 0, 0);
    Push(6, 0, 0);
    EXPECT_EQ(Runs(), (RunList{{1000, 480}, {1005, 480}, {1006, 480}}));
}
