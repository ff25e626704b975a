#include "Tests/VirtualDisplay/VirtualDisplayScene.h"

#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Common/VirtualMonitor/Src/ServerNames.h"

#include <QCoreApplication>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>

namespace velorane::test {

namespace fs = std::filesystem;
using quorvan::velorane::virtualmonitor::Command;
using quorvan::velorane::virtualmonitor::IpcClient;
using quorvan::velorane::virtualmonitor::tVmRect;

namespace {

constexpr auto kServingTimeout = std::chrono::seconds(20);

// The IpcClient needs an application object for its socket.
void EnsureApplication()
{
    static int argc = 1;
    static char argv0[] = "virtual_display_tests";
    static char* argv[] = {argv0, nullptr};
    static QCoreApplication* application = new QCoreApplication(argc, argv);
    (void)application;
}

std::string MakeFolder(const std::string& path)
{
    fs::create_directories(path);
    chmod(path.c_str(), 0700);
    return path;
}

} // namespace

VirtualDisplayScene::VirtualDisplayScene()
    : m_runtime("XDG_RUNTIME_DIR", MakeFolder(m_dir.File("run")))
{
    EnsureApplication();
    MakeFolder(m_dir.File("home"));
    MakeFolder(m_dir.File("tmp"));
}

VirtualDisplayScene::~VirtualDisplayScene()
{
    // The program goes before its X server, as it would on a desktop.
    m_program.Kill();
    m_x.Stop();
}

bool VirtualDisplayScene::StartX(int width, int height)
{
    PrivateXServer::Options options;
    options.width = width;
    options.height = height;
    options.folder = m_dir.Path();
    return m_x.Start(options);
}

std::string VirtualDisplayScene::Xrandr(const std::string& arguments, int* exitCode) const
{
    const std::string command = "DISPLAY=" + m_x.Name() + " xrandr " + arguments + " 2>&1";
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        if (exitCode) {
            *exitCode = -1;
        }
        return output;
    }
    char chunk[512];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0) {
        output.append(chunk, got);
    }
    const int status = pclose(pipe);
    if (exitCode) {
        *exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return output;
}

bool VirtualDisplayScene::ShowOutputAt1920(bool keepScreen)
{
    const ScreenSize before = Screen();
    int code = 0;
    Xrandr("--newmode 1920x1080 148.5 1920 2008 2052 2200 1080 1084 1089 1125", &code);
    if (code != 0) {
        return false;
    }
    Xrandr("--addmode screen 1920x1080", &code);
    if (code != 0) {
        return false;
    }
    const std::string screen = keepScreen ? "--fb " + std::to_string(before.width) + "x" +
                                                std::to_string(before.height) + " "
                                          : std::string();
    Xrandr(screen + "--output screen --mode 1920x1080", &code);
    return code == 0;
}

std::vector<ListedMonitor> VirtualDisplayScene::Monitors() const
{
    // " 1: +*screen 1920/508x1080/286+0+0  screen"
    static const std::regex kLine(
        R"(^\s*\d+: [+*]*(\S+) (\d+)/(\d+)x(\d+)/(\d+)([+-]\d+)([+-]\d+)\s*(.*?)\s*$)");
    std::vector<ListedMonitor> monitors;
    std::istringstream lines(Xrandr("--listmonitors"));
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch match;
        if (!std::regex_match(line, match, kLine)) {
            continue;
        }
        ListedMonitor monitor;
        monitor.name = match[1];
        monitor.width = std::stoi(match[2]);
        monitor.mmWidth = std::stoi(match[3]);
        monitor.height = std::stoi(match[4]);
        monitor.mmHeight = std::stoi(match[5]);
        monitor.x = std::stoi(match[6]);
        monitor.y = std::stoi(match[7]);
        monitor.outputs = match[8];
        monitors.push_back(monitor);
    }
    return monitors;
}

std::optional<ListedMonitor> VirtualDisplayScene::VirtualMonitor() const
{
    for (const ListedMonitor& monitor : Monitors()) {
        if (monitor.name == kMonitorName) {
            return monitor;
        }
    }
    return std::nullopt;
}

ScreenSize VirtualDisplayScene::Screen() const
{
    static const std::regex kCurrent(R"(current (\d+) x (\d+))");
    std::smatch match;
    const std::string output = Xrandr("--current");
    if (!std::regex_search(output, match, kCurrent)) {
        return {};
    }
    return {std::stoi(match[1]), std::stoi(match[2])};
}

std::map<std::string, std::string> VirtualDisplayScene::Environment() const
{
    std::map<std::string, std::string> environment{
        {"DISPLAY", m_x.Name()},
        {"XDG_RUNTIME_DIR", RuntimeFolder()},
        {"XDG_DATA_HOME", m_dir.File("data")},
        {"HOME", m_dir.File("home")},
        {"TMPDIR", m_dir.File("tmp")},
    };
    return environment;
}

bool VirtualDisplayScene::StartProgram(const std::vector<std::string>& arguments,
                                       bool waitUntilServing)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneVirtualDisplay")};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = Environment();
    options.outputFile = m_dir.File("program.out");
    if (!m_program.Start(options)) {
        return false;
    }
    return !waitUntilServing ||
           m_program.WaitForOutput("Serving VIRTUAL_MONITOR_SERVER", kServingTimeout);
}

std::string VirtualDisplayScene::LogText(const std::string& storeName) const
{
    std::string text;
    std::error_code error;
    const fs::path folder = m_dir.File("data/Velorane/Client/Logs");
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().filename().string().rfind(storeName + "_", 0) == 0) {
            text += ReadFile(entry.path().string());
        }
    }
    return text;
}

size_t VirtualDisplayScene::CountLog(const std::string& group, const std::string& message) const
{
    return CountLogLines(LogText(), group, message);
}

size_t VirtualDisplayScene::CountLogEventually(const std::string& group,
                                               const std::string& message) const
{
    WaitForLog(group, message, std::chrono::seconds(10));
    return CountLog(group, message);
}

bool VirtualDisplayScene::WaitForLog(const std::string& group, const std::string& message,
                                     std::chrono::milliseconds timeout) const
{
    return WaitFor([&] { return CountLog(group, message) > 0; }, timeout);
}

long long VirtualDisplayScene::LogTimeOf(const std::string& message) const
{
    // "11/25/2026 08:44:01.123\t..." : the time's columns, then the message
    // in the fifth column.
    std::istringstream lines(LogText());
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> columns;
        std::stringstream split(line);
        std::string column;
        while (std::getline(split, column, '\t')) {
            columns.push_back(column);
        }
        int hours = 0;
        int minutes = 0;
        int seconds = 0;
        int millis = 0;
        if (columns.size() == 7 && columns[4] == message &&
            std::sscanf(columns[0].c_str(), "%*d/%*d/%*d %d:%d:%d.%d", &hours, &minutes, &seconds,
                        &millis) == 4) {
            return ((hours * 60LL + minutes) * 60 + seconds) * 1000 + millis;
        }
    }
    return -1;
}

QByteArray VirtualDisplayScene::Exchange(const QByteArray& request) const
{
    IpcClient client(
        QString::fromLatin1(quorvan::velorane::virtualmonitor::VIRTUAL_MONITOR_IPC_SERVER),
        nullptr);
    QByteArray reply;
    if (!client.ConnectToServer(5000) || !client.SendRequestBlocking(request, &reply)) {
        return {};
    }
    return reply;
}

int VirtualDisplayScene::Send(Command command) const
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, command);
    QByteArray reply = Exchange(request);
    int result = 1;
    if (!IpcClient::ParseReplyMessage(&reply, &result)) {
        return 1;
    }
    return result;
}

int VirtualDisplayScene::SetResolution(int width, int height) const
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, quorvan::velorane::virtualmonitor::SetResolution,
                                   width, height, 250);
    QByteArray reply = Exchange(request);
    int result = 1;
    return IpcClient::ParseReplyMessage(&reply, &result) ? result : 1;
}

int VirtualDisplayScene::CreateConference(int width, int height) const
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, quorvan::velorane::virtualmonitor::CreateConference,
                                   width, height);
    QByteArray reply = Exchange(request);
    int result = 1;
    return IpcClient::ParseReplyMessage(&reply, &result) ? result : 1;
}

bool VirtualDisplayScene::CreateMonitor(int width, int height) const
{
    return SetResolution(width, height) == 0 && CreateConference(width, height) == 0 &&
           WaitFor([this] { return VirtualMonitor().has_value(); }, std::chrono::seconds(15));
}

Calibration VirtualDisplayScene::RequestCalibrate() const
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, quorvan::velorane::virtualmonitor::RequestCalibrate);
    Calibration calibration;
    calibration.reply = Exchange(request);
    QByteArray reply = calibration.reply;
    calibration.parsed = IpcClient::ParseReplyMessage(&reply, &calibration.result,
                                                      &calibration.found, &calibration.rect);
    return calibration;
}

} // namespace velorane::test
