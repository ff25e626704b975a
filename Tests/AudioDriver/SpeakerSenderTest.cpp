// The speaker ring cut into datagrams, stamped with the wall clock.

#include "Drivers/AudioDriver/SpeakerSender.h"

#include <gtest/gtest.h>

#include <vector>

using namespace quorvan::velorane::audiodriver;

namespace {

uint64_t Stamp(const std::vector<uint8_t>& datagram)
{
    uint64_t stamp = 0;
    for (int i = 1; i <= 8; ++i) {
        stamp = (stamp << 8) | datagram[static_cast<size_t>(i)];
    }
    return stamp;
}

} // namespace

TEST(SpeakerSenderTest, RingIsCutIntoEqualDatagramsStampedByTheirLastFrame)
{
    AudioRing ring(4096);
    SpeakerSender sender(ring);
    std::vector<int16_t> samples(2 * 1024);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<int16_t>(i);
    }
    ring.Write(samples.data(), 1024);
    std::vector<std::vector<uint8_t>> sent;
    sender.Drain(
        [&sent](const uint8_t* data, size_t size) { sent.emplace_back(data, data + size); },
        1000000);
    // 1024 frames go as two of 512 (9 + 2048 bytes each), not 882 and 142.
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].size(), 2057u);
    EXPECT_EQ(sent[1].size(), 2057u);
    // The first one's last frame was played 512 frames (10 ms) before now.
    EXPECT_EQ(Stamp(sent[0]), 1000000u - 10);
    EXPECT_EQ(Stamp(sent[1]), 1000000u);
    // Frame 512's left sample, 1024, opens the second, big-endian.
    EXPECT_EQ(sent[1][9], 0x04);
    EXPECT_EQ(sent[1][10], 0x00);
    EXPECT_EQ(sender.Datagrams(), 2u);
    EXPECT_EQ(ring.Available(), 0u);
}

TEST(SpeakerSenderTest, ASmallCycleIsOneDatagramAndNothingSendsNothing)
{
    AudioRing ring(4096);
    SpeakerSender sender(ring);
    std::vector<std::vector<uint8_t>> sent;
    const auto send = [&sent](const uint8_t* data, size_t size) {
        sent.emplace_back(data, data + size);
    };
    sender.Drain(send, 5);
    EXPECT_TRUE(sent.empty());
    const std::vector<int16_t> samples(2 * 3000, 1);
    ring.Write(samples.data(), 256);
    sender.Drain(send, 5);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].size(), 9u + 1024);
    // 3000 frames: four datagrams of 750.
    ring.Write(samples.data(), 3000);
    sender.Drain(send, 5);
    ASSERT_EQ(sent.size(), 5u);
    for (size_t i = 1; i < 5; ++i) {
        EXPECT_EQ(sent[i].size(), 9u + 3000) << i;
    }
}

TEST(SpeakerSenderTest, WithNowhereToSendTheAudioIsDropped)
{
    AudioRing ring(4096);
    SpeakerSender sender(ring);
    const std::vector<int16_t> samples(2 * 300, 1);
    ring.Write(samples.data(), 300);
    sender.Drain(nullptr, 5);
    EXPECT_EQ(ring.Available(), 0u);
    EXPECT_EQ(sender.Datagrams(), 0u);
}
