#include "Common/Platform/Src/DirectoryUtil.h"
#include "Common/Platform/Src/FileUtil.h"
#include "Tests/Support/ScopedEnv.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <optional>
#include <sys/stat.h>

namespace quorvan {
namespace {

using velorane::test::ScopedEnv;
using velorane::test::TempDir;

mode_t ModeOf(const std::string& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

bool IsDirectory(const std::string& path)
{
    struct stat status
    {
    };
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

TEST(ClockDirectoryUtil, DirectoryExistsTellsAFolderFromAMissingOne)
{
    TempDir dir;
    EXPECT_TRUE(DirectoryUtil::DirectoryExists(dir.Path()));
    EXPECT_FALSE(DirectoryUtil::DirectoryExists(dir.File("absent")));
}

TEST(ClockDirectoryUtil, CreateDirectoryTreeMakesEveryLevelWithMode0700)
{
    TempDir dir;
    const std::string tree = dir.File("a/b/c");
    EXPECT_TRUE(DirectoryUtil::CreateDirectoryTree(tree));
    for (const char* level : {"a", "a/b", "a/b/c"}) {
        EXPECT_TRUE(IsDirectory(dir.File(level))) << level;
        EXPECT_EQ(ModeOf(dir.File(level)), 0700u) << level;
    }
}

TEST(ClockDirectoryUtil, CreateDirectoryTreeAcceptsATrailingSlash)
{
    TempDir dir;
    EXPECT_TRUE(DirectoryUtil::CreateDirectoryTree(dir.File("x/y/")));
    EXPECT_TRUE(IsDirectory(dir.File("x/y")));
}

TEST(ClockDirectoryUtil, CreateDirectoryTreeOfAnExistingPathReturnsTrueAndChangesNothing)
{
    TempDir dir;
    const std::string existing = dir.File("existing");
    ASSERT_EQ(mkdir(existing.c_str(), 0700), 0);
    ASSERT_EQ(chmod(existing.c_str(), 0755), 0);
    const std::string file = dir.WriteFile("existing/keep.txt", "kept");
    struct stat before
    {
    };
    ASSERT_EQ(stat(existing.c_str(), &before), 0);

    EXPECT_TRUE(DirectoryUtil::CreateDirectoryTree(existing));

    struct stat after
    {
    };
    ASSERT_EQ(stat(existing.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_TRUE(FileUtil::FileExists(file));
}

TEST(ClockDirectoryUtil, CreateDirectoryTreeBelowAFileFails)
{
    TempDir dir;
    dir.WriteFile("plain", "x");
    EXPECT_FALSE(DirectoryUtil::CreateDirectoryTree(dir.File("plain/sub")));
    EXPECT_FALSE(IsDirectory(dir.File("plain")));
}

TEST(ClockDirectoryUtil, CreateDirectoryTreeOfAnEmptyPathFails)
{
    EXPECT_FALSE(DirectoryUtil::CreateDirectoryTree(""));
}

TEST(ClockDirectoryUtil, DeleteRemovesAWholeTree)
{
    TempDir dir;
    dir.WriteFile("tree/one/file.txt", "x");
    dir.WriteFile("tree/two/three/file.txt", "y");
    EXPECT_TRUE(DirectoryUtil::Delete(dir.File("tree")));
    EXPECT_FALSE(DirectoryUtil::DirectoryExists(dir.File("tree")));
    EXPECT_TRUE(DirectoryUtil::DirectoryExists(dir.Path()));
}

TEST(ClockDirectoryUtil, DeleteOfAMissingFolderFails)
{
    TempDir dir;
    EXPECT_FALSE(DirectoryUtil::Delete(dir.File("absent")));
}

TEST(ClockDirectoryUtil, DataDirectoryWithEmptyPartsIsTheXdgDataHomeItself)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", dir.Path());
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "", "", false, true), dir.Path());
}

TEST(ClockDirectoryUtil, DataDirectoryWithEmptyPartsAndNoXdgDataHomeIsHomeLocalShare)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", std::nullopt);
    ScopedEnv home("HOME", dir.Path());
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "", "", false, true),
              dir.Path() + "/.local/share");
}

TEST(ClockDirectoryUtil, DataDirectoryTreatsAnEmptyXdgDataHomeAsUnset)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", std::string());
    ScopedEnv home("HOME", dir.Path());
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "", "", false, false),
              dir.Path() + "/.local/share");
}

TEST(ClockDirectoryUtil, DataDirectoryIgnoresARelativeXdgDataHome)
{
    TempDir dir;
    ScopedEnv home("HOME", dir.Path());
    for (const char* relative : {"data", "./data", "../share", "~/data"}) {
        ScopedEnv xdg("XDG_DATA_HOME", std::string(relative));
        EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "Velorane", "Client/Logs", false, false),
                  dir.Path() + "/.local/share/Velorane/Client/Logs")
            << relative;
    }
}

TEST(ClockDirectoryUtil, DataDirectoryHasNoTrailingSeparator)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", dir.Path() + "/");
    EXPECT_EQ(DirectoryUtil::DataDirectory("", "", "", false, false), dir.Path());
    EXPECT_EQ(DirectoryUtil::DataDirectory("", "App", "", false, false), dir.Path() + "/App");
}

TEST(ClockDirectoryUtil, DataDirectoryAppendsApplicationAndSubfolder)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", dir.Path());
    const std::string logs =
        DirectoryUtil::DataDirectory("Quorvan", "Velorane", "Client/Logs", false, true);
    EXPECT_EQ(logs, dir.Path() + "/Velorane/Client/Logs");
    EXPECT_FALSE(DirectoryUtil::DirectoryExists(logs));
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "", "Logs", false, true),
              dir.Path() + "/Logs");
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "Velorane", "", false, true),
              dir.Path() + "/Velorane");
}

TEST(ClockDirectoryUtil, DataDirectoryIgnoresOrganisationAndAllUsers)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", dir.Path());
    const std::string expected = dir.Path() + "/Velorane/Logs";
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "Velorane", "Logs", false, true), expected);
    EXPECT_EQ(DirectoryUtil::DataDirectory("Other", "Velorane", "Logs", false, false), expected);
    EXPECT_EQ(DirectoryUtil::DataDirectory("", "Velorane", "Logs", false, false), expected);
}

TEST(ClockDirectoryUtil, DataDirectoryCreatesTheTreeWhenAsked)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", dir.File("data"));
    const std::string logs =
        DirectoryUtil::DataDirectory("Quorvan", "Velorane", "Client/Logs", true, true);
    EXPECT_EQ(logs, dir.Path() + "/data/Velorane/Client/Logs");
    EXPECT_TRUE(IsDirectory(logs));
    EXPECT_EQ(ModeOf(dir.File("data")), 0700u);
    EXPECT_EQ(ModeOf(logs), 0700u);
}

TEST(ClockDirectoryUtil, GetKnownFolderReturnsFalseAndLeavesTheStringAlone)
{
    std::string path = "unchanged";
    EXPECT_FALSE(DirectoryUtil::GetKnownFolder(KnownFolder::Documents, path));
    EXPECT_FALSE(DirectoryUtil::GetKnownFolder(KnownFolder::ApplicationData, path));
    EXPECT_EQ(path, "unchanged");
}

TEST(ClockDirectoryUtil, CheckForAltUsernameChangesNoFolder)
{
    TempDir dir;
    ScopedEnv xdg("XDG_DATA_HOME", dir.Path());
    const std::string before = DirectoryUtil::DataDirectory("Quorvan", "Velorane", "", false, true);
    DirectoryUtil::CheckForAltUsername("ALLUSERS");
    EXPECT_EQ(DirectoryUtil::DataDirectory("Quorvan", "Velorane", "", false, true), before);
}

} // namespace
} // namespace quorvan
