#include "Tests/EndToEnd/RelayDisplayTest.h"

#include "Tests/EndToEnd/ScreenCheck.h"

#include <QImage>

#include <csignal>
#include <cstdio>
#include <dirent.h>
#include <filesystem>
#include <regex>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace velorane::test {

using namespace std::chrono_literals;

namespace {

constexpr const char* kRelayLog = "VeloraneConference";
constexpr const char* kProgramLog = "VeloraneVirtualDisplay";
constexpr int kOutputWidth = 1920;
constexpr int kHeight = 1080;

std::string Placed(const QRect& rect)
{
    return "DisplayManager done: x=[" + std::to_string(rect.x()) + "] y=[" +
           std::to_string(rect.y()) + "] w=[" + std::to_string(rect.width()) + "] h=[" +
           std::to_string(rect.height()) + "]";
}

} // namespace

void RelayDisplayTest::StartDisplay(int screenWidth, bool growFromOutput)
{
    ASSERT_TRUE(
        m_display.Start(PrivateXServer::WithRoomBesideOutput(m_scene.Dir().Path(), screenWidth)))
        << "no private X server";
    m_tools = std::make_unique<XDisplayTools>(m_display.Name());
    if (growFromOutput) {
        ASSERT_TRUE(m_tools->SetScreenSize(kOutputWidth, kHeight));
    }
    m_scene.ShowOnDisplay(m_display.Name());
    m_base = EndToEndScene::FreeBasePort();
}

std::vector<std::string> RelayDisplayTest::RelayArguments(bool withKyr) const
{
    std::vector<std::string> arguments{"--width", "1280",   "--height",
                                       "720",     "--name", kRelayWindow};
    if (withKyr) {
        arguments.insert(arguments.end(), {"-t", "--kyrIp", "127.0.0.1", "--relayPort",
                                           std::to_string(m_base), "--relayPassword", "secret"});
    }
    return arguments;
}

bool RelayDisplayTest::StartKyr()
{
    return m_scene.StartKyr(m_base, {"--password", "secret"});
}

std::string RelayDisplayTest::LogOf(const std::string& store) const
{
    std::string text;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_scene.LogFolder(), error)) {
        if (entry.path().filename().string().rfind(store + "_", 0) == 0) {
            text += ReadFile(entry.path().string());
        }
    }
    return text;
}

size_t RelayDisplayTest::CountLog(const std::string& group, const std::string& message) const
{
    return CountLogLines(LogOf(kRelayLog), group, message);
}

bool RelayDisplayTest::WaitForLog(const std::string& group, const std::string& message,
                                  std::chrono::milliseconds timeout) const
{
    return WaitFor([&] { return CountLog(group, message) > 0; }, timeout);
}

bool RelayDisplayTest::WaitForProgramLog(const std::string& group, const std::string& message,
                                         std::chrono::milliseconds timeout) const
{
    return WaitFor([&] { return CountLogLines(LogOf(kProgramLog), group, message) > 0; }, timeout);
}

size_t RelayDisplayTest::CountLogFrom(const std::string& function) const
{
    size_t count = 0;
    for (const LogFileLine& line : ParseLogFile(LogOf(kRelayLog))) {
        count += line.function == function ? 1 : 0;
    }
    return count;
}

size_t RelayDisplayTest::CountReconfigurations(const std::string& flags) const
{
    static const std::regex kChanged(
        R"(Display configuration changed, calibrate displays 0x[0-9a-f]+ (.*))");
    size_t count = 0;
    for (const LogFileLine& line : ParseLogFile(LogOf(kRelayLog))) {
        std::smatch match;
        if (line.group == kInformation && std::regex_match(line.message, match, kChanged) &&
            match[1] == flags) {
            ++count;
        }
    }
    return count;
}

bool RelayDisplayTest::WaitForTheWatch() const
{
    return WaitFor(
        [&] {
            return LogOf(kRelayLog).find("\tOriginal Main Display id=[0x") != std::string::npos;
        },
        30s);
}

int RelayDisplayTest::StockedDisplays() const
{
    // The first count the watch logs is the one it stocks at its start.
    for (const LogFileLine& line : ParseLogFile(LogOf(kRelayLog))) {
        int count = -1;
        if (line.function == "DetectDisplays" &&
            std::sscanf(line.message.c_str(), "DetectDisplays\xEF\xBC\x9Atotal Displays=[%d]",
                        &count) == 1) {
            return count;
        }
    }
    return -1;
}

std::optional<ListedMonitor> RelayDisplayTest::VirtualMonitor()
{
    ListedMonitor monitor;
    if (!m_tools->FindMonitor(kVirtualMonitor, &monitor)) {
        return std::nullopt;
    }
    return monitor;
}

bool RelayDisplayTest::MonitorAt(int x, int y)
{
    const auto monitor = VirtualMonitor();
    return monitor && monitor->x == x && monitor->y == y;
}

bool RelayDisplayTest::WindowAt(const QRect& geometry)
{
    WindowGeometry window;
    return m_tools->FindWindow(kRelayWindow, &window) && window.viewable &&
           QRect(window.x, window.y, window.width, window.height) == geometry;
}

bool RelayDisplayTest::WaitForWindowAt(const QRect& geometry, std::chrono::milliseconds timeout)
{
    return WaitFor([&] { return WindowAt(geometry); }, timeout);
}

void RelayDisplayTest::ExpectTheProgramsMonitorAt(const QRect& monitor)
{
    ASSERT_TRUE(WaitFor([&] { return MonitorAt(monitor.x(), monitor.y()); }, 30s))
        << m_tools->MonitorsText() << m_scene.LogText();
    const ListedMonitor listed = *VirtualMonitor();
    EXPECT_EQ(listed.width, monitor.width());
    EXPECT_EQ(listed.height, monitor.height());
    EXPECT_TRUE(listed.outputs.empty());
    EXPECT_FALSE(listed.automatic);
}

void RelayDisplayTest::ExpectWindowPlacedOn(const QRect& monitor)
{
    ASSERT_TRUE(WaitForLog(kInformation, Placed(monitor), 30s)) << m_scene.LogText();
    ASSERT_TRUE(WaitForWindowAt(monitor, 20s)) << m_tools->MonitorsText();
}

void RelayDisplayTest::ExpectPictureOn(const QRect& area)
{
    int bars = 0;
    WaitFor(
        [&] {
            const QImage grab =
                GrabArea(m_display.Name(), area,
                         m_scene.Dir().File("grab" + std::to_string(m_grabs++) + ".png"));
            bars = BarsShown(grab, QRect(QPoint(0, 0), area.size()));
            return bars == 8;
        },
        30s);
    EXPECT_EQ(bars, 8) << m_scene.LogText();
}

void RelayDisplayTest::ExpectMovedAwayMonitorPutBack(const QRect& place)
{
    ASSERT_TRUE(m_tools->MoveMonitor(kVirtualMonitor, 0, 360, place.width(), place.height()));
    const auto moved = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor([&] { return MonitorAt(place.x(), place.y()); }, 20s))
        << m_tools->MonitorsText();
    // Not before the relay's 200 ms delay, less what listing takes.
    EXPECT_GE(std::chrono::steady_clock::now() - moved, 150ms);
    // The chain of changes has ended there.
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(MonitorAt(place.x(), place.y())) << m_tools->MonitorsText();
    EXPECT_TRUE(WindowAt(place));
    EXPECT_EQ(CountLog(kWarning, "Failed to find virtual monitor"), 0u);
}

pid_t RelayDisplayTest::ProgramPid() const
{
    static const std::regex kStarted(R"(\tProcess id \[(\d+)\]\t)");
    std::smatch match;
    const std::string log = LogOf(kProgramLog);
    return std::regex_search(log, match, kStarted) ? std::stoi(match[1]) : -1;
}

void RelayDisplayTest::AdoptDetachedPrograms()
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
}

int RelayDisplayTest::WaitForAdoptedExit(pid_t pid, std::chrono::milliseconds timeout)
{
    int code = -1;
    WaitFor(
        [&] {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) != pid) {
                return false;
            }
            code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        },
        timeout);
    return code;
}

void RelayDisplayTest::TearDown()
{
    if (m_adopted > 0) {
        kill(m_adopted, SIGKILL);
        WaitForAdoptedExit(m_adopted, 10s);
        m_adopted = -1;
    }
}

namespace {

// The processor time a process has used, in clock ticks; -1 when it isn't
// there.
long CpuTicks(pid_t pid)
{
    // Fields 14 and 15 of /proc/PID/stat, after the name in parentheses.
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t end = stat.rfind(')');
    if (end == std::string::npos) {
        return -1;
    }
    std::istringstream fields(stat.substr(end + 2));
    std::string field;
    long user = -1;
    long system = -1;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) {
            user = std::stol(field);
        } else if (index == 15) {
            system = std::stol(field);
            break;
        }
    }
    return user < 0 || system < 0 ? -1 : user + system;
}

} // namespace

void RelayDisplayTest::ExpectIdle(pid_t pid)
{
    const long before = CpuTicks(pid);
    ASSERT_GE(before, 0) << "no process " << pid;
    std::this_thread::sleep_for(2s);
    const long after = CpuTicks(pid);
    ASSERT_GE(after, 0) << "process " << pid << " ended";
    // A loop that never waits takes a core, or what a loaded machine
    // leaves of one; waiting takes next to nothing.
    EXPECT_LT(after - before, sysconf(_SC_CLK_TCK) / 2) << "ticks used in 2 s";
}

pid_t RelayDisplayTest::RelayStartedByClient()
{
    const pid_t client = m_scene.Client().Pid();
    const std::string tasks = "/proc/" + std::to_string(client) + "/task";
    DIR* folder = opendir(tasks.c_str());
    if (!folder) {
        return -1;
    }
    pid_t child = -1;
    while (dirent* entry = readdir(folder)) {
        std::istringstream children(ReadFile(tasks + "/" + entry->d_name + "/children"));
        if (children >> child) {
            break;
        }
        child = -1;
    }
    closedir(folder);
    return child;
}

} // namespace velorane::test
