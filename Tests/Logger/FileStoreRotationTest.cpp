// The file store's choice of file: where a run goes on, when it moves to
// the next index, and which files it deletes.

#include "Common/Logger/Src/FileStore.h"
#include "Tests/Logger/FileStoreTestSupport.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/mount.h>

using namespace quorvan;
using velorane::test::FileStoreTestClock;
using velorane::test::kLogName;
using velorane::test::ListNames;
using velorane::test::LogFileName;
using velorane::test::ReadFile;
using velorane::test::TempDir;

namespace {

constexpr uint64_t kTenMiB = 10485760;

class FileStoreRotationTest : public ::testing::Test
{
protected:
    // "Today" is 2024-06-15 unless a test moves the clock.
    FileStoreRotationTest() : m_clock(2024, 6, 15) { m_clock.SetTime(9, 30, 0, 5); }

    CRefCountPtr<FileStore> MakeStore(uint64_t maxSize = kTenMiB)
    {
        return CRefCountPtr<FileStore>(
            new FileStore(kLogName, m_dir.Path(), maxSize, m_clock.AsClock()));
    }

    // Logs message as a four-column line and waits until it is written.
    static void Log(FileStore& store, const std::string& message)
    {
        store.OnLog(EGroupValueSevere, "", "", 0, 1, 1, message);
        store.Flush();
    }

    // The line that Log writes at 09:30:00.005 on the given date.
    static std::string Line(const std::string& date, const std::string& message)
    {
        return date + " 09:30:00.005\t1\t* Severe      *\t" + message + "\n";
    }

    static std::string Name(int year, int month, int day, int index)
    {
        return LogFileName(kLogName, year, month, day, index);
    }

    std::string Today(int index) const { return Name(2024, 6, 15, index); }

    void Touch(const std::string& name, const std::string& contents = "x\n") const
    {
        m_dir.WriteFile(name, contents);
    }

    TempDir m_dir;
    FileStoreTestClock m_clock;
};

TEST_F(FileStoreRotationTest, RestartOnTheSameDayAppendsToTheNewestFile)
{
    Touch(Today(0), "zero\n");
    Touch(Today(3), "three\n");
    auto store = MakeStore();
    Log(*store, "again");

    EXPECT_EQ(ListNames(m_dir.Path()), (std::vector<std::string>{Today(0), Today(3)}));
    EXPECT_EQ(ReadFile(m_dir.File(Today(3))), "three\n" + Line("06/15/2024", "again"));
    EXPECT_EQ(ReadFile(m_dir.File(Today(0))), "zero\n");
}

TEST_F(FileStoreRotationTest, RestartOnTheSameDayMovesPastANewestFileOverTheLimit)
{
    Touch(Today(0), "zero\n");
    Touch(Today(3), std::string(101, 'a'));
    auto store = MakeStore(100);
    Log(*store, "again");

    EXPECT_EQ(ListNames(m_dir.Path()), (std::vector<std::string>{Today(0), Today(3), Today(4)}));
    EXPECT_EQ(ReadFile(m_dir.File(Today(4))), Line("06/15/2024", "again"));
    EXPECT_EQ(ReadFile(m_dir.File(Today(3))), std::string(101, 'a'));
}

TEST_F(FileStoreRotationTest, FilesOfOtherDaysDoNotSetTheIndex)
{
    Touch(Name(2024, 6, 14, 5));
    Touch(Name(2024, 6, 16, 9));
    auto store = MakeStore();
    Log(*store, "first");

    EXPECT_EQ(ReadFile(m_dir.File(Today(0))), Line("06/15/2024", "first"));
}

TEST_F(FileStoreRotationTest, FileOfExactlyTheMaximumSizeTakesOneMoreLine)
{
    Touch(Today(0), std::string(100, 'a'));
    auto store = MakeStore(100);
    Log(*store, "one more");
    Log(*store, "next file");

    EXPECT_EQ(ReadFile(m_dir.File(Today(0))),
              std::string(100, 'a') + Line("06/15/2024", "one more"));
    EXPECT_EQ(ReadFile(m_dir.File(Today(1))), Line("06/15/2024", "next file"));
}

TEST_F(FileStoreRotationTest, FilePassesTheLimitByAtMostOneLine)
{
    const std::string line = Line("06/15/2024", "m");
    // Room for one line and a bit: the second line is still written, since
    // the test comes before writing, and the third starts the next file.
    auto store = MakeStore(line.size() + 10);
    Log(*store, "m");
    Log(*store, "m");
    Log(*store, "m");

    EXPECT_EQ(ReadFile(m_dir.File(Today(0))), line + line);
    EXPECT_EQ(ReadFile(m_dir.File(Today(1))), line);
}

TEST_F(FileStoreRotationTest, AfterMidnightLinesStayInYesterdaysFileUntilTheLimit)
{
    const std::string line = Line("06/15/2024", "m");
    auto store = MakeStore(line.size() + 10);
    Log(*store, "m");

    m_clock.SetDate(2024, 6, 16);
    Log(*store, "late");
    Log(*store, "new day");

    // The index goes on from 0 to 1 rather than starting the new day at 0.
    EXPECT_EQ(ListNames(m_dir.Path()), (std::vector<std::string>{Today(0), Name(2024, 6, 16, 1)}));
    EXPECT_EQ(ReadFile(m_dir.File(Today(0))), line + Line("06/16/2024", "late"));
    EXPECT_EQ(ReadFile(m_dir.File(Name(2024, 6, 16, 1))), Line("06/16/2024", "new day"));
}

TEST_F(FileStoreRotationTest, SevenMatchingFilesAreAllKeptEvenOneDatedInTheFuture)
{
    const std::vector<std::string> before = {
        Name(2024, 6, 1, 0),  Name(2024, 6, 10, 0), Name(2024, 6, 11, 0),
        Name(2024, 6, 12, 0), Name(2024, 6, 14, 3), Name(2024, 6, 20, 0),
    };
    for (const std::string& name : before) {
        Touch(name);
    }
    auto store = MakeStore();
    Log(*store, "seventh");

    std::vector<std::string> expected = before;
    expected.push_back(Today(0));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(ListNames(m_dir.Path()), expected);
}

TEST_F(FileStoreRotationTest, EightMatchingFilesLoseTheOldestAndThoseDatedAfterToday)
{
    for (const std::string& name :
         {Name(2024, 6, 1, 0), Name(2024, 6, 10, 0), Name(2024, 6, 11, 0), Name(2024, 6, 12, 0),
          Name(2024, 6, 14, 3), Name(2024, 6, 20, 0), Name(2024, 7, 1, 0)}) {
        Touch(name);
    }
    auto store = MakeStore();
    Log(*store, "eighth");

    // 06_01 is the oldest of eight; 06_20 and 07_01 lie after today.
    EXPECT_EQ(ListNames(m_dir.Path()),
              (std::vector<std::string>{Name(2024, 6, 10, 0), Name(2024, 6, 11, 0),
                                        Name(2024, 6, 12, 0), Name(2024, 6, 14, 3), Today(0)}));
    EXPECT_EQ(ReadFile(m_dir.File(Today(0))), Line("06/15/2024", "eighth"));
}

TEST_F(FileStoreRotationTest, LogFilesOfAnotherNameAreNeverDeleted)
{
    const std::vector<std::string> strangers = {
        "AAAA.log",                // no underscore: sorts first of all
        "Other_2024_01_01_00.log", // another store's file
        "Other_2099_01_01_00.log", // another store's, dated in the future
        "notes.log.txt",           // ".log" in the middle
    };
    for (const std::string& name : strangers) {
        Touch(name);
    }
    for (int day = 1; day <= 7; ++day) {
        Touch(Name(2024, 6, day, 0));
    }
    auto store = MakeStore();
    Log(*store, "eighth");

    std::vector<std::string> expected = strangers;
    for (int day = 2; day <= 7; ++day) {
        expected.push_back(Name(2024, 6, day, 0));
    }
    expected.push_back(Today(0));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(ListNames(m_dir.Path()), expected);
}

// A file that can't be deleted is passed over, and seen again the next
// time the files are counted. The oldest file is made a mount point (a file
// bound over it, in a mount namespace of this test's own), which no one can
// remove while it is mounted.
TEST_F(FileStoreRotationTest, FileThatCantBeDeletedIsPassedOverAndTriedAgain)
{
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    for (int day = 1; day <= 7; ++day) {
        Touch(Name(2024, 6, day, 0));
    }
    TempDir elsewhere;
    const std::string source = elsewhere.WriteFile("held", "held\n");
    const std::string oldest = m_dir.File(Name(2024, 6, 1, 0));
    ASSERT_EQ(::mount(source.c_str(), oldest.c_str(), nullptr, MS_BIND, nullptr), 0);

    // Every message over the limit of 10 bytes opens a file of its own.
    auto store = MakeStore(10);
    Log(*store, "eighth");
    // One file too many, and it can't go: all eight stay.
    std::vector<std::string> expected;
    for (int day = 1; day <= 7; ++day) {
        expected.push_back(Name(2024, 6, day, 0));
    }
    expected.push_back(Today(0));
    EXPECT_EQ(ListNames(m_dir.Path()), expected);

    // Two too many: the held one is tried again and stays, the next goes.
    Log(*store, "ninth");
    expected.erase(expected.begin() + 1);
    expected.push_back(Today(1));
    EXPECT_EQ(ListNames(m_dir.Path()), expected);

    // Let go, it goes at the next count, with the next oldest.
    ASSERT_EQ(::umount2(oldest.c_str(), MNT_DETACH), 0);
    Log(*store, "tenth");
    expected.erase(expected.begin(), expected.begin() + 2);
    expected.push_back(Today(2));
    EXPECT_EQ(ListNames(m_dir.Path()), expected);
    EXPECT_EQ(ReadFile(m_dir.File(Today(2))), Line("06/15/2024", "tenth"));
}

TEST_F(FileStoreRotationTest, PrefixedNameWithFewerThanFourUnderscoresIsTheOldest)
{
    // Its parts parse as empty, which sorts before every dated file.
    Touch(kLogName + "_old.log");
    for (int day = 1; day <= 6; ++day) {
        Touch(Name(2024, 6, day, 0));
    }
    auto store = MakeStore();
    Log(*store, "eighth");

    std::vector<std::string> expected;
    for (int day = 1; day <= 6; ++day) {
        expected.push_back(Name(2024, 6, day, 0));
    }
    expected.push_back(Today(0));
    EXPECT_EQ(ListNames(m_dir.Path()), expected);
}

TEST_F(FileStoreRotationTest, LongRunKeepsTheSevenNewestFiles)
{
    // Every line is over the limit, so every message opens a new file.
    auto store = MakeStore(10);
    for (int i = 0; i < 20; ++i) {
        Log(*store, std::to_string(i));
    }

    std::vector<std::string> expected;
    for (int index = 13; index < 20; ++index) {
        expected.push_back(Today(index));
    }
    EXPECT_EQ(ListNames(m_dir.Path()), expected);
    EXPECT_EQ(ReadFile(m_dir.File(Today(19))), Line("06/15/2024", "19"));
}

TEST_F(FileStoreRotationTest, VanishedDirectoryCostsFiveIndicesPerMessage)
{
    const std::string folder = m_dir.File("logs");
    std::filesystem::create_directory(folder);
    CRefCountPtr<FileStore> store(new FileStore(kLogName, folder, kTenMiB, m_clock.AsClock()));
    Log(*store, "written");
    ASSERT_EQ(ListNames(folder), std::vector<std::string>{Today(0)});

    // Let go of the open file, then take the folder away.
    store->Restart();
    store->Flush();
    std::filesystem::remove_all(folder);
    Log(*store, "lost 1");
    Log(*store, "lost 2");
    EXPECT_FALSE(std::filesystem::exists(folder));

    // Each lost message tried indices 0-4 and 5-9; logging resumes at 10.
    std::filesystem::create_directory(folder);
    Log(*store, "back");
    EXPECT_EQ(ListNames(folder), std::vector<std::string>{Today(10)});
    EXPECT_EQ(ReadFile(folder + "/" + Today(10)), Line("06/15/2024", "back"));
}

} // namespace
