#pragma once

// The audio driver as a real process on a private headless PipeWire, with
// the PulseAudio tools applications use: paplay into "Velorane Speaker",
// parec from "Velorane Microphone". The driver's log files go to the
// scene's own data folder.

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/HeadlessPipeWire.h"
#include "Tests/Support/TempDir.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace velorane::test {

class AudioDriverScene
{
public:
    static constexpr const char* kSpeakerNode = "velorane-speaker";
    static constexpr const char* kMicrophoneNode = "velorane-microphone";

    AudioDriverScene() = default;
    ~AudioDriverScene();
    AudioDriverScene(const AudioDriverScene&) = delete;
    AudioDriverScene& operator=(const AudioDriverScene&) = delete;

    bool StartPipeWire(HeadlessPipeWire::Mode mode = HeadlessPipeWire::Mode::Full);
    // Starts VeloraneAudioDriver with these arguments, environment on top
    // of PipeWire's, and waits until it has made its nodes and, with a
    // session manager, until PulseAudio clients see them.
    bool StartDriver(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment = {});
    // Starts paplay of a WAV file into the speaker.
    bool Play(const std::string& wav, ChildProcess& paplay);
    // Starts parec from the microphone into a raw file (16-bit stereo,
    // 48 kHz) and waits until it records.
    bool Record(const std::string& raw, ChildProcess& parec);
    // Ends a recording the way a user would (SIGINT) and waits for it.
    static bool Interrupt(ChildProcess& process);

    // The driver's log files, concatenated; its data folder is the scene's
    // unless StartDriver's environment named one.
    std::string DriverLog() const;
    // Waits until the driver's standard output (where its log goes too)
    // holds text.
    bool WaitForDriverOutput(const std::string& text, std::chrono::milliseconds timeout) const;

    ChildProcess& Driver() { return m_driver; }
    HeadlessPipeWire& PipeWire() { return m_pipewire; }
    const TempDir& Dir() const { return m_dir; }

private:
    bool StartClient(const std::vector<std::string>& argv, const std::string& name,
                     ChildProcess& process);

    TempDir m_dir;
    HeadlessPipeWire m_pipewire;
    HeadlessPipeWire::Mode m_mode = HeadlessPipeWire::Mode::Full;
    ChildProcess m_driver;
    std::string m_dataHome;
};

} // namespace velorane::test
