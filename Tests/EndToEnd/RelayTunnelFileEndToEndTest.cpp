// The tunnel file written by the relay executable once its link to kyr-sim
// is up. The scene runs the relay in a private mount namespace with a
// folder of its own bound over /var/tmp, so the machine's file is left alone.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

bool WaitForFile(const std::string& path, const std::string& contents,
                 std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (ReadFile(path) == contents) {
            return true;
        }
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

} // namespace

TEST(RelayTunnelFileEndToEndTest, LinkUpWritesTheThreeLinesKeepsForeignOnesAndLeavesTheFile)
{
    EndToEndScene scene;
    if (scene.VarTmp().empty()) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    const std::string file =
        scene.Dir().WriteFile("var-tmp/relaycam.ini", "Tunnel=on\nKyrIP=10.9.9.9:1\nSSL=1\nlast=1");

    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "tunnel-pass"}));
    ASSERT_TRUE(scene.StartClient({"wait:3000", "kill"},
                                  {"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                   std::to_string(base), "--relayPassword", "tunnel-pass"}));
    const std::string expected = "KyrIP=127.0.0.1:" + std::to_string(base + 5) +
                                 "\nPassword=tunnel-pass\nForceSoftDecoder=1\nTunnel=on\nlast=1\n";
    EXPECT_TRUE(WaitForFile(file, expected, 20s)) << ReadFile(file);
    struct stat status;
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    int code = -1;
    ASSERT_TRUE(scene.Client().WaitForExit(40s, &code));
    EXPECT_EQ(code, 0) << scene.Client().Output();
    // The quit leaves the file for the tunnel component.
    EXPECT_EQ(ReadFile(file), expected);
    const std::string log = scene.LogText();
    EXPECT_NE(log.find("----------------END----------------"), std::string::npos);
}
