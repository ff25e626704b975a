// The relay in its default mode, over USB, against kyr-sim as a Kyr on a
// USB device that umockdev emulates: the relay runs unchanged under the
// preload library, with UMOCKDEV_DIR pointing at kyr-sim's testbed.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";
const std::string kWarning = "* Warning     *";
const std::string kSevere = "* Severe      *";
const std::string kStartVideo = "request 9945febb01cd00000800000000050000d0020000";
const std::string kRequestFrame = "request 9945febbf9d0000000000000";
const std::string kPlugged = "Device plugged: vid=[0x7A31] pid=[0x0301]";
const std::string kUnplugged = "Device unplugged: vid=[0x7A31] pid=[0x0301]";
const std::string kNoDevice = "FAILED: libusb_bulk_transfer: [-4] (LIBUSB_ERROR_NO_DEVICE)";
const std::string kEnd = "----------------END----------------";

class RelayUsbEndToEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!EndToEndScene::UsbEmulationAvailable()) {
            GTEST_SKIP() << "umockdev's preload library isn't installed";
        }
    }

    // The relay's arguments in its default mode. Over USB the base port
    // only places the audio driver's UDP ports (+7, +8): a free one keeps
    // relays of tests running side by side apart.
    std::vector<std::string> UsbRelay() const
    {
        return {"-m", "--kyrIp", "127.0.0.1", "--relayPort", std::to_string(m_base)};
    }

    // Runs client-sim with its script and the relay in its default mode;
    // true when both ended with 0. The seconds it took go to *took.
    bool RunClient(const std::vector<std::string>& sends, std::chrono::seconds* took = nullptr)
    {
        const auto start = std::chrono::steady_clock::now();
        if (!m_scene.StartClient(sends, UsbRelay())) {
            return false;
        }
        int code = -1;
        const bool ended = m_scene.Client().WaitForExit(60s, &code);
        if (took) {
            *took = std::chrono::duration_cast<std::chrono::seconds>(
                std::chrono::steady_clock::now() - start);
        }
        return ended && code == 0;
    }

    // The relay ended by the client's kill, all the way down.
    void ExpectCleanEnd(const std::string& log)
    {
        EXPECT_EQ(CountLogLines(log, kInformation, "Externally told to quit."), 1u) << log;
        const auto lines = ParseLogFile(log);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back().message, kEnd);
        // The emulated device knew every ioctl libusb issued.
        EXPECT_EQ(m_scene.UsbKyr().Output().find("unknown ioctl"), std::string::npos)
            << m_scene.UsbKyr().Output();
    }

    EndToEndScene m_scene;
    int m_base = EndToEndScene::FreeBasePort();
};

// The records after the last one that equals line.
std::vector<std::string> After(const std::vector<std::string>& records, const std::string& line)
{
    const auto last = std::find(records.rbegin(), records.rend(), line);
    return last == records.rend() ? std::vector<std::string>()
                                  : std::vector<std::string>(last.base(), records.end());
}

} // namespace

TEST_F(RelayUsbEndToEndTest, DefaultModePullsFramesOverUsbWithoutAPassword)
{
    ASSERT_TRUE(m_scene.StartUsbKyr());
    // A ConnectUsb from the client mid-stream finds the link up: nothing
    // connects again, and the frames go on.
    ASSERT_TRUE(RunClient({"start-scrape", "wait:1500", "connect-usb", "wait:1500", "kill"}))
        << m_scene.Client().Output();

    const auto kyr = m_scene.KyrRecords();
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
    EXPECT_EQ(CountLogLines(log, kInformation, "Received ConnectUsb"), 1u);
    // Audio sharing started with the link (a driver that hears of this relay
    // on port 9002 may start it once more).
    EXPECT_GE(CountLogLines(log, kInformation, "Start Audio"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "New relay frame source: Kyr"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "VideoDecoder: software decoder initialized"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Disconnecting from vid=[0x7A31] pid=[0x0301]"), 1u);
    // Hot-plug reports changes only: a Kyr there before the watch is not
    // reported as plugged.
    EXPECT_EQ(CountLogLines(log, kInformation, kPlugged), 0u);
    // The frames went on after the ConnectUsb.
    const auto lines = ParseLogFile(log);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const LogFileLine& line) {
                                return line.message.rfind("Send failed.", 0) == 0;
                            }),
              0);
    ExpectCleanEnd(log);
}

TEST_F(RelayUsbEndToEndTest, KyrAbsentAtStartCountsAsConnectedAndCommandsFailWithoutEndingTheRelay)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({"--usb-plug-after", "2000"}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:3500", "connect-usb", "wait:500", "kill"}))
        << m_scene.Client().Output();
    const std::string log = m_scene.LogText();
    // Counted as connected: the link's start went on as if a Kyr were there.
    EXPECT_GE(CountLogLines(log, kInformation, "Start Audio"), 1u) << log;
    EXPECT_EQ(CountLogLines(log, kWarning, "Send failed. command=[0x0000CD01] bytesReceived=[-1]"),
              1u)
        << log;
    EXPECT_GE(CountLogLines(log, kInformation, "invalid device or handle!"), 5u);
    // The Kyr's arrival is logged, and that is all: the link doesn't take
    // it up, and a ConnectUsb from the client finds the link up already.
    EXPECT_EQ(CountLogLines(log, kInformation, kPlugged), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Received ConnectUsb"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Connecting to vid=[0x7A31] pid=[0x0301]"), 0u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Device connected!"), 0u);
    const auto kyr = m_scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "plugged"), 1u);
    EXPECT_EQ(CountRecords(kyr, "request "), 0u);
    ExpectCleanEnd(log);
}

TEST_F(RelayUsbEndToEndTest, KyrPulledMidStreamAndPluggedBackStaysGoneForTheLink)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({"--usb-unplug-at", "2500", "--usb-replug-at", "3500"}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:5000", "kill"})) << m_scene.Client().Output();
    const auto kyr = m_scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "unplugged"), 1u);
    EXPECT_EQ(CountRecords(kyr, "plugged"), 2u);
    EXPECT_GE(CountRecords(kyr, kRequestFrame), 5u);
    // The link keeps its handle on the device that went: the one plugged
    // in again gets nothing.
    EXPECT_EQ(CountRecords(After(kyr, "plugged"), "request "), 0u);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, kInformation, kUnplugged), 1u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, kPlugged), 1u) << log;
    // Every exchange after the pull ends in LIBUSB_ERROR_NO_DEVICE, six
    // times a command, and the relay goes on. The rate limit lets six lines
    // of a call site through: the OUT transfer's, and one more when the
    // pull came between a command's OUT and IN transfers.
    const size_t noDevice = CountLogLines(log, kSevere, kNoDevice);
    EXPECT_GE(noDevice, 6u) << log;
    EXPECT_LE(noDevice, 7u) << log;
    EXPECT_GE(CountLogLines(log, kWarning, "Send failed. command=[0x0000D0F9] bytesReceived=[-4]"),
              1u)
        << log;
    EXPECT_EQ(CountLogLines(log, kInformation, "Device connected!"), 1u);
    EXPECT_EQ(CountLogLines(log, kInformation, "Disconnecting from vid=[0x7A31] pid=[0x0301]"), 1u);
    ExpectCleanEnd(log);
}

// The device goes right after taking a request, before libusb has reaped
// that OUT transfer: the exchange fails with "no device" and the relay
// still quits at once when told to. (An emulated device that left this URB
// unreaped once hung the relay's transport thread for good.)
TEST_F(RelayUsbEndToEndTest, KyrPulledBeforeItsOutIsReapedFailsTheCommandAndTheRelayQuits)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({"--usb-unplug-after-out", "8"}));
    std::chrono::seconds took{};
    ASSERT_TRUE(RunClient({"start-scrape", "wait:2500", "kill"}, &took))
        << m_scene.Client().Output();
    EXPECT_LT(took, 20s);
    const auto kyr = m_scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, kRequestFrame), 9u);
    EXPECT_EQ(CountRecords(kyr, "unplugged"), 1u);
    const std::string log = m_scene.LogText();
    // The IN transfer's failure, then six of the OUT transfers' (the rate
    // limit holds back the rest).
    EXPECT_EQ(CountLogLines(log, kSevere, kNoDevice), 7u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, kUnplugged), 1u);
    EXPECT_GE(CountLogLines(log, kWarning, "Send failed. command=[0x0000D0F9] bytesReceived=[-4]"),
              1u)
        << log;
    ExpectCleanEnd(log);
}

// The device goes while the relay waits for its answer: that IN transfer
// ends with "no device" at once, not after its 5000 ms, and the relay
// quits when told to.
TEST_F(RelayUsbEndToEndTest, KyrPulledWhileTheRelayWaitsForAnAnswerFailsAtOnceAndTheRelayQuits)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({"--usb-unplug-during-in", "8"}));
    std::chrono::seconds took{};
    ASSERT_TRUE(RunClient({"start-scrape", "wait:2500", "kill"}, &took))
        << m_scene.Client().Output();
    EXPECT_LT(took, 20s);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(
        CountLogLines(log, kSevere, "FAILED: libusb_bulk_transfer: [-7] (LIBUSB_ERROR_TIMEOUT)"),
        0u)
        << log;
    EXPECT_EQ(CountLogLines(log, kSevere, kNoDevice), 7u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, kUnplugged), 1u);
    EXPECT_GE(CountLogLines(log, kWarning, "Send failed. command=[0x0000D0F9] bytesReceived=[-4]"),
              1u);
    EXPECT_EQ(CountRecords(m_scene.KyrRecords(), kRequestFrame), 9u);
    ExpectCleanEnd(log);
}

// The Kyr plugged in and open, no stream: the relay sleeps. libusb's event
// loop on the hot-plug thread polls the device node, which must not look
// ready while there is nothing to reap.
TEST_F(RelayUsbEndToEndTest, RelayIdleWithTheKyrOpenTakesAlmostNoCpu)
{
    ASSERT_TRUE(m_scene.StartUsbKyr());
    ASSERT_TRUE(m_scene.StartClient({"wait:6000", "kill"}, {}));
    ASSERT_TRUE(m_scene.StartRelay(UsbRelay()));
    ASSERT_TRUE(WaitFor(
        [this] {
            const std::string log = m_scene.LogText();
            return CountLogLines(log, kInformation, "Device connected!") == 1 &&
                   CountLogLines(log, kInformation,
                                 "IPC communication with VeloraneClient established") == 1;
        },
        20s))
        << m_scene.LogText();
    std::this_thread::sleep_for(1s);
    const pid_t relay = m_scene.Relay().Pid();
    const double before = CpuSecondsOf(relay);
    std::this_thread::sleep_for(3s);
    const double used = (CpuSecondsOf(relay) - before) * 1000.0;
    // Generous, for a loaded sanitizer build (the relay takes about 0 ms
    // here); with a device node that always polls ready it took 570 ms.
    EXPECT_LT(used, 150.0) << "ms of CPU in 3 s of idling";
    int code = -1;
    ASSERT_TRUE(m_scene.Relay().WaitForExit(30s, &code)) << m_scene.Relay().Output();
    EXPECT_EQ(code, 0);
    ExpectCleanEnd(m_scene.LogText());
}

// kyr-sim's device faults, one after the other in one stream, each with the
// outcome the failure table gives it; the relay stays up through all of
// them and the pictures go on.
TEST_F(RelayUsbEndToEndTest, DeviceFaultsEachShowAsTheFailureTableSays)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({// six zero-length answers: one whole command fails
                                     "--usb-empty-at", "4", "--usb-empty-count", "6",
                                     // an answer 1 s late, inside the 5 s the relay waits
                                     "--usb-late-at", "12", "--usb-late-ms", "1000",
                                     // a short OUT transfer of 5 bytes
                                     "--usb-short-out-at", "14",
                                     // one answer of 7 bytes
                                     "--garbage-after", "12", "--garbage-bytes", "7",
                                     // one attempt that times out
                                     "--usb-timeout-at", "20",
                                     // one answer a byte over the 1,048,588 one IN takes
                                     "--oversized-at", "30", "--oversized-bytes", "1048561"}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:9500", "kill"})) << m_scene.Client().Output();
    const auto kyr = m_scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "empty"), 6u);
    EXPECT_EQ(CountRecords(kyr, "late 1000"), 1u);
    EXPECT_EQ(CountRecords(kyr, "short-out 9945febbf9"), 1u);
    EXPECT_EQ(CountRecords(kyr, "unanswered"), 1u);
    EXPECT_GE(CountRecords(kyr, kRequestFrame), 40u);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, kWarning, "Send failed. command=[0x0000D0F9] bytesReceived=[0]"),
              1u)
        << log;
    EXPECT_EQ(CountLogLines(log, kSevere, "Response received was too small! bytesReceived=[5]"),
              1u);
    EXPECT_EQ(CountLogLines(log, kSevere, "Response received was too small! bytesReceived=[7]"),
              1u);
    EXPECT_EQ(
        CountLogLines(log, kSevere, "FAILED: libusb_bulk_transfer: [-7] (LIBUSB_ERROR_TIMEOUT)"),
        1u);
    EXPECT_EQ(
        CountLogLines(log, kSevere, "FAILED: libusb_bulk_transfer: [-8] (LIBUSB_ERROR_OVERFLOW)"),
        1u);
    // Each of those was retried or passed over: no other command failed.
    const auto lines = ParseLogFile(log);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const LogFileLine& line) {
                                return line.message.rfind("Send failed.", 0) == 0;
                            }),
              1);
    EXPECT_EQ(CountLogLines(log, kInformation, "Device connected!"), 1u);
    ExpectCleanEnd(log);
}

// The hot-plug watch runs with -t too: the relay talks TLS to one kyr-sim
// and logs a Kyr plugged in and pulled out over USB, and nothing else
// happens with it.
TEST_F(RelayUsbEndToEndTest, HotPlugIsLoggedAlsoWhenTheLinkIsTls)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({"--usb-plug-after", "1500", "--usb-unplug-at", "3000"},
                                    "usb-kyr.rec"));
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(m_scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:4000", "kill"},
                                    {"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                     std::to_string(base), "--relayPassword", "secret"}));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(60s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, kInformation, kPlugged), 1u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, kUnplugged), 1u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, "Device connected!"), 0u);
    EXPECT_GE(CountRecords(m_scene.KyrRecords(), kRequestFrame), 15u);
    const auto usb = ReadLines(m_scene.Dir().File("usb-kyr.rec"));
    EXPECT_EQ(usb, (std::vector<std::string>{"plugged", "unplugged"}));
    ExpectCleanEnd(log);
}

// Orders on kyr-sim's control pipe, given while the relay streams: a stall
// of about a second, which the relay's exchange in flight outlasts (its IN
// transfer times out after 5 s and the next attempt is answered, so the
// frames go on), then a burst of four garbage answers, which are logged and
// passed over, the first too short for a response header.
TEST_F(RelayUsbEndToEndTest, StallAndGarbageOrderedOnTheControlPipeArePassedOverAndFramesGoOn)
{
    const std::string control = m_scene.Dir().File("kyr.ctl");
    ASSERT_TRUE(m_scene.StartUsbKyr({"--control", control}));
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:10000", "kill"}, UsbRelay()));
    ASSERT_TRUE(
        WaitFor([this] { return CountRecords(m_scene.KyrRecords(), kRequestFrame) >= 5; }, 20s));
    ASSERT_TRUE(WriteOrder(control, "stall"));
    std::this_thread::sleep_for(1s);
    ASSERT_TRUE(WriteOrder(control, "resume"));
    ASSERT_TRUE(WaitFor(
        [this] {
            return CountRecords(After(m_scene.KyrRecords(), "control resume"), kRequestFrame) >= 5;
        },
        15s))
        << m_scene.LogText();
    ASSERT_TRUE(WriteOrder(control, "garbage 4"));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(60s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();

    const auto kyr = m_scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "control stall"), 1u);
    EXPECT_EQ(CountRecords(kyr, "control resume"), 1u);
    EXPECT_EQ(CountRecords(kyr, "control garbage 4"), 1u);
    const auto garbage = WithPrefix(kyr, "garbage ");
    ASSERT_EQ(garbage.size(), 4u);
    // Short, long, short, long.
    for (size_t i = 0; i < garbage.size(); ++i) {
        const long long bytes = std::stoll(garbage[i].substr(8));
        EXPECT_EQ(bytes < 12, i % 2 == 0) << garbage[i];
        EXPECT_GE(bytes, 1);
        EXPECT_LE(bytes, 65536);
    }
    // The frames went on after the burst.
    EXPECT_GE(CountRecords(After(kyr, "control garbage 4"), kRequestFrame), 10u);
    const std::string log = m_scene.LogText();
    EXPECT_GE(
        CountLogLines(log, kSevere, "FAILED: libusb_bulk_transfer: [-7] (LIBUSB_ERROR_TIMEOUT)"),
        1u)
        << log;
    const auto lines = ParseLogFile(log);
    EXPECT_GE(std::count_if(lines.begin(), lines.end(),
                            [](const LogFileLine& line) {
                                return line.message.rfind("Response received was too small!", 0) ==
                                       0;
                            }),
              2);
    // A stall shorter than six attempts fails no command.
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const LogFileLine& line) {
                                return line.message.rfind("Send failed.", 0) == 0;
                            }),
              0);
    ExpectCleanEnd(log);
}

// The Kyr pulled and plugged in again by orders on the control pipe: as
// with the times given on the command line, the link stays on the device
// that went.
TEST_F(RelayUsbEndToEndTest, UnplugAndPlugOrderedOnTheControlPipeLeaveTheLinkDead)
{
    const std::string control = m_scene.Dir().File("kyr.ctl");
    ASSERT_TRUE(m_scene.StartUsbKyr({"--control", control}));
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:5000", "kill"}, UsbRelay()));
    ASSERT_TRUE(
        WaitFor([this] { return CountRecords(m_scene.KyrRecords(), kRequestFrame) >= 5; }, 20s));
    ASSERT_TRUE(WriteOrder(control, "unplug"));
    std::this_thread::sleep_for(1s);
    ASSERT_TRUE(WriteOrder(control, "plug"));
    int code = -1;
    ASSERT_TRUE(m_scene.Client().WaitForExit(60s, &code));
    EXPECT_EQ(code, 0) << m_scene.Client().Output();

    const auto kyr = m_scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "control unplug"), 1u);
    EXPECT_EQ(CountRecords(kyr, "unplugged"), 1u);
    EXPECT_EQ(CountRecords(kyr, "control plug"), 1u);
    EXPECT_EQ(CountRecords(kyr, "plugged"), 2u);
    EXPECT_EQ(CountRecords(After(kyr, "control plug"), "request "), 0u);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, kInformation, kUnplugged), 1u) << log;
    EXPECT_EQ(CountLogLines(log, kInformation, kPlugged), 1u) << log;
    EXPECT_GE(CountLogLines(log, kSevere, kNoDevice), 6u) << log;
    ExpectCleanEnd(log);
}

// Over USB the Kyr speaks only when asked: with --mic-unsolicited its first
// microphone answer takes the place of the next answer the relay can spare,
// and that starts the relay's microphone polling.
TEST_F(RelayUsbEndToEndTest, UnsolicitedMicrophoneAnswerOverUsbStartsThePolling)
{
    ASSERT_TRUE(m_scene.StartUsbKyr({"--mic-unsolicited", "500"}));
    ASSERT_TRUE(RunClient({"start-scrape", "wait:2500", "kill"})) << m_scene.Client().Output();
    const auto kyr = m_scene.KyrRecords();
    ASSERT_EQ(CountRecords(kyr, "mic-unsolicited "), 1u);
    // RequestAudio, service audio, command 0x62EB, no payload.
    EXPECT_GE(CountRecords(After(kyr, WithPrefix(kyr, "mic-unsolicited ")[0]),
                           "request 1403baeaeb62000000000000"),
              20u);
    const std::string log = m_scene.LogText();
    EXPECT_EQ(CountLogLines(log, kInformation, "Start m_usb_timer"), 1u) << log;
    ExpectCleanEnd(log);
}
