// Log statements through the process's logger, as every subsystem makes them.

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/Time.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace quorvan;
using velorane::test::ScopedLogCapture;

namespace {

int g_evaluations = 0;
int CountedArgument()
{
    ++g_evaluations;
    return 5;
}

int LogFromNamedFunction()
{
    VLOG(EGroupValueWarning, "named %d", 1);
    return __LINE__ - 1;
}

class LevelGuard
{
public:
    LevelGuard()
    {
        GetLoggerInstance(&m_logger);
        m_logger->GetLevel(&m_level);
        m_logger->GetGroups(&m_groups);
    }
    ~LevelGuard()
    {
        m_logger->SetLevel(m_level);
        m_logger->SetGroups(m_groups);
    }
    ILogger* operator->() { return m_logger.Get(); }

private:
    CRefCountPtr<ILogger> m_logger;
    uint32_t m_level = 0;
    ELogGroups m_groups = EGroupValueAll;
};

TEST(LogMessageTest, MacroPassesRepositoryPathAndBareFunctionName)
{
    ScopedLogCapture capture;
    const int line = LogFromNamedFunction();
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].file, "Tests/Logger/LogMessageTest");
    EXPECT_EQ(lines[0].function, "LogFromNamedFunction");
    EXPECT_EQ(lines[0].line, line);
    EXPECT_EQ(lines[0].group, EGroupValueWarning);
    EXPECT_EQ(lines[0].message, "named 1");
}

TEST(LogMessageTest, CarriesThreadIdAndLocalTime)
{
    ScopedLogCapture capture;
    const int64_t before = LocalTime::Milliseconds();
    VLOG(EGroupValueInformation, "stamped");
    const int64_t after = LocalTime::Milliseconds();
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].threadId, static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId()));
    EXPECT_GE(lines[0].timeMs, before);
    EXPECT_LE(lines[0].timeMs, after);
}

TEST(LogMessageTest, DisabledStatementFormatsNothing)
{
    ScopedLogCapture capture;
    g_evaluations = 0;
    // The relay logs at level 0: Spew at level 1 is off.
    VLOG_LEVEL(EGroupValueSpew, 1, "spew %d", CountedArgument());
    EXPECT_EQ(g_evaluations, 0);
    EXPECT_TRUE(capture->Lines().empty());

    LogMessage statement(EGroupValueSpew, 1, "file", 1, "function", false);
    EXPECT_FALSE(statement.Enabled());
    statement.Log("%s", "never");
    EXPECT_TRUE(capture->Lines().empty());

    VLOG(EGroupValueInformation, "on %d", CountedArgument());
    EXPECT_EQ(g_evaluations, 1);
    EXPECT_EQ(capture->Count("on 5"), 1u);
}

TEST(LogMessageTest, GroupFilterDropsUnselectedGroups)
{
    ScopedLogCapture capture;
    LevelGuard guard;
    guard->SetGroups(EGroupValueSevere);
    VLOG(EGroupValueInformation, "info");
    VLOG(EGroupValueSevere, "severe");
    EXPECT_EQ(capture->Messages(), std::vector<std::string>{"severe"});
}

TEST(LogMessageTest, FailingResultWithEmptyTextPrintsTheResultText)
{
    ScopedLogCapture capture;
    const RESULT result = VLOG_RESULT(EGroupValueInformation, ResultInvalidArgument, "%s", "");
    EXPECT_EQ(result, ResultInvalidArgument);
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].group, EGroupValueSevere);
    EXPECT_EQ(lines[0].message, "RETURN Result: 0x80000003 - invalid argument");
}

TEST(LogMessageTest, FailingResultWithTextPrintsTheText)
{
    ScopedLogCapture capture;
    VLOG_RESULT(EGroupValueWarning, ResultGeneralFailure, "boom %d", 5);
    ASSERT_EQ(capture->Lines().size(), 1u);
    EXPECT_EQ(capture->Lines()[0].message, "RETURN Result: 0x80000000 - boom 5");
    EXPECT_EQ(capture->Lines()[0].group, EGroupValueSevere);
}

TEST(LogMessageTest, BareResultEndsInResultTextAndABlank)
{
    ScopedLogCapture capture;
    EXPECT_EQ(VLOG_RESULT(EGroupValueInformation, ResultAlreadyInitialized),
              ResultAlreadyInitialized);
    ASSERT_EQ(capture->Lines().size(), 1u);
    EXPECT_EQ(capture->Lines()[0].message, "RETURN Result: 0x8000000c - already initialized ");
}

TEST(LogMessageTest, SuccessfulResultIsSpewAtLevelThree)
{
    ScopedLogCapture capture;
    LevelGuard guard;
    EXPECT_EQ(VLOG_RESULT(EGroupValueSevere, Success), Success);
    EXPECT_TRUE(capture->Lines().empty());

    guard->SetLevel(3);
    VLOG_RESULT(EGroupValueSevere, Success);
    VLOG_RESULT(EGroupValueSevere, 7, "%s", "");
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].group, EGroupValueSpew);
    EXPECT_EQ(lines[0].message, "RETURN Result: 0x0 - no error ");
    EXPECT_EQ(lines[1].message, "RETURN Result: 0x7 - Unknown Result");
}

class ThrowingStore : public virtual ILogStore, public IRefCountImpl
{
public:
    void OnLog(ELogGroups, const std::string&, const std::string&, int64_t, uint32_t, int32_t,
               const std::string&) override
    {
        throw std::runtime_error("disk on fire");
    }
    void Restart() override {}
};

TEST(LogMessageTest, LogSwallowsWhatAStoreThrowsButLogResultDoesNot)
{
    CRefCountPtr<ILogStore> thrower(new ThrowingStore());
    LoggerAddCustom(thrower);
    EXPECT_NO_THROW(VLOG(EGroupValueSevere, "swallowed"));
    EXPECT_THROW(VLOG_RESULT(EGroupValueSevere, ResultGeneralFailure), std::runtime_error);
    LoggerRemoveStore(thrower);
}

TEST(LogMessageTest, GetLoggerInstanceAddsAReferenceForTheCaller)
{
    CRefCountPtr<ILogger> first;
    GetLoggerInstance(&first);
    const int64_t count = first->GetRefCount();
    {
        CRefCountPtr<ILogger> second;
        GetLoggerInstance(&second);
        EXPECT_EQ(second.Get(), first.Get());
        EXPECT_EQ(first->GetRefCount(), count + 1);
    }
    EXPECT_EQ(first->GetRefCount(), count);
}

TEST(LogMessageTest, ReleaseLoggerInstanceMakesTheNextCallCreateAFreshOne)
{
    CRefCountPtr<ILogger> old;
    GetLoggerInstance(&old);
    old->SetLevel(9);
    EXPECT_EQ(ReleaseLoggerInstance(), 0);
    EXPECT_EQ(ReleaseLoggerInstance(), 0);
    CRefCountPtr<ILogger> fresh;
    GetLoggerInstance(&fresh);
    uint32_t level = 99;
    fresh->GetLevel(&level);
    EXPECT_EQ(level, 0u);
    // The caller's reference kept the old one alive.
    EXPECT_EQ(old->GetRefCount(), 1);
}

TEST(LogMessageTest, LoggerInitializeSetsGroupsThenLevel)
{
    LevelGuard guard;
    EXPECT_EQ(LoggerInitialize(EGroupValueWarning | EGroupValueSevere, 2), 0);
    ELogGroups groups = EGroupValueAll;
    uint32_t level = 0;
    guard->GetGroups(&groups);
    guard->GetLevel(&level);
    EXPECT_EQ(static_cast<int>(groups), 12);
    EXPECT_EQ(level, 2u);
}

TEST(LogMessageTest, MetricHandlerIsInstalledOnceAndCalled)
{
    static std::vector<std::string> seen;
    EXPECT_TRUE(LoggerInitializeMetricHandler([](uint64_t id, const std::string& name,
                                                 double value) {
        seen.push_back(std::to_string(id) + " " + name + " " + std::to_string(value));
    }));
    EXPECT_FALSE(LoggerInitializeMetricHandler([](uint64_t, const std::string&, double) {
        seen.push_back("second");
    }));
    LoggerAddMetric(7, "frames", 2.5);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], "7 frames 2.500000");
}

} // namespace
