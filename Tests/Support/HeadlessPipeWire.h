#pragma once

// A private PipeWire for one test, with no sound card and no D-Bus: the
// pipewire daemon (its stock dummy driver clocks the graph), WirePlumber
// with the small configuration of scripts/lib/headless-wireplumber (no
// monitors, no portal) and pipewire-pulse for PulseAudio clients (paplay,
// parec, browsers). Everything lives in a temporary folder: the runtime
// folder (mode 0700), the config, state and home folders. The daemons are
// this process's children, so stopping them reaps them: none is left as a
// zombie that would still answer kill -0.

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace velorane::test {

class HeadlessPipeWire
{
public:
    enum class Mode
    {
        // pipewire, WirePlumber and pipewire-pulse.
        Full,
        // pipewire alone: nothing links or configures ports by itself.
        Bare,
    };

    HeadlessPipeWire();
    ~HeadlessPipeWire();
    HeadlessPipeWire(const HeadlessPipeWire&) = delete;
    HeadlessPipeWire& operator=(const HeadlessPipeWire&) = delete;

    // Starts the daemons and waits until they answer; false with Error().
    bool Start(Mode mode = Mode::Full);
    // Stops all daemons (SIGTERM, then SIGKILL after 5 s) and reaps them.
    void Stop();
    // Stops the pipewire daemon alone, as when it crashes or is stopped
    // under its clients; true once it has ended.
    bool StopDaemon();

    // What a client of this PipeWire needs in its environment.
    std::map<std::string, std::string> Environment() const;
    // Variables a client must not inherit from the test's environment.
    static std::vector<std::string> Unset();
    // Runs a program with that environment to its end; true for exit code
    // 0. Its output (standard output and error) goes to *output.
    bool Run(const std::vector<std::string>& argv, std::string* output = nullptr,
             std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Waits until `pactl list short <kind>` (sinks, sources) names node.
    bool WaitForPulseNode(const std::string& kind, const std::string& node,
                          std::chrono::milliseconds timeout) const;

    const std::string& Error() const { return m_error; }
    const TempDir& Dir() const { return m_dir; }

private:
    bool StartDaemon(ChildProcess& process, const std::string& program);
    bool WaitUntilAnswers(const std::vector<std::string>& argv, ChildProcess& daemon,
                          const std::string& what);
    static void Terminate(ChildProcess& process);

    TempDir m_dir;
    ChildProcess m_pipewire;
    ChildProcess m_wireplumber;
    ChildProcess m_pulse;
    std::string m_error;
    mutable int m_runs = 0;
};

} // namespace velorane::test
