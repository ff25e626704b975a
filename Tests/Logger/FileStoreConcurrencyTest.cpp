// Several threads logging into one file store at once.

#include "Common/Logger/Src/FileStore.h"
#include "Tests/Logger/FileStoreTestSupport.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace quorvan;
using velorane::test::FileStoreTestClock;
using velorane::test::kLogName;
using velorane::test::ListNames;
using velorane::test::LogFileName;
using velorane::test::ReadFile;
using velorane::test::TempDir;

namespace {

std::vector<std::string> SplitTabs(const std::string& line)
{
    std::vector<std::string> columns;
    std::istringstream in(line);
    std::string column;
    while (std::getline(in, column, '\t')) {
        columns.push_back(column);
    }
    return columns;
}

TEST(FileStoreConcurrencyTest, FourThreadsLoseNothingAndKeepTheirOwnOrder)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    TempDir dir;
    FileStoreTestClock clock(2024, 6, 15);
    CRefCountPtr<FileStore> store(new FileStore(kLogName, dir.Path(), 10485760, clock.AsClock()));

    // 2000 messages against a queue of 100: the posters block now and then.
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < kPerThread; ++i) {
                store->OnLog(EGroupValueInformation, "Tests/Logger/x", "Worker", 0, 100 + t, i,
                             std::to_string(i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    store->Flush();

    const std::string name = LogFileName(kLogName, 2024, 6, 15, 0);
    ASSERT_EQ(ListNames(dir.Path()), std::vector<std::string>{name});
    std::istringstream file(ReadFile(dir.File(name)));
    std::vector<int> next(kThreads, 0);
    std::string line;
    int lines = 0;
    while (std::getline(file, line)) {
        ++lines;
        const std::vector<std::string> columns = SplitTabs(line);
        ASSERT_EQ(columns.size(), 7u) << line;
        const int thread = std::stoi(columns[1]) - 100;
        ASSERT_GE(thread, 0) << line;
        ASSERT_LT(thread, kThreads) << line;
        // Each thread's lines come in the order it logged them.
        EXPECT_EQ(columns[4], std::to_string(next[thread])) << line;
        EXPECT_EQ(columns[6], columns[4]) << line;
        next[thread] = std::stoi(columns[4]) + 1;
    }
    EXPECT_EQ(lines, kThreads * kPerThread);
    EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

} // namespace
