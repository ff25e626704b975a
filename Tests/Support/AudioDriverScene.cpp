#include "Tests/Support/AudioDriverScene.h"

#include <csignal>
#include <filesystem>
#include <thread>

namespace velorane::test {

namespace fs = std::filesystem;

namespace {

constexpr auto kStartTimeout = std::chrono::seconds(15);
const char* const kReadyText = "Nodes \"Velorane Speaker\" and \"Velorane Microphone\" made";

} // namespace

AudioDriverScene::~AudioDriverScene()
{
    // The driver first: it mustn't see its PipeWire go away.
    m_driver.Kill();
}

bool AudioDriverScene::StartPipeWire(HeadlessPipeWire::Mode mode)
{
    m_mode = mode;
    return m_pipewire.Start(mode);
}

bool AudioDriverScene::StartDriver(const std::vector<std::string>& arguments,
                                   const std::map<std::string, std::string>& environment)
{
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneAudioDriver")};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = m_pipewire.Environment();
    options.environment["XDG_DATA_HOME"] = m_dir.File("data");
    for (const auto& [name, value] : environment) {
        options.environment[name] = value;
    }
    m_dataHome = options.environment["XDG_DATA_HOME"];
    options.unset = HeadlessPipeWire::Unset();
    options.outputFile = m_dir.File("driver.out");
    if (!m_driver.Start(options) || !m_driver.WaitForOutput(kReadyText, kStartTimeout)) {
        return false;
    }
    if (m_mode == HeadlessPipeWire::Mode::Bare) {
        return true;
    }
    return m_pipewire.WaitForPulseNode("sinks", kSpeakerNode, kStartTimeout) &&
           m_pipewire.WaitForPulseNode("sources", kMicrophoneNode, kStartTimeout);
}

bool AudioDriverScene::StartClient(const std::vector<std::string>& argv, const std::string& name,
                                   ChildProcess& process)
{
    ChildProcess::Options options;
    options.argv = argv;
    options.environment = m_pipewire.Environment();
    options.unset = HeadlessPipeWire::Unset();
    options.outputFile = m_dir.File(name + ".out");
    return process.Start(options);
}

bool AudioDriverScene::Play(const std::string& wav, ChildProcess& paplay)
{
    return StartClient({"/usr/bin/paplay", std::string("--device=") + kSpeakerNode, wav}, "paplay",
                       paplay);
}

bool AudioDriverScene::Record(const std::string& raw, ChildProcess& parec)
{
    // A short latency makes parec write as it goes rather than in seconds.
    const std::string command = std::string("exec /usr/bin/parec --device=") + kMicrophoneNode +
                                " --format=s16le --rate=48000 --channels=2 --raw "
                                "--latency-msec=20 > '" +
                                raw + "'";
    if (!StartClient({"/bin/sh", "-c", command}, "parec", parec)) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        std::error_code error;
        if (fs::file_size(raw, error) > 0 && !error) {
            return true;
        }
        if (!parec.Running()) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool AudioDriverScene::Interrupt(ChildProcess& process)
{
    if (process.Running()) {
        ::kill(process.Pid(), SIGINT);
    }
    return process.WaitForExit(std::chrono::seconds(10));
}

std::string AudioDriverScene::DriverLog() const
{
    std::string text;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(m_dataHome + "/Velorane/Client/Logs", error)) {
        if (entry.path().filename().string().rfind("VeloraneAudioDriver_", 0) == 0) {
            text += ReadFile(entry.path().string());
        }
    }
    return text;
}

bool AudioDriverScene::WaitForDriverOutput(const std::string& text,
                                           std::chrono::milliseconds timeout) const
{
    return m_driver.WaitForOutput(text, timeout);
}

} // namespace velorane::test
