#include "Common/Logger/Linux/Src/LinuxDebugStore.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace quorvan;

namespace {

TEST(LinuxDebugStoreTest, SyslogPriorityByGroup)
{
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueInformation), LOG_NOTICE);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueWarning), LOG_WARNING);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueSevere), LOG_ERR);
    EXPECT_EQ(LOG_NOTICE, 5);
    EXPECT_EQ(LOG_WARNING, 4);
    EXPECT_EQ(LOG_ERR, 3);
}

TEST(LinuxDebugStoreTest, OtherGroupsGoToSyslogWithPrioritySeven)
{
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueConfig), 7);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueSpew), 7);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueAll), 7);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(static_cast<ELogGroups>(3)), 7);
}

TEST(LinuxDebugStoreTest, PrintsGroupFunctionMessageFileLineOnStandardOutput)
{
    CRefCountPtr<ILogStore> store(new LinuxDebugStore());
    testing::internal::CaptureStdout();
    store->OnLog(EGroupValueWarning, "Clients/Conference/main", "main", 0, 1, 12, "hello");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "* Warning     * main hello Clients/Conference/main 12\n");
}

TEST(LinuxDebugStoreTest, WithoutFileAndFunctionPrintsGroupAndMessage)
{
    CRefCountPtr<ILogStore> store(new LinuxDebugStore());
    testing::internal::CaptureStdout();
    store->OnLog(EGroupValueSevere, "", "", 0, 1, 12, "bare");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "* Severe      * bare\n");
}

TEST(LinuxDebugStoreTest, UnknownGroupPrintsAnEmptyName)
{
    EXPECT_EQ(LinuxDebugStore::FormatText(static_cast<ELogGroups>(3), "f", "g", 1, "m"),
              " g m f 1");
}

// Standard output that takes nothing (a full device) is not reported: the
// store returns as usual, and the stores behind it still get the line.
TEST(LinuxDebugStoreTest, StandardOutputThatFailsReportsNothing)
{
    CRefCountPtr<ILogStore> store(new LinuxDebugStore());
    ASSERT_EQ(LoggerAddCustom(store), 0);
    {
        velorane::test::ScopedLogCapture capture;
        std::fflush(stdout);
        const int saved = ::dup(STDOUT_FILENO);
        const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(full, 0);
        ASSERT_EQ(::dup2(full, STDOUT_FILENO), STDOUT_FILENO);
        EXPECT_NO_THROW(store->OnLog(EGroupValueWarning, "f", "g", 0, 1, 2, "into a full device"));
        VLOG(EGroupValueWarning, "through the logger");
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        ::close(full);
        std::clearerr(stdout);
        EXPECT_TRUE(capture->Contains(EGroupValueWarning, "through the logger"));
    }
    EXPECT_EQ(LoggerRemoveStore(store), 0);
}

TEST(LinuxDebugStoreTest, CreateNativeOsStoreHandsOutOneReference)
{
    ILogStore* raw = nullptr;
    EXPECT_EQ(CreateNativeOsStore(&raw), 0);
    ASSERT_NE(raw, nullptr);
    CRefCountPtr<ILogStore> store(raw);
    EXPECT_EQ(store->GetRefCount(), 1);
    EXPECT_NE(dynamic_cast<LinuxDebugStore*>(raw), nullptr);
}

} // namespace

TEST(LinuxDebugStoreTest, LinesFromManyThreadsStayWhole)
{
    LinuxDebugStore store;
    constexpr int kThreads = 8;
    constexpr int kLines = 300;
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < kLines; ++i) {
                store.OnLog(EGroupValueWarning, "", "", 0, 0, 0,
                            "thread " + std::to_string(t) + " line " + std::to_string(i));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const std::string output = testing::internal::GetCapturedStdout();
    std::istringstream lines(output);
    std::string line;
    std::vector<int> next(kThreads, 0);
    int count = 0;
    while (std::getline(lines, line)) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "* Warning     * thread %d line %d", &t, &i), 2)
            << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        EXPECT_EQ(line,
                  "* Warning     * thread " + std::to_string(t) + " line " + std::to_string(i));
        EXPECT_EQ(i, next[static_cast<size_t>(t)]++);
        ++count;
    }
    EXPECT_EQ(count, kThreads * kLines);
}
