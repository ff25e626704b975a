#include "Common/Platform/Src/Directory.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace quorvan {
namespace {

using velorane::test::TempDir;

class RecordingSink : public IFileEntry
{
public:
    void AddFile(const FileEntry& entry) override { m_entries.push_back(entry); }

    // "directory" + "name" of each entry, sorted, for comparisons that don't
    // depend on the order the system lists in.
    std::vector<std::string> Paths() const
    {
        std::vector<std::string> paths;
        for (const FileEntry& entry : m_entries) {
            paths.push_back(entry.directory + entry.name);
        }
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    const std::vector<FileEntry>& Entries() const { return m_entries; }

private:
    std::vector<FileEntry> m_entries;
};

// top.txt, sub/inner.txt, sub/deep/deepest.txt
class ClockDirectory : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir.WriteFile("top.txt", "t");
        m_dir.WriteFile("sub/inner.txt", "i");
        m_dir.WriteFile("sub/deep/deepest.txt", "d");
    }

    std::string Root() const { return m_dir.Path() + "/"; }

    TempDir m_dir;
};

TEST_F(ClockDirectory, ReportsTheFieldsOfAFile)
{
    const std::string path = m_dir.WriteFile("fields.log", "12345");
    const timespec times[2] = {{1700000000, 0}, {1700000000, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

    RecordingSink sink;
    Directory directory(&sink, "", "fields");
    directory.ListDirectories(Root(), "", false);

    ASSERT_EQ(sink.Entries().size(), 1u);
    const FileEntry& entry = sink.Entries()[0];
    EXPECT_EQ(entry.name, "fields.log");
    EXPECT_EQ(entry.directory, Root());
    EXPECT_EQ(entry.size, 5u);
    EXPECT_EQ(entry.modified, 1700000000123);
}

TEST_F(ClockDirectory, WithoutRecursionListsOnlyTheFilesOfTheFolder)
{
    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(Root(), "", false);
    EXPECT_EQ(sink.Paths(), std::vector<std::string>{Root() + "top.txt"});
}

TEST_F(ClockDirectory, RecursionGoesIntoEverySubfolder)
{
    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(Root(), "", true);
    const std::vector<std::string> expected = {Root() + "sub/deep/deepest.txt",
                                               Root() + "sub/inner.txt", Root() + "top.txt"};
    EXPECT_EQ(sink.Paths(), expected);
    for (const FileEntry& entry : sink.Entries()) {
        EXPECT_EQ(entry.directory.back(), '/');
        EXPECT_EQ(entry.name.find('/'), std::string::npos);
    }
}

TEST_F(ClockDirectory, SubfolderIsListedBelowTheFolder)
{
    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(Root(), "sub/", false);
    ASSERT_EQ(sink.Entries().size(), 1u);
    EXPECT_EQ(sink.Entries()[0].directory, Root() + "sub/");
    EXPECT_EQ(sink.Entries()[0].name, "inner.txt");
}

TEST_F(ClockDirectory, FolderFilterIsTestedAgainstTheInnermostSubfolderOnly)
{
    // Going down, the subfolder becomes the entry's name alone, so "sub"
    // matches sub/ but no longer its child deep/.
    RecordingSink sink;
    Directory directory(&sink, "sub", "");
    directory.ListDirectories(Root(), "", true);
    EXPECT_EQ(sink.Paths(), std::vector<std::string>{Root() + "sub/inner.txt"});
}

TEST_F(ClockDirectory, FolderFilterMatchesAPartOfTheSubfolder)
{
    RecordingSink sink;
    Directory directory(&sink, "ee", "");
    directory.ListDirectories(Root() + "sub/", "deep/", false);
    EXPECT_EQ(sink.Paths(), std::vector<std::string>{Root() + "sub/deep/deepest.txt"});
}

TEST_F(ClockDirectory, FileFilterAlsoFindsItInTheMiddleOfAName)
{
    m_dir.WriteFile("a.log", "");
    m_dir.WriteFile("b.log.1", "");
    m_dir.WriteFile("c.log.txt", "");
    m_dir.WriteFile("d.txt", "");
    m_dir.WriteFile("elog", "");

    RecordingSink sink;
    Directory directory(&sink, "", ".log");
    directory.ListDirectories(Root(), "", false);
    const std::vector<std::string> expected = {Root() + "a.log", Root() + "b.log.1",
                                               Root() + "c.log.txt"};
    EXPECT_EQ(sink.Paths(), expected);
}

TEST_F(ClockDirectory, OnlyRegularFilesAreReported)
{
    ASSERT_EQ(symlink((Root() + "sub").c_str(), m_dir.File("link-to-sub").c_str()), 0);
    ASSERT_EQ(symlink((Root() + "top.txt").c_str(), m_dir.File("link-to-top").c_str()), 0);
    ASSERT_EQ(mkfifo(m_dir.File("pipe").c_str(), 0600), 0);

    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(Root(), "", true);
    // Links are neither followed nor reported, so sub/ is walked once.
    const std::vector<std::string> expected = {Root() + "sub/deep/deepest.txt",
                                               Root() + "sub/inner.txt", Root() + "top.txt"};
    EXPECT_EQ(sink.Paths(), expected);
}

TEST_F(ClockDirectory, AMissingFolderReportsNothing)
{
    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(Root() + "absent/", "", true);
    directory.ListDirectories(Root(), "absent/", true);
    EXPECT_TRUE(sink.Entries().empty());
}

TEST_F(ClockDirectory, AFolderWithoutTrailingSeparatorFindsNoFile)
{
    // Folder and names are joined as they stand: "<dir>top.txt" and
    // "<dir>sub/" don't exist.
    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(m_dir.Path(), "", true);
    EXPECT_TRUE(sink.Entries().empty());
}

TEST_F(ClockDirectory, WithoutASinkTheWalkStillVisitsAndReturns)
{
    // Another sink on a second walk proves the tree is intact and readable.
    Directory silent(nullptr, "", "");
    silent.ListDirectories(Root(), "", true);

    RecordingSink sink;
    Directory directory(&sink, "", "");
    directory.ListDirectories(Root(), "", true);
    EXPECT_EQ(sink.Entries().size(), 3u);
}

} // namespace
} // namespace quorvan
