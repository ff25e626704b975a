#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/Time.h"
#include "Tests/Support/ScopedEnv.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

namespace quorvan {
namespace {

using velorane::test::ScopedEnv;

// 2023-11-14 22:13:20 UTC and 123 ms.
constexpr int64_t KnownTimeMs = 1700000000123;

// Calendar fields back to milliseconds, reading them as UTC.
int64_t DateToMilliseconds(const Date& date)
{
    tm calendar{};
    calendar.tm_year = date.year - 1900;
    calendar.tm_mon = date.month - 1;
    calendar.tm_mday = date.day;
    calendar.tm_hour = date.hour;
    calendar.tm_min = date.minute;
    calendar.tm_sec = date.second;
    return static_cast<int64_t>(timegm(&calendar)) * 1000 + date.millisecond;
}

// Makes the C library read TZ again once a test has put it back.
class TimeZoneRestore
{
public:
    ~TimeZoneRestore() { tzset(); }
};

TEST(ClockTime, UtcAndLocalMillisecondsAgreeWithinAFewMilliseconds)
{
    const int64_t utc = UTCTime::Milliseconds();
    const int64_t local = LocalTime::Milliseconds();
    EXPECT_GE(local, utc);
    EXPECT_LE(local - utc, 50);
}

TEST(ClockTime, UtcMillisecondsFollowTheSystemClock)
{
    const auto system = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    const int64_t utc = UTCTime::Milliseconds();
    EXPECT_GE(utc, system - 1);
    EXPECT_LE(utc - system, 1000);
}

TEST(ClockTime, PlatformWallClocksAgreeWithTheAccessors)
{
    const int64_t platformUtc = platform::UTCMilliseconds();
    const int64_t platformLocal = platform::LocalMilliseconds();
    const int64_t utc = UTCTime::Milliseconds();
    EXPECT_LE(platformUtc, platformLocal);
    EXPECT_LE(platformLocal, utc);
    EXPECT_LE(utc - platformUtc, 50);
}

TEST(ClockTime, MonotonicNeverGoesBackwards)
{
    int64_t previous = Monotonic::Milliseconds();
    for (int i = 0; i < 100000; ++i) {
        const int64_t now = Monotonic::Milliseconds();
        ASSERT_GE(now, previous);
        previous = now;
    }
}

TEST(ClockTime, MonotonicAdvancesWithElapsedTime)
{
    const int64_t before = Monotonic::Milliseconds();
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(20)) {
    }
    const int64_t after = Monotonic::Milliseconds();
    EXPECT_GE(after - before, 19);
    EXPECT_LT(after - before, 2000);
}

TEST(ClockTime, MonotonicMillisecondsAndNanosecondsShareOneClock)
{
    const int64_t msBefore = platform::MonotonicMilliseconds();
    const int64_t ns = platform::MonotonicNanoseconds();
    const int64_t msAfter = platform::MonotonicMilliseconds();
    EXPECT_GE(ns / 1000000, msBefore);
    EXPECT_LE(ns / 1000000, msAfter);
}

TEST(ClockTime, UtcToDateOfKnownTimeGivesCalendarFieldsAndRemainder)
{
    const Date date = UTCTime::ToDate(KnownTimeMs);
    EXPECT_EQ(date.year, 2023);
    EXPECT_EQ(date.month, 11);
    EXPECT_EQ(date.day, 14);
    EXPECT_EQ(date.hour, 22);
    EXPECT_EQ(date.minute, 13);
    EXPECT_EQ(date.second, 20);
    EXPECT_EQ(date.millisecond, 123);
}

TEST(ClockTime, UtcToDateOfZeroIsTheEpoch)
{
    const Date date = UTCTime::ToDate(0);
    EXPECT_EQ(date.year, 1970);
    EXPECT_EQ(date.month, 1);
    EXPECT_EQ(date.day, 1);
    EXPECT_EQ(date.hour, 0);
    EXPECT_EQ(date.minute, 0);
    EXPECT_EQ(date.second, 0);
    EXPECT_EQ(date.millisecond, 0);
}

TEST(ClockTime, ToDateOfNegativeTimeKeepsTheSignedRemainder)
{
    // -1 ms: whole seconds truncate towards zero, the remainder keeps the sign.
    const Date date = UTCTime::ToDate(-1);
    EXPECT_EQ(date.year, 1970);
    EXPECT_EQ(date.month, 1);
    EXPECT_EQ(date.day, 1);
    EXPECT_EQ(date.second, 0);
    EXPECT_EQ(date.millisecond, -1);
}

TEST(ClockTime, LocalToDateUsesTheTimeZone)
{
    TimeZoneRestore restore;
    ScopedEnv zone("TZ", std::string("JST-9"));
    tzset();
    const Date date = LocalTime::ToDate(KnownTimeMs);
    EXPECT_EQ(date.year, 2023);
    EXPECT_EQ(date.month, 11);
    EXPECT_EQ(date.day, 15);
    EXPECT_EQ(date.hour, 7);
    EXPECT_EQ(date.minute, 13);
    EXPECT_EQ(date.second, 20);
    EXPECT_EQ(date.millisecond, 123);
}

TEST(ClockTime, UtcNowIsThePresentTime)
{
    const int64_t before = UTCTime::Milliseconds();
    const Date now = UTCTime::Now();
    const int64_t after = UTCTime::Milliseconds();
    const int64_t nowMs = DateToMilliseconds(now);
    EXPECT_GE(nowMs, before);
    EXPECT_LE(nowMs, after);
    EXPECT_GE(now.millisecond, 0);
    EXPECT_LT(now.millisecond, 1000);
}

TEST(ClockTime, LocalNowIsThePresentTimeInTheTimeZone)
{
    TimeZoneRestore restore;
    ScopedEnv zone("TZ", std::string("JST-9"));
    tzset();
    const int64_t before = LocalTime::Milliseconds();
    const Date now = LocalTime::Now();
    const int64_t after = LocalTime::Milliseconds();
    const int64_t nineHoursMs = 9LL * 3600 * 1000;
    const int64_t nowMs = DateToMilliseconds(now) - nineHoursMs;
    EXPECT_GE(nowMs, before);
    EXPECT_LE(nowMs, after);
}

TEST(ClockTime, GetTickCountIsAlwaysZero)
{
    EXPECT_EQ(platform::GetTickCount(), 0UL);
    EXPECT_EQ(platform::GetTickCount(), 0UL);
}

} // namespace
} // namespace quorvan
