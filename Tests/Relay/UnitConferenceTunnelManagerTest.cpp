// The tunnel file on real files: the relay's three lines first, foreign
// lines after them in their old order, and nothing ever followed or
// written outside the path.

#include "Clients/Conference/ConferenceTunnelManager.h"
#include "Clients/Conference/DisabledConferenceTunnelManager.h"
#include "Clients/Conference/Linux/ConferenceTunnelManagerImpl.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

using namespace std::chrono_literals;
using namespace velorane::test;
using quorvan::ConferenceTunnelConfig;
using quorvan::EGroupValueWarning;
using quorvan::velorane::relay::ConferenceTunnelManager;
using quorvan::velorane::relay::DisabledConferenceTunnelManager;
using quorvan::velorane::relay::LinuxConferenceTunnelManager;
using quorvan::velorane::relay::RelayConfig;

namespace {

const std::string kRelayLines = "KyrIP=192.168.1.20:7005\nPassword=s3cret\nForceSoftDecoder=1\n";
const std::string kRemoveFailed = "Couldn't remove the file";

ConferenceTunnelConfig Config()
{
    ConferenceTunnelConfig config;
    config.kyrIp = "192.168.1.20";
    config.port = 7005;
    config.password = "s3cret";
    return config;
}

class ConferenceTunnelManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { UnitQtApplication(); }

    // Connect on the temporary path; returns the file afterwards.
    std::string ConnectWith(const ConferenceTunnelConfig& config = Config())
    {
        LinuxConferenceTunnelManager manager(config, nullptr, m_path);
        EXPECT_EQ(manager.Connect(), 0);
        return ReadFile(m_path);
    }

    TempDir m_dir;
    std::string m_path = m_dir.File("relaycam.ini");
    ScopedLogCapture m_capture;
};

mode_t ModeOf(const std::string& path)
{
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

} // namespace

TEST_F(ConferenceTunnelManagerTest, AbsentFileGetsExactlyTheThreeLines)
{
    EXPECT_EQ(ConnectWith(), kRelayLines);
    EXPECT_TRUE(m_capture->Messages().empty());
}

// A file that can't be made (its folder isn't there) is no error: nothing
// is written, nothing is logged, and the result is 0 all the same.
TEST_F(ConferenceTunnelManagerTest, FileThatCantBeMadeIsPassedOverInSilence)
{
    const std::string path = m_dir.File("no-such-folder/relaycam.ini");
    LinuxConferenceTunnelManager manager(Config(), nullptr, path);
    EXPECT_EQ(manager.Connect(), 0);
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    EXPECT_NE(::access(m_dir.File("no-such-folder").c_str(), F_OK), 0);
    EXPECT_TRUE(m_capture->Messages().empty());
}

TEST_F(ConferenceTunnelManagerTest, NewFileIsForItsUserAlone)
{
    ConnectWith();
    EXPECT_EQ(ModeOf(m_path) & 0777, 0600u);
    // Also when the file is made afresh after a merge.
    ASSERT_EQ(::chmod(m_path.c_str(), 0644), 0);
    ConnectWith();
    EXPECT_EQ(ModeOf(m_path) & 0777, 0600u);
}

TEST_F(ConferenceTunnelManagerTest, OldAddressAndSslLinesGoAndTheForeignLineFollows)
{
    m_dir.WriteFile("relaycam.ini", "KyrIP=10.0.0.1:9005\nSSL=1\nTunnel=on\n");
    EXPECT_EQ(ConnectWith(), kRelayLines + "Tunnel=on\n");
}

TEST_F(ConferenceTunnelManagerTest, ForeignLinesKeepTheirOrderAndEmptyLinesStay)
{
    m_dir.WriteFile("relaycam.ini",
                    "first=1\nPassword=old\n\nsecond=2\nForceSoftDecoder=0\nthird=3\n");
    EXPECT_EQ(ConnectWith(), kRelayLines + "first=1\n\nsecond=2\nthird=3\n");
}

TEST_F(ConferenceTunnelManagerTest, KeysAreFoundAnywhereInALine)
{
    m_dir.WriteFile("relaycam.ini", "MyPassword=1\nNoSSL=0\n# KyrIP=x\nkeep=ForceSoftDecoder\n");
    // "ForceSoftDecoder" without its "=" isn't the key.
    EXPECT_EQ(ConnectWith(), kRelayLines + "keep=ForceSoftDecoder\n");
}

TEST_F(ConferenceTunnelManagerTest, LastLineWithoutLineFeedIsWrittenBackWithOne)
{
    m_dir.WriteFile("relaycam.ini", "alpha=1\nomega=2");
    EXPECT_EQ(ConnectWith(), kRelayLines + "alpha=1\nomega=2\n");
}

TEST_F(ConferenceTunnelManagerTest, EmptyFileGivesTheThreeLines)
{
    m_dir.WriteFile("relaycam.ini", "");
    EXPECT_EQ(ConnectWith(), kRelayLines);
}

TEST_F(ConferenceTunnelManagerTest, LineFeedInThePasswordBreaksTheLineAsItStands)
{
    ConferenceTunnelConfig config = Config();
    config.password = "pass\nword";
    EXPECT_EQ(ConnectWith(config),
              "KyrIP=192.168.1.20:7005\nPassword=pass\nword\nForceSoftDecoder=1\n");
    // At the next merge the stray half is a foreign line.
    EXPECT_EQ(ConnectWith(config),
              "KyrIP=192.168.1.20:7005\nPassword=pass\nword\nForceSoftDecoder=1\nword\n");
}

TEST_F(ConferenceTunnelManagerTest, ConnectingAgainGivesTheSameFile)
{
    m_dir.WriteFile("relaycam.ini", "foreign=yes\n");
    const std::string first = ConnectWith();
    EXPECT_EQ(ConnectWith(), first);
    EXPECT_EQ(first, kRelayLines + "foreign=yes\n");
}

TEST_F(ConferenceTunnelManagerTest, DisconnectLeavesTheFilePasswordIncluded)
{
    LinuxConferenceTunnelManager manager(Config(), nullptr, m_path);
    manager.Connect();
    EXPECT_EQ(manager.Disconnect(), 0);
    EXPECT_EQ(ReadFile(m_path), kRelayLines);
}

TEST_F(ConferenceTunnelManagerTest, UsbipFlagsDontChangeTheFile)
{
    // --insecure-usbip and --no-usbip only set these two fields.
    const std::string plain = ConnectWith();
    ::unlink(m_path.c_str());
    ConferenceTunnelConfig config = Config();
    config.secure = false;
    EXPECT_EQ(ConnectWith(config), plain);
    ::unlink(m_path.c_str());
    config.enabled = false;
    std::unique_ptr<ConferenceTunnelManager> made(
        ConferenceTunnelManager::CreateInstance(config, nullptr));
    EXPECT_NE(dynamic_cast<LinuxConferenceTunnelManager*>(made.get()), nullptr);
}

TEST_F(ConferenceTunnelManagerTest, CreateInstanceWritesTheMachineWidePath)
{
    std::unique_ptr<ConferenceTunnelManager> made(
        ConferenceTunnelManager::CreateInstance(Config(), nullptr));
    auto* linux = dynamic_cast<LinuxConferenceTunnelManager*>(made.get());
    ASSERT_NE(linux, nullptr);
    EXPECT_EQ(linux->Path(), "/var/tmp/relaycam.ini");
}

TEST_F(ConferenceTunnelManagerTest, PortIsTheRelayPortPlusFiveInDecimal)
{
    RelayConfig relay;
    relay.kyrIp = "192.168.1.20";
    relay.kyrPort = 7000;
    relay.relayPassword = "s3cret";
    relay.CompleteTunnelConfig();
    EXPECT_EQ(ConnectWith(relay.tunnelConfig), kRelayLines);
}

TEST_F(ConferenceTunnelManagerTest, PlaceMarkersInTheAddressStayAsTheyAre)
{
    // Qt's place markers in the text: the port goes only into the line's
    // own place, never into the address.
    ConferenceTunnelConfig config = Config();
    config.kyrIp = "10.0.0.%0x%1";
    config.password = "p%1w%2";
    EXPECT_EQ(ConnectWith(config),
              "KyrIP=10.0.0.%0x%1:7005\nPassword=p%1w%2\nForceSoftDecoder=1\n");
}

TEST_F(ConferenceTunnelManagerTest, DisabledManagerWritesNothing)
{
    DisabledConferenceTunnelManager manager(Config(), nullptr);
    EXPECT_EQ(manager.Connect(), 0);
    EXPECT_EQ(manager.Disconnect(), 0);
    EXPECT_FALSE(::access(m_path.c_str(), F_OK) == 0);
}

TEST_F(ConferenceTunnelManagerTest, SymbolicLinkAtThePathIsLeftAloneWithTheWarning)
{
    const std::string target = m_dir.WriteFile("elsewhere.txt", "not yours\n");
    ASSERT_EQ(::symlink(target.c_str(), m_path.c_str()), 0);
    ConnectWith();
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, kRemoveFailed));
    EXPECT_TRUE(S_ISLNK(ModeOf(m_path)));
    EXPECT_EQ(ReadFile(target), "not yours\n");
}

TEST_F(ConferenceTunnelManagerTest, DanglingLinkIsNotFollowedToMakeAFile)
{
    const std::string target = m_dir.File("would-be-made");
    ASSERT_EQ(::symlink(target.c_str(), m_path.c_str()), 0);
    ConnectWith();
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, kRemoveFailed));
    EXPECT_NE(::access(target.c_str(), F_OK), 0);
}

TEST_F(ConferenceTunnelManagerTest, DirectoryAtThePathIsLeftAloneWithTheWarning)
{
    ASSERT_EQ(::mkdir(m_path.c_str(), 0700), 0);
    ConnectWith();
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, kRemoveFailed));
    EXPECT_TRUE(S_ISDIR(ModeOf(m_path)));
}

TEST_F(ConferenceTunnelManagerTest, UnreadableFileIsReplacedByTheThreeLines)
{
    m_dir.WriteFile("relaycam.ini", "foreign=1\n");
    ASSERT_EQ(::chmod(m_path.c_str(), 0), 0);
    if (::geteuid() != 0) {
        EXPECT_EQ(ConnectWith(), kRelayLines);
        return;
    }
    // Root reads any file: the manager runs as nobody instead, in a folder
    // nobody may write, on a file nobody may read. The probe is copied there
    // so that nobody can run it wherever the checkout lives.
    ASSERT_EQ(::chmod(m_dir.Path().c_str(), 0777), 0);
    const std::string probeCopy = m_dir.File("tunnel-file-probe");
    std::filesystem::copy_file(BinaryPath("tunnel-file-probe"), probeCopy);
    ChildProcess probe;
    ChildProcess::Options options;
    options.argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                    "--clear-groups",   probeCopy,       m_path};
    options.outputFile = m_dir.File("probe.out");
    int code = -1;
    ASSERT_TRUE(probe.Start(options));
    ASSERT_TRUE(probe.WaitForExit(20s, &code));
    EXPECT_EQ(code, 0) << probe.Output();
    EXPECT_EQ(probe.Output(), "result\t0\n");
    EXPECT_EQ(ReadFile(m_path), "KyrIP=10.1.2.3:7005\nPassword=probe\nForceSoftDecoder=1\n");
}

// A read-only directory: root removes files from one anyway, so the folder
// is made read-only by a bind mount in a private mount namespace, which no
// one can write through.
TEST_F(ConferenceTunnelManagerTest, ReadOnlyFolderKeepsTheOldFileAndWarns)
{
    ChildProcess check;
    ChildProcess::Options checkOptions;
    checkOptions.argv = {"/usr/bin/unshare", "-m", "/bin/true"};
    checkOptions.outputFile = m_dir.File("unshare-check.out");
    int code = -1;
    if (!check.Start(checkOptions) || !check.WaitForExit(10s, &code) || code != 0) {
        GTEST_SKIP() << "no private mount namespace here: " << check.Output();
    }

    const std::string folder = m_dir.Path() + "/ro";
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const std::string file = m_dir.WriteFile("ro/relaycam.ini", "KyrIP=old:1\nforeign=1\n");
    ChildProcess probe;
    ChildProcess::Options options;
    options.argv = {"/usr/bin/unshare",
                    "-m",
                    "/bin/sh",
                    "-c",
                    "mount --make-rprivate / && mount --bind \"$0\" \"$0\" && "
                    "mount -o remount,bind,ro \"$0\" \"$0\" && exec \"$1\" \"$0/relaycam.ini\"",
                    folder,
                    BinaryPath("tunnel-file-probe")};
    options.outputFile = m_dir.File("probe.out");
    ASSERT_TRUE(probe.Start(options));
    ASSERT_TRUE(probe.WaitForExit(20s, &code));
    EXPECT_EQ(code, 0) << probe.Output();
    EXPECT_EQ(probe.Output(), std::to_string(static_cast<int>(EGroupValueWarning)) + "\t" +
                                  kRemoveFailed + "\nresult\t0\n");
    EXPECT_EQ(ReadFile(file), "KyrIP=old:1\nforeign=1\n");
}
