// The clock filter: the offset of the fastest of the last 60 round trips,
// the newest among equally fast ones.

#include "Common/Audio/Src/TimeOffsetFilter.h"

#include <gtest/gtest.h>

#include <cstdint>

using quorvan::TimeOffsetFilter;
using quorvan::TimeOffsetSample;

TEST(TimeOffsetFilterTest, OneSampleGivesRemoteLessNowPlusHalfTheRoundTrip)
{
    TimeOffsetFilter filter;
    // Sent at 1000, the Kyr said 5020, read at 1040: 5020 - 1040 + 20.
    EXPECT_EQ(filter.AddSample(1000, 5020, 1040), 4000);
    ASSERT_EQ(filter.Samples().size(), 1u);
    EXPECT_EQ(filter.Samples().front().roundTrip, 40);
    EXPECT_EQ(filter.Samples().front().time, 1040);
    EXPECT_EQ(filter.Samples().front().offset, 4000);
}

TEST(TimeOffsetFilterTest, HalfTheRoundTripIsRoundedTowardZero)
{
    TimeOffsetFilter filter;
    EXPECT_EQ(filter.AddSample(1000, 2000, 1003), 2000 - 1003 + 1);
    TimeOffsetFilter backwards;
    // A clock that stepped back gives a negative round trip.
    EXPECT_EQ(backwards.AddSample(1003, 2000, 1000), 2000 - 1000 - 1);
}

TEST(TimeOffsetFilterTest, FastestRoundTripWins)
{
    TimeOffsetFilter filter;
    filter.AddSample(0, 1000, 30);    // round trip 30, offset 985
    filter.AddSample(100, 1090, 110); // round trip 10, offset 985
    EXPECT_EQ(filter.Offset(), 1090 - 110 + 5);
    EXPECT_EQ(filter.AddSample(200, 5000, 260), 1090 - 110 + 5); // slower: no change
}

TEST(TimeOffsetFilterTest, NewestAmongEquallyFastWins)
{
    TimeOffsetFilter filter;
    filter.AddSample(0, 1000, 10);
    EXPECT_EQ(filter.AddSample(100, 2000, 110), 2000 - 110 + 5);
    EXPECT_EQ(filter.Ranking().size(), 2u);
}

TEST(TimeOffsetFilterTest, SameRoundTripAndTimeIsRankedOnce)
{
    TimeOffsetFilter filter;
    filter.AddSample(0, 1000, 10);
    filter.AddSample(0, 3000, 10);
    EXPECT_EQ(filter.Samples().size(), 2u);
    EXPECT_EQ(filter.Ranking().size(), 1u);
    // The entry present stays: its offset is the first one's.
    EXPECT_EQ(filter.Offset(), 1000 - 10 + 5);
}

TEST(TimeOffsetFilterTest, SixtyFirstSampleDropsTheOldestFromBoth)
{
    TimeOffsetFilter filter;
    // The oldest is the fastest: while it is kept, it rules.
    filter.AddSample(0, 500, 2); // round trip 2, offset 499
    for (int i = 1; i < 60; ++i) {
        const int64_t sent = i * 1000;
        filter.AddSample(sent, sent + 7000, sent + 20); // round trip 20, offset 6990
    }
    EXPECT_EQ(filter.Samples().size(), 60u);
    EXPECT_EQ(filter.Ranking().size(), 60u);
    EXPECT_EQ(filter.Offset(), 499);

    filter.AddSample(60000, 67000, 60020);
    EXPECT_EQ(filter.Samples().size(), 60u);
    EXPECT_EQ(filter.Ranking().size(), 60u);
    EXPECT_EQ(filter.Samples().back().time, 1020);
    EXPECT_EQ(filter.Offset(), 6990);
}

TEST(TimeOffsetFilterTest, RankingEmptiedByEqualSamplesKeepsTheOffset)
{
    TimeOffsetFilter filter;
    // Sixty-one answers read in the same ms with the same round trip: the
    // oldest leaves and takes the one ranked entry with it.
    for (int i = 0; i < 61; ++i) {
        filter.AddSample(0, 900 + i, 10);
    }
    EXPECT_EQ(filter.Samples().size(), 60u);
    EXPECT_TRUE(filter.Ranking().empty());
    EXPECT_EQ(filter.Offset(), 900 - 10 + 5);
}

TEST(TimeOffsetFilterTest, ClocksAtTheEndsOfTheRangeWrapInsteadOfOverflowing)
{
    // Whatever the Kyr answers: the arithmetic wraps in 64 bits.
    TimeOffsetFilter filter;
    const int64_t lowest = INT64_MIN;
    const int64_t highest = INT64_MAX;
    // now - sent = 1000 - INT64_MIN wraps to INT64_MIN + 1000.
    filter.AddSample(lowest, 0, 1000);
    EXPECT_EQ(filter.Samples().front().roundTrip, lowest + 1000);
    // remote - now + roundTrip / 2, each step wrapping.
    EXPECT_EQ(filter.Samples().front().offset,
              static_cast<int64_t>(static_cast<uint64_t>(-1000) +
                                   static_cast<uint64_t>((lowest + 1000) / 2)));
    TimeOffsetFilter other;
    other.AddSample(0, highest, -10);
    EXPECT_EQ(other.Samples().front().roundTrip, -10);
    EXPECT_EQ(other.Samples().front().offset, lowest + 9 - 5);
}
