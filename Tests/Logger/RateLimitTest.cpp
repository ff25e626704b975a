// The logger's per-site rate limits, driven by a controllable wall clock.

#include "Common/Logger/Src/LoggerCore.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>

#include <string>

using namespace quorvan;
using velorane::test::CapturingLogStore;

namespace {

const char* const kShortWarning = "WARNING -- The above log message has been detected 5 times in "
                                  "one second and will be suspended for 1 minute";

class RateLimitTest : public ::testing::Test
{
protected:
    RateLimitTest()
        : m_logger(new Logger([this] { return m_now; })), m_capture(new CapturingLogStore()),
          m_store(m_capture)
    {
        m_logger->AddStore(m_store);
    }
    ~RateLimitTest() override { m_logger->RemoveStore(m_store); }

    void LogAt(int64_t now, const std::string& text = "message", uint32_t thread = 7,
               int32_t line = 42, bool bypass = false, const std::string& file = "Clients/x",
               const std::string& function = "Site")
    {
        m_now = now;
        m_logger->Log(EGroupValueInformation, file, function, now, thread, line, text, bypass);
    }

    size_t Delivered(const std::string& text = "message") const { return m_capture->Count(text); }
    size_t Warnings() const { return m_capture->Count(kShortWarning); }

    int64_t m_now = 1'000'000;
    CRefCountPtr<Logger> m_logger;
    CapturingLogStore* m_capture;
    CRefCountPtr<ILogStore> m_store;
};

TEST_F(RateLimitTest, SiteEveryTwoSecondsIsNeverSuspended)
{
    // Half an hour at one message every 2 s: never 5 in a 5 s window, never
    // 50 in a minute.
    for (int i = 0; i < 900; ++i) {
        LogAt(1'000'000 + i * 2000);
    }
    EXPECT_EQ(Delivered(), 900u);
    EXPECT_EQ(m_capture->Lines().size(), 900u);
}

TEST_F(RateLimitTest, SixMessagesInFiveSecondsSuspendForOneMinute)
{
    for (int i = 0; i < 6; ++i) {
        LogAt(1'000'000 + i * 500);
    }
    // The first only created the entry; the sixth is the fifth counted.
    EXPECT_EQ(Delivered(), 6u);
    ASSERT_EQ(Warnings(), 1u);
    const auto lines = m_capture->Lines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[6].message, kShortWarning);
    EXPECT_EQ(lines[6].group, EGroupValueInformation);
    EXPECT_EQ(lines[6].function, "Site");
    EXPECT_EQ(lines[6].file, "Clients/x");
    EXPECT_EQ(lines[6].line, 42);
    EXPECT_EQ(lines[6].threadId, 7u);

    const int64_t sixth = 1'000'000 + 5 * 500;
    // Everything up to the one-minute mark is dropped without a trace.
    LogAt(sixth + 1);
    LogAt(sixth + 30'000);
    LogAt(sixth + 59'999);
    EXPECT_EQ(Delivered(), 6u);
    EXPECT_EQ(Warnings(), 1u);

    // At the mark the windows have emptied and the site speaks again.
    LogAt(sixth + 60'000);
    EXPECT_EQ(Delivered(), 7u);
    EXPECT_EQ(Warnings(), 1u);
}

TEST_F(RateLimitTest, KnownKeyTripsOnItsFifthMessage)
{
    LogAt(1'000'000);          // creates the entry
    LogAt(1'000'000 + 10'000); // counted, alone in the window
    for (int i = 1; i <= 3; ++i) {
        LogAt(1'000'000 + 10'000 + i * 100);
    }
    EXPECT_EQ(Warnings(), 0u);
    LogAt(1'000'000 + 10'400);
    EXPECT_EQ(Warnings(), 1u);
    EXPECT_EQ(Delivered(), 6u);
}

TEST_F(RateLimitTest, SameSiteOnTwoThreadsCountsSeparately)
{
    for (int i = 0; i < 5; ++i) {
        LogAt(1'000'000 + i * 10, "message", 1);
        LogAt(1'000'000 + i * 10, "message", 2);
    }
    // Five each: the entry plus four counted, no suspension on either.
    EXPECT_EQ(Delivered(), 10u);
    EXPECT_EQ(Warnings(), 0u);
    LogAt(1'000'100, "message", 1);
    EXPECT_EQ(Warnings(), 1u);
    LogAt(1'000'100, "message", 2);
    EXPECT_EQ(Warnings(), 2u);
}

TEST_F(RateLimitTest, DifferentTextsFromOneSiteAreOneKey)
{
    for (int i = 0; i < 6; ++i) {
        LogAt(1'000'000 + i, "text " + std::to_string(i));
    }
    EXPECT_EQ(Warnings(), 1u);
    LogAt(1'000'010, "another text");
    EXPECT_EQ(Delivered("another text"), 0u);
    EXPECT_EQ(m_logger->TrackedKeys(), 1u);
}

TEST_F(RateLimitTest, BypassNeitherCountsNorIsSuppressed)
{
    for (int i = 0; i < 20; ++i) {
        LogAt(1'000'000 + i, "bypass", 7, 42, true);
    }
    EXPECT_EQ(Delivered("bypass"), 20u);
    EXPECT_EQ(Warnings(), 0u);
    EXPECT_EQ(m_logger->TrackedKeys(), 0u);

    // Suspend the key, then log past it.
    for (int i = 0; i < 6; ++i) {
        LogAt(1'000'100 + i);
    }
    ASSERT_EQ(Warnings(), 1u);
    LogAt(1'000'200, "message");
    EXPECT_EQ(Delivered(), 6u);
    LogAt(1'000'200, "bypass again", 7, 42, true);
    EXPECT_EQ(Delivered("bypass again"), 1u);
}

TEST_F(RateLimitTest, EmptyFileAndFunctionAreNeverLimited)
{
    for (int i = 0; i < 100; ++i) {
        LogAt(1'000'000 + i, "anonymous", 7, 42, false, "", "");
    }
    EXPECT_EQ(Delivered("anonymous"), 100u);
    EXPECT_EQ(Warnings(), 0u);
    EXPECT_EQ(m_logger->TrackedKeys(), 0u);
}

TEST_F(RateLimitTest, OnlyFileOrOnlyFunctionIsStillLimited)
{
    for (int i = 0; i < 6; ++i) {
        LogAt(1'000'000 + i, "message", 7, 42, false, "", "Site");
    }
    EXPECT_EQ(Warnings(), 1u);
}

TEST_F(RateLimitTest, FullTableLetsNewKeysPassAndOldKeysStillCount)
{
    // Fill the table with 10000 keys, one line each.
    for (int line = 0; line < 10000; ++line) {
        LogAt(1'000'000, "fill", 7, line);
    }
    ASSERT_EQ(m_logger->TrackedKeys(), 10000u);

    // A new key is not tracked: all of its messages pass.
    for (int i = 0; i < 20; ++i) {
        LogAt(1'000'000 + i, "untracked", 7, 20000);
    }
    EXPECT_EQ(Delivered("untracked"), 20u);
    EXPECT_EQ(m_logger->TrackedKeys(), 10000u);
    EXPECT_EQ(Warnings(), 0u);

    // A key that is in the table still counts.
    for (int i = 0; i < 5; ++i) {
        LogAt(1'000'100 + i, "tracked", 7, 5);
    }
    EXPECT_EQ(Warnings(), 1u);
    EXPECT_EQ(Delivered("tracked"), 5u);
}

TEST_F(RateLimitTest, DensestUnsuspendedRateNeverReachesTheMinuteLimit)
{
    // Four messages every 5 s is the most a site can send without tripping
    // the short limit: 48 in any minute, under the 50 of the long limit.
    LogAt(1'000'000);
    int64_t t = 1'010'000;
    for (int burst = 0; burst < 60; ++burst) {
        for (int i = 0; i < 4; ++i) {
            LogAt(t + i);
        }
        t += 5000;
    }
    EXPECT_EQ(Delivered(), 241u);
    EXPECT_EQ(m_capture->Lines().size(), 241u);
}

TEST_F(RateLimitTest, WindowsRunOnTheWallClockItGiven)
{
    // A clock set back moves a suspension with it: still dropped.
    for (int i = 0; i < 6; ++i) {
        LogAt(1'000'000 + i);
    }
    ASSERT_EQ(Warnings(), 1u);
    LogAt(500'000);
    EXPECT_EQ(Delivered(), 6u);
}

} // namespace
