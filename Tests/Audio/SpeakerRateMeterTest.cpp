// The speaker rate: frames per second over spans of 5001 ms or more.

#include "Common/Audio/Src/SpeakerRateMeter.h"

#include <gtest/gtest.h>

using quorvan::SpeakerRateMeter;

TEST(SpeakerRateMeterTest, FirstPacketOnlyStartsTheClock)
{
    SpeakerRateMeter meter;
    EXPECT_EQ(meter.Update(480, 1000), 0);
    EXPECT_EQ(meter.MeasuredRate(), 0);
}

TEST(SpeakerRateMeterTest, RateComesAtTheEndOfTheFirstSpan)
{
    SpeakerRateMeter meter;
    meter.Update(480, 10000);
    // 10 ms packets of 480 frames: 500 of them take 5000 ms, one short.
    int64_t now = 10000;
    for (int i = 0; i < 500; ++i) {
        now += 10;
        EXPECT_EQ(meter.Update(480, now), 0) << i;
    }
    now += 10;
    // 501 packets in 5010 ms.
    EXPECT_EQ(meter.Update(480, now), static_cast<int64_t>(501u * 480u * 1000u / 5010u));
}

TEST(SpeakerRateMeterTest, SpanEndsAtExactly5001)
{
    SpeakerRateMeter meter;
    meter.Update(100, 1);
    EXPECT_EQ(meter.Update(48000, 5001), 0); // 5000 ms
    EXPECT_EQ(meter.Update(1, 5002), (48000 + 1) * 1000 / 5001);
    // A new span starts from nothing; the old rate stays until it ends.
    EXPECT_EQ(meter.Update(96000, 10002), (48000 + 1) * 1000 / 5001);
    EXPECT_EQ(meter.Update(0, 10003), 96000 * 1000 / 5001);
}
