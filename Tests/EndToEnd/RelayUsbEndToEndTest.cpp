// The relay in its default mode, over USB, against kyr-sim as a Kyr on a
// USB device that umockdev emulates: the relay runs unchanged under the
// preload library, with UMOCKDEV_DIR pointing at kyr-sim's testbed.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";
const std::string kWarning = "* Warning     *";
const std::string kStartVideo = "request 9945febb01cd00000800000000050000d0020000";
const std::string kRequestFrame = "request 9945febbf9d0000000000000";

// The preload library, behind AddressSanitizer's runtime when this test
// (and so the relay beside it) is built with it: the runtime must come
// first.
std::string Preload()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const size_t at = line.find('/');
        if (at != std::string::npos && line.find("/libasan.so") != std::string::npos) {
            return line.substr(at) + ":libumockdev-preload.so.0";
        }
    }
    return "libumockdev-preload.so.0";
}

bool UmockdevThere()
{
    return std::ifstream("/usr/lib/x86_64-linux-gnu/libumockdev-preload.so.0").good();
}

class RelayUsbEndToEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!UmockdevThere()) {
            GTEST_SKIP() << "umockdev's preload library isn't installed";
        }
    }

    // Starts kyr-sim as the Kyr on USB and points the scene's processes at
    // its testbed.
    bool StartUsbKyr(const std::vector<std::string>& extra)
    {
        ChildProcess::Options options;
        options.argv = {BinaryPath("kyr-sim"),         "--usb",        "--record",
                        m_scene.Dir().File("kyr.rec"), "--time-limit", "60"};
        options.argv.insert(options.argv.end(), extra.begin(), extra.end());
        options.environment = m_scene.Environment();
        options.outputFile = m_scene.Dir().File("kyr.out");
        if (!m_kyr.Start(options) || !m_kyr.WaitForOutput("usb testbed ", 10s)) {
            return false;
        }
        const std::string output = m_kyr.Output();
        const size_t at = output.find("usb testbed ");
        const std::string directory = output.substr(at + 12, output.find('\n', at) - (at + 12));
        m_scene.SetEnvironment("UMOCKDEV_DIR", directory);
        m_scene.SetEnvironment("LD_PRELOAD", Preload());
        return true;
    }

    std::vector<std::string> KyrRecords() { return ReadLines(m_scene.Dir().File("kyr.rec")); }

    bool RunClient(const std::vector<std::string>& sends)
    {
        if (!m_scene.StartClient(sends, {"-m", "--kyrIp", "127.0.0.1", "--relayPort", "7000"})) {
            return false;
        }
        int code = -1;
        return m_scene.Client().WaitForExit(60s, &code) && code == 0;
    }

    EndToEndScene m_scene;
    ChildProcess m_kyr;
};

} // namespace

TEST_F(RelayUsbEndToEndTest, DefaultModePullsFramesOverUsbWithoutAPassword)
{
    ASSERT_TRUE(StartUsbKyr({}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:3000", "kill"})) << m_scene.Client().Output();

    const auto kyr = KyrRecords();
    ASSERT_FALSE(kyr.empty());
    EXPECT_EQ(kyr[0], "plugged");
    // No password over USB: the first request is a command.
    EXPECT_EQ(CountRecords(kyr, "password"), 0u);
    EXPECT_EQ(CountRecords(kyr, kStartVideo), 1u);
    EXPECT_GE(CountRecords(kyr, kRequestFrame), 15u);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, kInformation, "Connecting to vid=[0x7A31] pid=[0x0301]"), 1u)
        << log;
    EXPECT_EQ(CountLogLines(log, kInformation, "Device connected!"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "New relay frame source: Kyr"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "VideoDecoder: software decoder initialized"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Disconnecting from vid=[0x7A31] pid=[0x0301]"), 1u);
    const auto lines = ParseLogFile(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, "----------------END----------------");
}

TEST_F(RelayUsbEndToEndTest, KyrAbsentAtStartCountsAsConnectedAndCommandsFailWithoutEndingTheRelay)
{
    ASSERT_TRUE(StartUsbKyr({"--usb-plug-after", "2000"}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:3500", "connect-usb", "wait:500", "kill"}))
        << m_scene.Client().Output();
    const std::string log = m_scene.LogText();
    // Counted as connected: the link's start went on as if a Kyr were there.
    EXPECT_EQ(CountLogLines(log, kInformation, "Start Audio"), 1u) << log;
    EXPECT_EQ(CountLogLines(log, kWarning, "Send failed. command=[0x0000CD01] bytesReceived=[-1]"),
              1u)
        << log;
    // The link doesn't take up a device that arrives later, and a
    // ConnectUsb from the client finds the link up already.
    EXPECT_EQ(CountLogLines(log, kInformation, "Received ConnectUsb"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Device connected!"), 0u);
    EXPECT_EQ(CountRecords(KyrRecords(), "request "), 0u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Externally told to quit."), 1u);
}

TEST_F(RelayUsbEndToEndTest, KyrPulledMidStreamFailsItsCommandsAndTheRelayStaysUp)
{
    ASSERT_TRUE(StartUsbKyr({"--usb-unplug-at", "2500"}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:4500", "kill"})) << m_scene.Client().Output();
    const auto kyr = KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "unplugged"), 1u);
    EXPECT_GE(CountRecords(kyr, kRequestFrame), 5u);
    const std::string log = m_scene.LogText();
    // Every exchange after the pull ends in LIBUSB_ERROR_NO_DEVICE, six
    // times a command, and the relay goes on.
    EXPECT_GE(CountLogLines(log, "* Severe      *",
                            "FAILED: libusb_bulk_transfer: [-4] (LIBUSB_ERROR_NO_DEVICE)"),
              5u)
        << log;
    const auto lines = ParseLogFile(log);
    size_t failed = 0;
    for (const auto& line : lines) {
        failed += line.message == "Send failed. command=[0x0000D0F9] bytesReceived=[-4]";
    }
    EXPECT_GE(failed, 1u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, "Externally told to quit."), 1u);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, "----------------END----------------");
}
