#include "Tests/Support/HeadlessPipeWire.h"

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

namespace velorane::test {

namespace fs = std::filesystem;

namespace {

constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kPoll = std::chrono::milliseconds(20);

} // namespace

HeadlessPipeWire::HeadlessPipeWire()
{
    ::mkdir(m_dir.File("run").c_str(), 0700);
    // pipewire-pulse makes run/pulse unless it is there, and gives up if
    // it appears in between: a pactl asking whether it is up yet makes it
    // too. Made here first, nobody races.
    ::mkdir(m_dir.File("run/pulse").c_str(), 0700);
    fs::create_directories(m_dir.File("home"));
    fs::create_directories(m_dir.File("state"));
    fs::create_directories(m_dir.File("config"));
    std::error_code error;
    fs::copy(SourcePath("scripts/lib/headless-wireplumber"), m_dir.File("config/wireplumber"),
             fs::copy_options::recursive, error);
}

HeadlessPipeWire::~HeadlessPipeWire()
{
    Stop();
}

std::map<std::string, std::string> HeadlessPipeWire::Environment() const
{
    return {
        {"XDG_RUNTIME_DIR", m_dir.File("run")},
        {"XDG_CONFIG_HOME", m_dir.File("config")},
        {"XDG_STATE_HOME", m_dir.File("state")},
        {"HOME", m_dir.File("home")},
        // No session bus: WirePlumber's configuration asks for none.
        {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
    };
}

std::vector<std::string> HeadlessPipeWire::Unset()
{
    return {"PIPEWIRE_REMOTE", "PIPEWIRE_RUNTIME_DIR", "PULSE_SERVER", "PULSE_RUNTIME_PATH",
            "DISPLAY"};
}

bool HeadlessPipeWire::Start(Mode mode)
{
    if (!StartDaemon(m_pipewire, "pipewire") ||
        !WaitUntilAnswers({"pw-cli", "info", "0"}, m_pipewire, "pipewire")) {
        return false;
    }
    if (mode == Mode::Bare) {
        return true;
    }
    return StartDaemon(m_wireplumber, "wireplumber") && StartDaemon(m_pulse, "pipewire-pulse") &&
           WaitUntilAnswers({"pactl", "info"}, m_pulse, "pipewire-pulse");
}

bool HeadlessPipeWire::StartDaemon(ChildProcess& process, const std::string& program)
{
    ChildProcess::Options options;
    options.argv = {"/usr/bin/" + program};
    options.environment = Environment();
    options.unset = Unset();
    options.outputFile = m_dir.File(program + ".out");
    if (!process.Start(options)) {
        m_error = "can't start " + program;
        return false;
    }
    return true;
}

bool HeadlessPipeWire::WaitUntilAnswers(const std::vector<std::string>& argv, ChildProcess& daemon,
                                        const std::string& what)
{
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (Run(argv, nullptr, std::chrono::seconds(5))) {
            return true;
        }
        if (!daemon.Running()) {
            m_error = what + " ended: " + daemon.Output();
            return false;
        }
        std::this_thread::sleep_for(kPoll);
    }
    m_error = what + " didn't answer: " + daemon.Output();
    return false;
}

bool HeadlessPipeWire::Run(const std::vector<std::string>& argv, std::string* output,
                           std::chrono::milliseconds timeout) const
{
    ChildProcess process;
    ChildProcess::Options options;
    options.argv = argv;
    if (!argv.empty() && argv[0].find('/') == std::string::npos) {
        options.argv[0] = "/usr/bin/" + argv[0];
    }
    options.environment = Environment();
    options.unset = Unset();
    options.outputFile = m_dir.File("run-" + std::to_string(++m_runs) + ".out");
    int code = -1;
    const bool ended = process.Start(options) && process.WaitForExit(timeout, &code);
    if (output) {
        *output = process.Output();
    }
    std::error_code ignored;
    fs::remove(options.outputFile, ignored);
    return ended && code == 0;
}

bool HeadlessPipeWire::WaitForPulseNode(const std::string& kind, const std::string& node,
                                        std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        std::string listing;
        if (Run({"pactl", "list", "short", kind}, &listing) &&
            listing.find("\t" + node + "\t") != std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(kPoll);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

void HeadlessPipeWire::Terminate(ChildProcess& process)
{
    if (process.Running()) {
        ::kill(process.Pid(), SIGTERM);
        if (!process.WaitForExit(std::chrono::seconds(5))) {
            process.Kill();
        }
    }
}

bool HeadlessPipeWire::StopDaemon()
{
    Terminate(m_pipewire);
    return !m_pipewire.Running();
}

void HeadlessPipeWire::Stop()
{
    Terminate(m_pulse);
    Terminate(m_wireplumber);
    Terminate(m_pipewire);
}

} // namespace velorane::test
