#include "Common/Logger/Src/LogPerformanceTimer.h"

#include "Common/Logger/Src/Logger.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>

#include <regex>

using namespace quorvan;
using velorane::test::ScopedLogCapture;

namespace {

TEST(LogPerformanceTimerTest, LogTimeOfZeroLogsNothingAndCountsNothing)
{
    ScopedLogCapture capture;
    LogPerformanceTimer timer("decode", 1, 0, true, true);
    timer.LogTime(0);
    EXPECT_TRUE(capture->Lines().empty());
    EXPECT_EQ(timer.Number(), 0);
}

TEST(LogPerformanceTimerTest, WithoutIntervalsOnlyTheNumberAdvances)
{
    ScopedLogCapture capture;
    LogPerformanceTimer timer("quiet", 0, 0, false, true);
    for (int i = 0; i < 10; ++i) {
        timer.LogInterval(1.5);
    }
    EXPECT_TRUE(capture->Lines().empty());
    EXPECT_EQ(timer.Number(), 10);
}

TEST(LogPerformanceTimerTest, SummaryLineEveryLogInterval)
{
    ScopedLogCapture capture;
    LogPerformanceTimer timer("frame", 3, 0, false, true);
    timer.LogInterval(1.0);
    timer.LogInterval(2.0);
    EXPECT_TRUE(capture->Lines().empty());
    timer.LogInterval(6.0);
    timer.LogInterval(4.0);
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "frame 3.00 (ms) AVG - 1.00 (ms) MIN - 6.00 (ms) MAX");
    EXPECT_EQ(lines[0].group, EGroupValueInformation);
    EXPECT_EQ(lines[0].file, "Common/Logger/Src/LogPerformanceTimer");
}

TEST(LogPerformanceTimerTest, SpewTimerIsOffAtLevelZero)
{
    ScopedLogCapture capture;
    LogPerformanceTimer timer("spew", 1, 0, true, false);
    timer.LogTime(timer.GetStartTime());
    EXPECT_TRUE(capture->Lines().empty());
    EXPECT_EQ(timer.Number(), 1);
}

TEST(LogPerformanceTimerTest, TimestampLinesAtStartAndEnd)
{
    ScopedLogCapture capture;
    LogPerformanceTimer timer("render", 0, 0, true, true);
    // The first call only fixes the start time: now equals it, no line.
    const int64_t first = timer.GetStartTime();
    EXPECT_GT(first, 0);
    EXPECT_TRUE(capture->Lines().empty());
    const int64_t start = timer.GetStartTime();
    timer.LogTime(start);
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[0].message,
                                 std::regex("render START TIMESTAMP - Number 0 - Time [0-9]+ ")))
        << lines[0].message;
    EXPECT_TRUE(std::regex_match(lines[1].message,
                                 std::regex("render END   TIMESTAMP - Number 0 - Time [0-9]+ ")))
        << lines[1].message;
    EXPECT_EQ(timer.Number(), 1);
}

TEST(LogPerformanceTimerTest, NeverRateLimited)
{
    ScopedLogCapture capture;
    LogPerformanceTimer timer("tight", 1, 0, false, true);
    for (int i = 0; i < 30; ++i) {
        timer.LogInterval(1.0);
    }
    EXPECT_EQ(capture->Lines().size(), 30u);
}

TEST(LogPerformanceTimerTest, MetricsReportedEveryMetricInterval)
{
    struct Metric
    {
        uint64_t id;
        std::string name;
        double value;
    };
    static std::vector<Metric> metrics;
    ASSERT_TRUE(LoggerInitializeMetricHandler(
        [](uint64_t id, const std::string& name, double value) {
            metrics.push_back({id, name, value});
        }));
    LogPerformanceTimer timer("decode", 0, 2, false, true);
    timer.LogInterval(2.0);
    EXPECT_TRUE(metrics.empty());
    timer.LogInterval(4.0);
    ASSERT_EQ(metrics.size(), 3u);
    const uint64_t id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&timer));
    EXPECT_EQ(metrics[0].id, id);
    EXPECT_EQ(metrics[0].name, "decode: average (ms)");
    EXPECT_DOUBLE_EQ(metrics[0].value, 3.0);
    EXPECT_EQ(metrics[1].name, "decode: minimum (ms)");
    EXPECT_DOUBLE_EQ(metrics[1].value, 2.0);
    EXPECT_EQ(metrics[2].name, "decode: maximum (ms)");
    EXPECT_DOUBLE_EQ(metrics[2].value, 4.0);
    // Reset after each report.
    timer.LogInterval(10.0);
    timer.LogInterval(12.0);
    ASSERT_EQ(metrics.size(), 6u);
    EXPECT_DOUBLE_EQ(metrics[3].value, 11.0);
    EXPECT_DOUBLE_EQ(metrics[4].value, 10.0);
}

} // namespace
