#include "Tests/EndToEnd/EndToEndHarness.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace velorane::test {

namespace fs = std::filesystem;

namespace {
constexpr auto kStartTimeout = std::chrono::seconds(15);
}

EndToEndScene::EndToEndScene()
{
    fs::create_directories(m_dir.File("home"));
    fs::create_directories(m_dir.File("tmp"));
    const std::string command =
        SourcePath("scripts/make-test-cert.sh") + " " + m_dir.File("cert") + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("make-test-cert.sh failed");
    }
    // The relay writes its tunnel file to /var/tmp at each connection. Where
    // a private mount namespace can be had, a folder of the scene stands in
    // for /var/tmp, so a test run leaves the machine's file alone.
    const std::string varTmp = m_dir.File("var-tmp");
    fs::create_directories(varTmp);
    if (std::system("/usr/bin/unshare -m /bin/true >/dev/null 2>&1") == 0) {
        m_relayWrapper = {"/usr/bin/unshare",
                          "-m",
                          "/bin/sh",
                          "-c",
                          "mount --make-rprivate / && mount --bind \"$0\" /var/tmp && exec \"$@\"",
                          varTmp};
    }
}

std::map<std::string, std::string> EndToEndScene::Environment() const
{
    std::map<std::string, std::string> environment{
        {"TMPDIR", m_dir.File("tmp")},
        // Local sockets go to the runtime folder when there is one: the
        // scene's own, never the desktop session's.
        {"XDG_RUNTIME_DIR", m_dir.File("tmp")},
        {"HOME", m_dir.File("home")},
        {"XDG_DATA_HOME", m_dir.File("data")},
        // The window needs no screen for these runs.
        {"QT_QPA_PLATFORM", "offscreen"},
    };
    if (!m_display.empty()) {
        environment["QT_QPA_PLATFORM"] = "xcb";
        environment["DISPLAY"] = m_display;
    }
    for (const auto& [name, value] : m_extraEnvironment) {
        environment[name] = value;
    }
    // In the sanitizer tree the relay's window loads Mesa's GL driver, which
    // is unloaded at exit: what it keeps shows as leaks from an unknown
    // module that can't be suppressed by name. The relay's own classes are
    // checked for leaks in-process by the unit tests; here a leak report
    // would only turn the exit code the tests assert into the sanitizer's.
    if (const char* asan = std::getenv("ASAN_OPTIONS")) {
        environment["ASAN_OPTIONS"] = std::string(asan) + ":detect_leaks=0";
    }
    return environment;
}

int EndToEndScene::FreeBasePort()
{
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int port = FreeTcpPort();
        if (port >= 3) {
            return port - 3;
        }
    }
    return -1;
}

bool EndToEndScene::StartKyr(int basePort, const std::vector<std::string>& extra)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("kyr-sim"),
                    "--base-port",
                    std::to_string(basePort),
                    "--cert",
                    m_dir.File("cert/kyr-sim.crt"),
                    "--key",
                    m_dir.File("cert/kyr-sim.key"),
                    "--record",
                    m_dir.File("kyr.rec"),
                    "--time-limit",
                    "60"};
    options.argv.insert(options.argv.end(), extra.begin(), extra.end());
    options.environment = Environment();
    options.outputFile = m_dir.File("kyr.out");
    return m_kyr.Start(options) && m_kyr.WaitForOutput("kyr-sim: listening on", kStartTimeout);
}

namespace {

// A preload library, behind AddressSanitizer's runtime when this test (and
// so the relay beside it) is built with it: the runtime must come first.
std::string PreloadBehindSanitizer(const std::string& library)
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const size_t at = line.find('/');
        if (at != std::string::npos && line.find("/libasan.so") != std::string::npos) {
            return line.substr(at) + ":" + library;
        }
    }
    return library;
}

} // namespace

void EndToEndScene::RefuseUdpSockets()
{
    SetEnvironment("LD_PRELOAD",
                   PreloadBehindSanitizer(BinaryPath("libvelorane-fault-preload.so")));
    SetEnvironment("VELORANE_FAULT_UDP_SOCKETS", "EMFILE");
}

bool EndToEndScene::UsbEmulationAvailable()
{
    return std::ifstream("/usr/lib/x86_64-linux-gnu/libumockdev-preload.so.0").good();
}

bool EndToEndScene::StartUsbKyr(const std::vector<std::string>& extra, const std::string& record)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("kyr-sim"), "--usb",        "--record",
                    m_dir.File(record),    "--time-limit", "60"};
    options.argv.insert(options.argv.end(), extra.begin(), extra.end());
    options.environment = Environment();
    options.outputFile = m_dir.File("usb-kyr.out");
    const std::string marker = "kyr-sim: usb testbed ";
    if (!m_usbKyr.Start(options) || !m_usbKyr.WaitForOutput(marker, kStartTimeout)) {
        return false;
    }
    // The whole line: the folder ends at its line feed.
    std::string output;
    size_t at = 0;
    size_t end = std::string::npos;
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (end == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        output = m_usbKyr.Output();
        at = output.find(marker) + marker.size();
        end = output.find('\n', at);
        if (end == std::string::npos) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    if (end == std::string::npos) {
        return false;
    }
    SetEnvironment("UMOCKDEV_DIR", output.substr(at, end - at));
    SetEnvironment("LD_PRELOAD", PreloadBehindSanitizer("libumockdev-preload.so.0"));
    return true;
}

bool EndToEndScene::StartClient(const std::vector<std::string>& sends,
                                const std::vector<std::string>& relayArguments,
                                const std::vector<std::string>& extra)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("client-sim"), "--record", m_dir.File("client.rec"), "--time-limit",
                    "60"};
    for (const auto& send : sends) {
        options.argv.push_back("--send");
        options.argv.push_back(send);
    }
    options.argv.insert(options.argv.end(), extra.begin(), extra.end());
    if (!relayArguments.empty()) {
        options.argv.push_back("--");
        options.argv.insert(options.argv.end(), m_relayWrapper.begin(), m_relayWrapper.end());
        options.argv.push_back(BinaryPath("velorane-relay"));
        options.argv.insert(options.argv.end(), relayArguments.begin(), relayArguments.end());
    }
    options.environment = Environment();
    options.outputFile = m_dir.File("client.out");
    return m_client.Start(options) &&
           (extra.size() == 1 && extra[0] == "--no-listen"
                ? true
                : m_client.WaitForOutput("client-sim: listening on", kStartTimeout));
}

bool EndToEndScene::StartRelay(const std::vector<std::string>& arguments)
{
    ChildProcess::Options options;
    options.argv = m_relayWrapper;
    options.argv.push_back(BinaryPath("velorane-relay"));
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = Environment();
    options.outputFile = m_dir.File("relay.out");
    return m_relay.Start(options);
}

bool EndToEndScene::StartVirtualDisplay(const std::vector<std::string>& extra)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("vdisplay-sim"), "--record", m_dir.File("vdisplay.rec"),
                    "--time-limit", "60"};
    options.argv.insert(options.argv.end(), extra.begin(), extra.end());
    options.environment = Environment();
    options.outputFile = m_dir.File("vdisplay.out");
    return m_virtualDisplay.Start(options) &&
           m_virtualDisplay.WaitForOutput("vdisplay-sim: listening on", kStartTimeout);
}

bool EndToEndScene::StartVirtualDisplayProgram(const std::vector<std::string>& extra)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneVirtualDisplay")};
    options.argv.insert(options.argv.end(), extra.begin(), extra.end());
    options.environment = Environment();
    options.outputFile = m_dir.File("program.out");
    return m_virtualDisplay.Start(options) &&
           m_virtualDisplay.WaitForOutput("Serving VIRTUAL_MONITOR_SERVER", kStartTimeout);
}

bool EndToEndScene::StartStandaloneRelay(const std::vector<std::string>& arguments,
                                         const std::string& virtualDisplayOptions)
{
    const std::string folder = m_dir.File("app");
    std::error_code error;
    fs::create_directories(folder, error);
    fs::copy_file(BinaryPath("velorane-relay"), folder + "/velorane-relay",
                  fs::copy_options::overwrite_existing, error);
    fs::copy_file(BinaryPath("vdisplay-sim"), folder + "/VeloraneVirtualDisplay",
                  fs::copy_options::overwrite_existing, error);
    if (error) {
        return false;
    }
    ChildProcess::Options options;
    options.argv = m_relayWrapper;
    options.argv.push_back(folder + "/velorane-relay");
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = Environment();
    options.environment["VDISPLAY_SIM_OPTIONS"] = "--record " + m_dir.File("vdisplay.rec") +
                                                  " --pid-file " + m_dir.File("vdisplay.pid") +
                                                  " --time-limit 60 " + virtualDisplayOptions;
    options.outputFile = m_dir.File("relay.out");
    return m_relay.Start(options);
}

std::vector<std::string> EndToEndScene::VirtualDisplayRecords() const
{
    return ReadLines(m_dir.File("vdisplay.rec"));
}

std::vector<std::string> EndToEndScene::KyrVideoRecords() const
{
    std::vector<std::string> records = KyrRecords();
    records.erase(std::remove_if(records.begin(), records.end(),
                                 [](const std::string& record) {
                                     // The audio service's requests and what
                                     // kyr-sim records of them.
                                     for (const char* prefix :
                                          {"request 1403baea", "audio-start", "audio-stop",
                                           "speaker ", "ping ", "mic-"}) {
                                         if (record.rfind(prefix, 0) == 0) {
                                             return true;
                                         }
                                     }
                                     return false;
                                 }),
                  records.end());
    return records;
}

std::vector<std::string> EndToEndScene::KyrRecords() const
{
    return ReadLines(m_dir.File("kyr.rec"));
}

std::vector<std::string> EndToEndScene::ClientRecords() const
{
    return ReadLines(m_dir.File("client.rec"));
}

std::string EndToEndScene::LogFolder() const
{
    return m_dir.File("data/Velorane/Client/Logs");
}

bool EndToEndScene::LogFolderExists() const
{
    return fs::exists(m_dir.File("data/Velorane"));
}

std::string EndToEndScene::LogText() const
{
    std::string text;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(LogFolder(), error)) {
        text += ReadFile(entry.path().string());
    }
    return text;
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream stream(ReadFile(path));
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<LogFileLine> ParseLogFile(const std::string& text)
{
    std::vector<LogFileLine> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        std::vector<std::string> columns;
        size_t start = 0;
        for (;;) {
            const size_t tab = line.find('\t', start);
            columns.push_back(line.substr(start, tab - start));
            if (tab == std::string::npos) {
                break;
            }
            start = tab + 1;
        }
        if (columns.size() == 7) {
            lines.push_back({columns[2], columns[3], columns[4]});
        }
    }
    return lines;
}

size_t CountLogLines(const std::string& log, const std::string& group, const std::string& message)
{
    size_t count = 0;
    for (const LogFileLine& line : ParseLogFile(log)) {
        count += line.group == group && line.message == message ? 1 : 0;
    }
    return count;
}

size_t CountRecords(const std::vector<std::string>& records, const std::string& prefix)
{
    size_t count = 0;
    for (const std::string& record : records) {
        count += record.rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return count;
}

std::vector<std::string> WithPrefix(const std::vector<std::string>& records,
                                    const std::string& prefix)
{
    std::vector<std::string> found;
    for (const auto& record : records) {
        if (record.rfind(prefix, 0) == 0) {
            found.push_back(record);
        }
    }
    return found;
}

long long Field(const std::string& record, const std::string& name)
{
    const size_t at = record.find(" " + name + "=");
    if (at == std::string::npos) {
        return -1;
    }
    return std::strtoll(record.c_str() + at + name.size() + 2, nullptr, 10);
}

bool WriteOrder(const std::string& pipe, const std::string& order)
{
    // Non-blocking: opening a pipe that no process reads fails at once
    // instead of waiting for a reader.
    const int fd = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const std::string line = order + "\n";
    const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    ::close(fd);
    return written;
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

std::string Hex(const std::string& bytes)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

} // namespace velorane::test
