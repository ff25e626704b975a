// How the file store reads its file names back and orders them.

#include "Common/Logger/Src/FileFinder.h"
#include "Common/Logger/Src/FileStore.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace quorvan;

namespace {

FileEntry Entry(const std::string& name)
{
    FileEntry entry;
    entry.name = name;
    entry.directory = "/logs/";
    return entry;
}

bool Before(const std::string& a, const std::string& b)
{
    return FileStore::FileCompareName()(Entry(a), Entry(b));
}

TEST(FileStoreNameTest, ParsesPrefixDateAndIndex)
{
    const FileStore::NameParts parts =
        FileStore::ParseFileName("VeloraneConference_2026_03_09_02.log");
    EXPECT_EQ(parts.prefix, "VeloraneConference");
    EXPECT_EQ(parts.date, "2026_03_09");
    EXPECT_EQ(parts.index, 2);
}

TEST(FileStoreNameTest, NameMayHoldUnderscores)
{
    const FileStore::NameParts parts = FileStore::ParseFileName("Velorane_Conf_2026_03_09_12.log");
    EXPECT_EQ(parts.prefix, "Velorane_Conf");
    EXPECT_EQ(parts.date, "2026_03_09");
    EXPECT_EQ(parts.index, 12);
}

TEST(FileStoreNameTest, FewerThanFourUnderscoresGiveEmptyParts)
{
    for (const char* name : {"VeloraneConference_old.log", "a_b_c.log", "plain.log", "", "___"}) {
        const FileStore::NameParts parts = FileStore::ParseFileName(name);
        EXPECT_EQ(parts.prefix, "") << name;
        EXPECT_EQ(parts.date, "") << name;
        EXPECT_EQ(parts.index, 0) << name;
    }
}

TEST(FileStoreNameTest, ExactlyFourUnderscoresGiveAnEmptyPrefix)
{
    const FileStore::NameParts parts = FileStore::ParseFileName("_2026_03_09_05.log");
    EXPECT_EQ(parts.prefix, "");
    EXPECT_EQ(parts.date, "2026_03_09");
    EXPECT_EQ(parts.index, 5);

    const FileStore::NameParts bare = FileStore::ParseFileName("____");
    EXPECT_EQ(bare.prefix, "");
    EXPECT_EQ(bare.date, "__");
    EXPECT_EQ(bare.index, 0);
}

TEST(FileStoreNameTest, IndexIsReadAsADecimalFromItsStart)
{
    EXPECT_EQ(FileStore::ParseFileName("x_2026_03_09_7abc.log").index, 7);
    EXPECT_EQ(FileStore::ParseFileName("x_2026_03_09_.log").index, 0);
    EXPECT_EQ(FileStore::ParseFileName("x_2026_03_09_0012.log").index, 12);
    EXPECT_EQ(FileStore::ParseFileName("x_2026_03_09_99999999999999999999.log").index, INT32_MAX);
}

TEST(FileStoreNameTest, CompareOrdersByPrefixThenDateThenIndex)
{
    EXPECT_TRUE(Before("A_2026_12_31_99.log", "B_2020_01_01_00.log"));
    EXPECT_FALSE(Before("B_2020_01_01_00.log", "A_2026_12_31_99.log"));
    EXPECT_TRUE(Before("A_2026_03_08_99.log", "A_2026_03_09_00.log"));
    EXPECT_TRUE(Before("A_2026_03_09_01.log", "A_2026_03_09_02.log"));
    // The index compares as a number, the date as bytes.
    EXPECT_TRUE(Before("A_2026_03_09_9.log", "A_2026_03_09_10.log"));
    EXPECT_TRUE(Before("A_2026_10_01_00.log", "A_2026_9_01_00.log"));
    // A name that does not parse comes first.
    EXPECT_TRUE(Before("A_old.log", "A_2026_03_09_00.log"));
    // Equal parts are equal, whatever the rest of the name.
    EXPECT_FALSE(Before("A_2026_03_09_01.log", "A_2026_03_09_1.log"));
    EXPECT_FALSE(Before("A_2026_03_09_1.log", "A_2026_03_09_01.log"));
}

TEST(FileStoreNameTest, FinderKeepsFilesSortedAndKeepsEqualKeys)
{
    FileFinder<FileStore::FileCompareName> finder;
    for (const char* name : {"A_2026_03_09_10.log", "A_2026_03_09_01.log", "A_old.log",
                             "A_2026_03_08_05.log", "A_2026_03_09_1.log"}) {
        finder.AddFile(Entry(name));
    }

    std::vector<std::string> names;
    for (const FileEntry& entry : finder.GetFiles()) {
        names.push_back(entry.name);
        EXPECT_EQ(entry.directory, "/logs/");
    }
    // Equal keys keep the order they came in.
    EXPECT_EQ(names,
              (std::vector<std::string>{"A_old.log", "A_2026_03_08_05.log", "A_2026_03_09_01.log",
                                        "A_2026_03_09_1.log", "A_2026_03_09_10.log"}));
}

} // namespace
