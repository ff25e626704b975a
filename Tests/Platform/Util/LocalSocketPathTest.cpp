#include "Common/Platform/Linux/Src/LocalSocketPath.h"
#include "Tests/Support/ScopedEnv.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

using quorvan::platform::LocalSocketDirectory;
using quorvan::platform::LocalSocketPath;
using velorane::test::ScopedEnv;

namespace {

TEST(LocalSocketPath, RuntimeFolderWinsOverTemporaryFolder)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::string("/run/user/4242"));
    ScopedEnv temporary("TMPDIR", std::string("/var/tmp/other"));
    EXPECT_EQ("/run/user/4242", LocalSocketDirectory());
    EXPECT_EQ("/run/user/4242/VELORANE_RELAY", LocalSocketPath("VELORANE_RELAY"));
}

TEST(LocalSocketPath, UnsetRuntimeFolderFallsBackToTemporaryFolder)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
    ScopedEnv temporary("TMPDIR", std::string("/var/tmp/other"));
    EXPECT_EQ("/var/tmp/other/CONFERENCE_SERVER", LocalSocketPath("CONFERENCE_SERVER"));
}

TEST(LocalSocketPath, EmptyRuntimeFolderCountsAsUnset)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::string());
    ScopedEnv temporary("TMPDIR", std::string("/var/tmp/other"));
    EXPECT_EQ("/var/tmp/other/VIRTUAL_MONITOR_SERVER", LocalSocketPath("VIRTUAL_MONITOR_SERVER"));
}

TEST(LocalSocketPath, RelativeRuntimeFolderIsPassedOver)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::string("run/user"));
    ScopedEnv temporary("TMPDIR", std::string("/var/tmp/other"));
    EXPECT_EQ("/var/tmp/other", LocalSocketDirectory());
}

TEST(LocalSocketPath, NeitherVariableGivesSlashTmp)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
    ScopedEnv temporary("TMPDIR", std::string());
    EXPECT_EQ("/tmp/VELORANE_RELAY", LocalSocketPath("VELORANE_RELAY"));
    ScopedEnv unsetTemporary("TMPDIR", std::nullopt);
    EXPECT_EQ("/tmp/VELORANE_RELAY", LocalSocketPath("VELORANE_RELAY"));
}

TEST(LocalSocketPath, TrailingSlashesAreDropped)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::string("/run/user/4242//"));
    EXPECT_EQ("/run/user/4242/VELORANE_RELAY", LocalSocketPath("VELORANE_RELAY"));
    ScopedEnv root("XDG_RUNTIME_DIR", std::string("/"));
    EXPECT_EQ("/VELORANE_RELAY", LocalSocketPath("VELORANE_RELAY"));
}

TEST(LocalSocketPath, AbsoluteNameIsKept)
{
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::string("/run/user/4242"));
    EXPECT_EQ("/somewhere/else/sock", LocalSocketPath("/somewhere/else/sock"));
}

} // namespace
