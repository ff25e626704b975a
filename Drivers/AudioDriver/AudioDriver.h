#pragma once

// The audio driver: builds its parts and connects them, nothing more. The
// sink "Velorane Speaker" puts what applications play into the speaker ring;
// the main loop sends it to the relay. Microphone datagrams from the relay
// go through the jitter buffer into the microphone ring, which the source
// "Velorane Microphone" plays. Run returns 0 after SIGTERM or SIGINT, 1
// when PipeWire went away or couldn't be reached.
//
// Threads: the main thread runs everything here but the two nodes' process
// callbacks, which run on PipeWire's real-time thread and touch only the
// rings (SpeakerCapture, MicrophonePlayout).

#include "Drivers/AudioDriver/AudioRing.h"
#include "Drivers/AudioDriver/DeviceStream.h"
#include "Drivers/AudioDriver/DriverOptions.h"
#include "Drivers/AudioDriver/MainLoop.h"
#include "Drivers/AudioDriver/MicrophoneJitterBuffer.h"
#include "Drivers/AudioDriver/MicrophonePlayout.h"
#include "Drivers/AudioDriver/PipeWireConnection.h"
#include "Drivers/AudioDriver/RelayLink.h"
#include "Drivers/AudioDriver/SpeakerCapture.h"
#include "Drivers/AudioDriver/SpeakerSender.h"

#include <memory>
#include <string>

namespace quorvan::velorane::audiodriver {

class AudioDriver
{
public:
    explicit AudioDriver(const DriverOptions& options);
    ~AudioDriver();
    AudioDriver(const AudioDriver&) = delete;
    AudioDriver& operator=(const AudioDriver&) = delete;

    int Run();

    // Each ring's size: about 340 ms of audio each way.
    static constexpr size_t kRingFrames = 16384;

private:
    bool Start();
    void OnSignal(const char* name);
    void OnPipeWireGone(const std::string& why);
    void OnNodeFailed(const std::string& why);
    void Stop(int exitCode);
    void SendSpeaker(size_t minimumFrames);
    void OnTick();
    void OnSecond();
    // Every 10 s when something went wrong since, and at the end.
    // The counters of what went wrong, as text.
    std::string Faults() const;
    // Every 10 s when something went wrong since the last time, and at the
    // end.
    void LogCounters(bool always);

    DriverOptions m_options;
    MainLoop m_loop;
    AudioRing m_speakerRing{kRingFrames};
    AudioRing m_microphoneRing{kRingFrames};
    SpeakerCapture m_speakerCapture{m_speakerRing};
    MicrophonePlayout m_microphonePlayout{m_microphoneRing};
    MicrophoneJitterBuffer m_jitterBuffer{m_microphoneRing};
    SpeakerSender m_sender{m_speakerRing};
    std::unique_ptr<RelayLink> m_link;
    std::unique_ptr<MainLoop::Source> m_tick;
    std::unique_ptr<MainLoop::Source> m_second;
    std::unique_ptr<MainLoop::Source> m_terminate;
    std::unique_ptr<MainLoop::Source> m_interrupt;
    // Declared last, gone first: no process callback runs once these are
    // destroyed, and the rings above outlive them.
    std::unique_ptr<PipeWireConnection> m_pipewire;
    std::unique_ptr<DeviceStream> m_speaker;
    std::unique_ptr<DeviceStream> m_microphone;

    int m_exitCode = 0;
    int m_seconds = 0;
    std::string m_lastFaults;
};

} // namespace quorvan::velorane::audiodriver
