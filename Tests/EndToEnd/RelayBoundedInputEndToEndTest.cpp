// What a peer can make the relay hold: a Kyr that announces a 2 GiB
// response and then streams garbage, and a local process that writes
// without end into "CONFERENCE_SERVER". The relay's resident memory stays
// within a few MB of its figure before, and it ends or goes on as it says.

#include "Tests/EndToEnd/EndToEndHarness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

const std::string kInformation = "* Information *";
const std::string kWarning = "* Warning     *";
const std::string kSevere = "* Severe      *";
const std::string kQuitMessage = "message 000000080000fe47";
// What a flood may add to the relay's resident memory.
constexpr long kMarginKb = 16 * 1024;

// The process's resident memory in kB, or -1 once it is gone.
long ResidentKb(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// The highest figure over a while, sampled every 20 ms; stops early when
// the process ends.
long PeakResidentKb(pid_t pid, std::chrono::milliseconds span)
{
    long peak = -1;
    const auto deadline = std::chrono::steady_clock::now() + span;
    while (std::chrono::steady_clock::now() < deadline) {
        const long now = ResidentKb(pid);
        if (now < 0) {
            break;
        }
        peak = std::max(peak, now);
        std::this_thread::sleep_for(20ms);
    }
    return peak;
}

void ExpectEndLineLast(const std::string& log)
{
    const auto lines = ParseLogFile(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().message, "----------------END----------------");
    EXPECT_EQ(lines.back().function, "main");
}

// Writes into a local socket as fast as it takes bytes, for the time
// given or until the other side drops the link; returns the bytes written.
long long FloodLocalSocket(const std::string& path, std::chrono::milliseconds span, bool* dropped)
{
    *dropped = false;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    // A header announcing 2 GiB, then bytes without end.
    std::string chunk(64 * 1024, '\x5a');
    const char header[] = {0x7f,
                           static_cast<char>(0xff),
                           static_cast<char>(0xff),
                           static_cast<char>(0xff),
                           static_cast<char>(0xa1),
                           0x3d,
                           0};
    chunk.replace(0, sizeof(header), header, sizeof(header));
    long long total = 0;
    const auto deadline = std::chrono::steady_clock::now() + span;
    while (std::chrono::steady_clock::now() < deadline) {
        const ssize_t n = ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        if (n > 0) {
            total += n;
            chunk[0] = 0x5a; // the header only once
            std::fill(chunk.begin(), chunk.begin() + sizeof(header), '\x5a');
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            std::this_thread::sleep_for(1ms);
        } else {
            *dropped = true;
            break;
        }
    }
    ::close(fd);
    return total;
}

} // namespace

TEST(RelayBoundedInputEndToEndTest, KyrAnnouncingTwoGigabytesThenGarbageEndsTheLinkLikeAClose)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret", "--huge-then-garbage", "10"}));
    ASSERT_TRUE(scene.StartClient({"wait:4000", "start-scrape", "wait:30000"}, {}));
    ASSERT_TRUE(scene.StartRelay({"-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                  std::to_string(base), "--relayPassword", "secret"}));
    ASSERT_TRUE(WaitFor(
        [&] {
            return CountLogLines(scene.LogText(), kInformation,
                                 "IPC communication with VeloraneClient established") == 1;
        },
        20s));
    // Settled before the stream starts at 4 s.
    std::this_thread::sleep_for(1500ms);
    const long before = PeakResidentKb(scene.Relay().Pid(), 500ms);
    ASSERT_GT(before, 0);

    const long during = PeakResidentKb(scene.Relay().Pid(), 15s);
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code)) << scene.Relay().Output();
    EXPECT_EQ(code, 0);
    EXPECT_LE(during, before + kMarginKb) << "before " << before << " kB";

    const std::string log = scene.LogText();
    EXPECT_EQ(CountLogLines(log, kSevere,
                            "Response of 2147483648 bytes announced, more than 4194304: closing "
                            "the link"),
              1u)
        << log;
    EXPECT_EQ(CountLogLines(log, kInformation, "Internally told to quit"), 1u) << log;
    ExpectEndLineLast(log);
    ASSERT_TRUE(
        WaitFor([&] { return CountRecords(scene.ClientRecords(), kQuitMessage) == 1; }, 10s));
    const auto kyr = scene.KyrRecords();
    EXPECT_EQ(CountRecords(kyr, "flood start"), 1u);
}

TEST(RelayBoundedInputEndToEndTest, LocalFloodIntoTheConferenceServerIsDroppedAndTheRelayGoesOn)
{
    EndToEndScene scene;
    const int base = EndToEndScene::FreeBasePort();
    ASSERT_TRUE(scene.StartKyr(base, {"--password", "secret"}));
    ASSERT_TRUE(scene.StartStandaloneRelay({"-t", "-n", "--kyrIp", "127.0.0.1", "--relayPort",
                                            std::to_string(base), "--relayPassword", "secret"}));
    const std::string record = scene.Dir().File("vdisplay.rec");
    ASSERT_TRUE(WaitFor(
        [&] { return ReadFile(record).find("command 2 CreateConference") != std::string::npos; },
        20s))
        << ReadFile(record) << scene.Relay().Output();
    std::this_thread::sleep_for(1000ms);
    const pid_t relay = scene.Relay().Pid();
    const long before = PeakResidentKb(relay, 500ms);
    ASSERT_GT(before, 0);

    long peak = before;
    bool dropped = false;
    long long written = 0;
    std::thread sampler([&] { peak = PeakResidentKb(relay, 6s); });
    written = FloodLocalSocket(scene.Dir().File("tmp/CONFERENCE_SERVER"), 5s, &dropped);
    sampler.join();
    ASSERT_GT(written, 0);
    EXPECT_TRUE(dropped) << written << " bytes written";
    EXPECT_LE(peak, before + kMarginKb) << "before " << before << " kB";

    std::string log = scene.LogText();
    const auto lines = ParseLogFile(log);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const LogFileLine& line) {
                                return line.message.rfind("Dropping the link: ", 0) == 0;
                            }),
              1)
        << log;

    // The relay goes on, and ends in order.
    ASSERT_EQ(::kill(relay, SIGTERM), 0);
    int code = -1;
    ASSERT_TRUE(scene.Relay().WaitForExit(30s, &code));
    EXPECT_EQ(code, 0) << scene.Relay().Output();
    log = scene.LogText();
    ExpectEndLineLast(log);
    EXPECT_EQ(CountLogLines(log, kInformation, "Externally told to quit."), 1u) << log;
}
