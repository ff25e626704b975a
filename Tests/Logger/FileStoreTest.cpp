// The file store's line format, file naming and opening, on real files.

#include "Common/Logger/Src/FileStore.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/Time.h"
#include "Tests/Logger/FileStoreTestSupport.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

using namespace quorvan;
using velorane::test::FileStoreTestClock;
using velorane::test::kLogName;
using velorane::test::ListNames;
using velorane::test::LogFileName;
using velorane::test::ReadFile;
using velorane::test::TempDir;

namespace {

constexpr uint64_t kTenMiB = 10485760;

// 2026-03-09 14:05:07.042, printed month first.
const std::string kStamp = "03/09/2026 14:05:07.042";

class FileStoreTest : public ::testing::Test
{
protected:
    FileStoreTest() : m_clock(2026, 3, 9) { m_clock.SetTime(14, 5, 7, 42); }

    CRefCountPtr<FileStore> MakeStore(const std::string& path, uint64_t maxSize = kTenMiB)
    {
        return CRefCountPtr<FileStore>(new FileStore(kLogName, path, maxSize, m_clock.AsClock()));
    }

    std::string TodaysFile(int index) const { return LogFileName(kLogName, 2026, 3, 9, index); }

    TempDir m_dir;
    FileStoreTestClock m_clock;
};

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// True for "\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3}": each 'N' of the shape is a digit,
// every other character stands for itself. (std::regex trips a false
// uninitialised-use warning of the compiler under the sanitizers.)
bool IsStamp(const std::string& text)
{
    const std::string shape = "NN/NN/NNNN NN:NN:NN.NNN";
    if (text.size() != shape.size()) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (shape[i] == 'N' ? !digit : text[i] != shape[i]) {
            return false;
        }
    }
    return true;
}

using Moment = std::tuple<int, int, int, int, int, int, int>;

Moment ToMoment(const Date& date)
{
    return {date.year, date.month, date.day, date.hour, date.minute, date.second, date.millisecond};
}

// "MM/DD/YYYY hh:mm:ss.mmm" back into comparable fields.
Moment ParseStamp(const std::string& stamp)
{
    int month = 0, day = 0, year = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
    std::sscanf(stamp.c_str(), "%d/%d/%d %d:%d:%d.%d", &month, &day, &year, &hour, &minute, &second,
                &millisecond);
    return {year, month, day, hour, minute, second, millisecond};
}

TEST_F(FileStoreTest, FirstMessageOfTheDayCreatesIndexZeroFileWithOneLine)
{
    auto store = MakeStore(m_dir.Path());
    // Nothing is opened before the first message.
    EXPECT_TRUE(ListNames(m_dir.Path()).empty());

    store->OnLog(EGroupValueInformation, "Clients/Conference/main", "main", 0, 1234, 42, "hello");
    store->Flush();

    EXPECT_EQ(ListNames(m_dir.Path()), std::vector<std::string>{TodaysFile(0)});
    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))),
              kStamp + "\t1234\t* Information *\tmain\thello\tClients/Conference/main\t42\n");
}

TEST_F(FileStoreTest, LinesWithTheRealClockMatchTheFormatByteForByte)
{
    CRefCountPtr<FileStore> store(new FileStore(kLogName, m_dir.Path(), kTenMiB));
    const auto self = static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId());
    const std::string id = std::to_string(static_cast<int32_t>(self));

    const Date before = LocalTime::Now();
    store->OnLog(EGroupValueWarning, "Common/Logger/Src/FileStore", "OnLog", 0, self, 7, "text");
    store->OnLog(EGroupValueSevere, "", "", 0, self, 8, "four columns");
    store->Flush();
    const Date after = LocalTime::Now();

    // The file carries the date of opening: the day of `before` or, across
    // midnight, of `after`.
    const std::vector<std::string> names = ListNames(m_dir.Path());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(names[0] == LogFileName(kLogName, before.year, before.month, before.day, 0) ||
                names[0] == LogFileName(kLogName, after.year, after.month, after.day, 0))
        << names[0];

    // The shape check itself tells zero padding apart.
    ASSERT_TRUE(IsStamp(kStamp));
    ASSERT_FALSE(IsStamp("3/09/2026 14:05:07.042"));
    ASSERT_FALSE(IsStamp("03/09/2026 14:05:07.42 "));

    const std::vector<std::string> lines = SplitLines(ReadFile(m_dir.File(names[0])));
    ASSERT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        ASSERT_GE(line.size(), 23u);
        const std::string stamp = line.substr(0, 23);
        EXPECT_TRUE(IsStamp(stamp)) << stamp;
        // Local time of writing, so between the two readings around it.
        EXPECT_LE(ToMoment(before), ParseStamp(stamp)) << stamp;
        EXPECT_LE(ParseStamp(stamp), ToMoment(after)) << stamp;
    }
    // Columns: stamp, thread id, group, function, message, file, line.
    EXPECT_EQ(lines[0].substr(23),
              "\t" + id + "\t* Warning     *\tOnLog\ttext\tCommon/Logger/Src/FileStore\t7");
    // Columns: stamp, thread id, group, message.
    EXPECT_EQ(lines[1].substr(23), "\t" + id + "\t* Severe      *\tfour columns");
}

TEST_F(FileStoreTest, ThreadIdIsPrintedAsSignedLow32Bits)
{
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueSevere, "f", "g", 0, 0xFFFFFFFEu, 1, "a");
    store->OnLog(EGroupValueSevere, "f", "g", 0, 0x80000000u, 2, "b");
    store->Flush();

    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))),
              kStamp + "\t-2\t* Severe      *\tg\ta\tf\t1\n" + kStamp +
                  "\t-2147483648\t* Severe      *\tg\tb\tf\t2\n");
}

TEST_F(FileStoreTest, StampIsTheTimeOfWritingNotTheTimeArgument)
{
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueConfig, "f", "g", 1234567890123, 1, 1, "first");
    store->Flush();
    m_clock.SetTime(23, 59, 58, 999);
    store->OnLog(EGroupValueConfig, "f", "g", 0, 1, 1, "second");
    store->Flush();

    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))),
              kStamp + "\t1\t* Config      *\tg\tfirst\tf\t1\n" +
                  "03/09/2026 23:59:58.999\t1\t* Config      *\tg\tsecond\tf\t1\n");
}

TEST_F(FileStoreTest, EmptyFunctionAndFileGiveFourColumns)
{
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueSpew, "", "", 0, 5, 99, "bare");
    // Only one of the two empty still gives all seven columns.
    store->OnLog(EGroupValueSpew, "file", "", 0, 5, 99, "no function");
    store->OnLog(EGroupValueSpew, "", "Func", 0, 5, 99, "no file");
    store->Flush();

    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))),
              kStamp + "\t5\t* Spew        *\tbare\n" + //
                  kStamp + "\t5\t* Spew        *\t\tno function\tfile\t99\n" + kStamp +
                  "\t5\t* Spew        *\tFunc\tno file\t\t99\n");
}

TEST_F(FileStoreTest, UnknownGroupPrintsAnEmptyGroupColumn)
{
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueConfig | EGroupValueInformation, "f", "g", 0, 3, 4, "mixed");
    store->OnLog(EGroupValueAll, "", "", 0, 3, 4, "all");
    store->Flush();

    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))),
              kStamp + "\t3\t\tg\tmixed\tf\t4\n" + kStamp + "\t3\t* All         *\tall\n");
}

TEST_F(FileStoreTest, TabsAndLineFeedsInAMessageAreWrittenAsTheyStand)
{
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueWarning, "f", "g", 0, 1, 2, "a\tb\nc");
    store->OnLog(EGroupValueWarning, "", "", 0, 1, 2, "\n");
    store->Flush();

    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))), kStamp +
                                                       "\t1\t* Warning     *\tg\ta\tb\nc\tf\t2\n" +
                                                       kStamp + "\t1\t* Warning     *\t\n\n");
}

TEST_F(FileStoreTest, PathGetsExactlyOneSeparator)
{
    EXPECT_EQ(MakeStore("")->GetDirectory(), "/");
    EXPECT_EQ(MakeStore("/var/x")->GetDirectory(), "/var/x/");
    EXPECT_EQ(MakeStore("/var/x/")->GetDirectory(), "/var/x/");
    EXPECT_EQ(MakeStore("/var/x\\")->GetDirectory(), "/var/x\\");
    EXPECT_EQ(MakeStore("/")->GetDirectory(), "/");
}

TEST_F(FileStoreTest, TrailingSlashGetsNoSecondSeparator)
{
    auto store = MakeStore(m_dir.Path() + "/");
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 1, "x");
    store->Flush();

    EXPECT_EQ(ListNames(m_dir.Path()), std::vector<std::string>{TodaysFile(0)});
    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(0))), kStamp + "\t1\t* Severe      *\tg\tx\tf\t1\n");
}

TEST_F(FileStoreTest, TrailingBackslashGetsNoSecondSeparator)
{
    // On this platform a backslash is part of a name, so the "folder"
    // "logs\" makes files whose names start with "logs\".
    auto store = MakeStore(m_dir.Path() + "/logs\\");
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 1, "x");
    store->Flush();

    EXPECT_EQ(ListNames(m_dir.Path()), std::vector<std::string>{"logs\\" + TodaysFile(0)});
    EXPECT_EQ(ReadFile(m_dir.File("logs\\" + TodaysFile(0))),
              kStamp + "\t1\t* Severe      *\tg\tx\tf\t1\n");
}

TEST_F(FileStoreTest, RestartReopensWithTheSameIndexUnderTodaysDate)
{
    m_dir.WriteFile(TodaysFile(2), "old\n");
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 1, "before");
    store->Flush();

    m_clock.SetDate(2026, 3, 10);
    store->Restart();
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 1, "after");
    store->Flush();

    const std::string tomorrow = LogFileName(kLogName, 2026, 3, 10, 2);
    EXPECT_EQ(ListNames(m_dir.Path()), (std::vector<std::string>{TodaysFile(2), tomorrow}));
    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(2))),
              "old\n" + kStamp + "\t1\t* Severe      *\tg\tbefore\tf\t1\n");
    EXPECT_EQ(ReadFile(m_dir.File(tomorrow)),
              "03/10/2026 14:05:07.042\t1\t* Severe      *\tg\tafter\tf\t1\n");
}

TEST_F(FileStoreTest, FailedStreamMovesOnToTheNextIndex)
{
    // The first file is a device that takes no data: its write fails, the
    // next message sees the failed stream as over the limit and moves on.
    ASSERT_EQ(symlink("/dev/full", m_dir.File(TodaysFile(0)).c_str()), 0);
    auto store = MakeStore(m_dir.Path());
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 1, "lost");
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 2, "kept");
    store->Flush();

    EXPECT_EQ(ListNames(m_dir.Path()), (std::vector<std::string>{TodaysFile(0), TodaysFile(1)}));
    EXPECT_EQ(ReadFile(m_dir.File(TodaysFile(1))),
              kStamp + "\t1\t* Severe      *\tg\tkept\tf\t2\n");
}

TEST_F(FileStoreTest, CreateFileStoreGivesOneReferenceAndReturnsZero)
{
    ILogStore* raw = nullptr;
    ASSERT_EQ(CreateFileStore(kLogName, m_dir.Path(), kTenMiB, &raw), 0);
    ASSERT_NE(raw, nullptr);
    CRefCountPtr<ILogStore> store(raw);
    EXPECT_EQ(store->GetRefCount(), 1);

    // It writes into the folder it was given, under the real date.
    store->OnLog(EGroupValueSevere, "f", "g", 0, 1, 1, "x");
    auto* fileStore = dynamic_cast<FileStore*>(store.Get());
    ASSERT_NE(fileStore, nullptr);
    fileStore->Flush();
    const std::vector<std::string> names = ListNames(m_dir.Path());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].rfind(kLogName + "_", 0), 0u) << names[0];
    EXPECT_EQ(names[0].substr(names[0].size() - 7), "_00.log");
}

TEST_F(FileStoreTest, CreateFileStoreWithoutAnOutPointerFails)
{
    EXPECT_EQ(CreateFileStore(kLogName, m_dir.Path(), kTenMiB, nullptr), ResultInvalidPointer);
    EXPECT_TRUE(ListNames(m_dir.Path()).empty());
}

} // namespace
