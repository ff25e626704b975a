#include "Common/Platform/Src/FileUtil.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

namespace quorvan {
namespace {

using velorane::test::ReadFile;
using velorane::test::TempDir;

FileEntry EntryOf(const TempDir& dir, const std::string& name)
{
    FileEntry entry;
    entry.name = name;
    entry.directory = dir.Path() + "/";
    return entry;
}

TEST(ClockFileUtil, FileExistsTellsAFileFromAMissingOne)
{
    TempDir dir;
    const std::string file = dir.WriteFile("present.txt", "x");
    EXPECT_TRUE(FileUtil::FileExists(file));
    EXPECT_FALSE(FileUtil::FileExists(dir.File("absent.txt")));
}

TEST(ClockFileUtil, DeleteRemovesAFile)
{
    TempDir dir;
    const std::string file = dir.WriteFile("gone.txt", "x");
    EXPECT_TRUE(FileUtil::Delete(file));
    EXPECT_FALSE(FileUtil::FileExists(file));
}

TEST(ClockFileUtil, DeleteOfAMissingFileFails)
{
    TempDir dir;
    EXPECT_FALSE(FileUtil::Delete(dir.File("absent.txt")));
}

TEST(ClockFileUtil, DeleteOfAnEntryJoinsDirectoryAndName)
{
    TempDir dir;
    const std::string file = dir.WriteFile("entry.log", "x");
    EXPECT_TRUE(FileUtil::Delete(EntryOf(dir, "entry.log")));
    EXPECT_FALSE(FileUtil::FileExists(file));
}

TEST(ClockFileUtil, CopyCopiesTheContentsAndKeepsTheSource)
{
    TempDir dir;
    const std::string from = dir.WriteFile("from.txt", "payload\n");
    const std::string to = dir.File("to.txt");
    EXPECT_TRUE(FileUtil::Copy(from, to));
    EXPECT_EQ(ReadFile(to), "payload\n");
    EXPECT_EQ(ReadFile(from), "payload\n");
}

TEST(ClockFileUtil, CopyOfEntriesJoinsDirectoryAndName)
{
    TempDir dir;
    dir.WriteFile("a.log", "alpha");
    EXPECT_TRUE(FileUtil::Copy(EntryOf(dir, "a.log"), EntryOf(dir, "b.log")));
    EXPECT_EQ(ReadFile(dir.File("b.log")), "alpha");
}

TEST(ClockFileUtil, CopyOfAPathWithABlankFails)
{
    TempDir dir;
    const std::string from = dir.WriteFile("with blank.txt", "x");
    const std::string to = dir.File("copy.txt");
    EXPECT_FALSE(FileUtil::Copy(from, to));
    EXPECT_FALSE(FileUtil::FileExists(to));
}

TEST(ClockFileUtil, CopyOfAMissingFileFails)
{
    TempDir dir;
    const std::string to = dir.File("copy.txt");
    EXPECT_FALSE(FileUtil::Copy(dir.File("absent.txt"), to));
    EXPECT_FALSE(FileUtil::FileExists(to));
}

TEST(ClockFileUtil, MoveRenames)
{
    TempDir dir;
    const std::string from = dir.WriteFile("old.txt", "moved");
    const std::string to = dir.File("new.txt");
    EXPECT_TRUE(FileUtil::Move(from, to));
    EXPECT_FALSE(FileUtil::FileExists(from));
    EXPECT_EQ(ReadFile(to), "moved");
}

TEST(ClockFileUtil, MoveReplacesAnExistingTarget)
{
    TempDir dir;
    const std::string from = dir.WriteFile("old.txt", "new contents");
    const std::string to = dir.WriteFile("target.txt", "old contents");
    EXPECT_TRUE(FileUtil::Move(from, to));
    EXPECT_EQ(ReadFile(to), "new contents");
}

TEST(ClockFileUtil, MoveOfEntriesJoinsDirectoryAndName)
{
    TempDir dir;
    dir.WriteFile("a.log", "alpha");
    EXPECT_TRUE(FileUtil::Move(EntryOf(dir, "a.log"), EntryOf(dir, "c.log")));
    EXPECT_FALSE(FileUtil::FileExists(dir.File("a.log")));
    EXPECT_EQ(ReadFile(dir.File("c.log")), "alpha");
}

TEST(ClockFileUtil, MoveOfAMissingFileFails)
{
    TempDir dir;
    EXPECT_FALSE(FileUtil::Move(dir.File("absent.txt"), dir.File("to.txt")));
    EXPECT_FALSE(FileUtil::FileExists(dir.File("to.txt")));
}

} // namespace
} // namespace quorvan
