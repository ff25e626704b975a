#include "Drivers/AudioDriver/AudioDriver.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Time.h"

#include <csignal>

namespace quorvan::velorane::audiodriver {

namespace {

// The main loop sends what the speaker ring holds at this pace, so the
// real-time thread never has to wake it: on a virtual machine a wake-up
// from one thread to another cost the waker tens of microseconds, several
// times what a graph cycle's work costs.
constexpr int kTickMs = 10;
constexpr int kSecondMs = 1000;
// The counters are logged at most this often, and only when they moved.
constexpr int kCounterSeconds = 10;

const char* const kSpeakerName = "velorane-speaker";
const char* const kSpeakerDescription = "Velorane Speaker";
const char* const kMicrophoneName = "velorane-microphone";
const char* const kMicrophoneDescription = "Velorane Microphone";

} // namespace

AudioDriver::AudioDriver(const DriverOptions& options) : m_options(options) {}

AudioDriver::~AudioDriver() = default;

int AudioDriver::Run()
{
    if (!Start()) {
        return 1;
    }
    m_loop.Run();
    LogCounters(true);
    return m_exitCode;
}

bool AudioDriver::Start()
{
    if (!m_loop.Valid()) {
        VLOG(EGroupValueSevere, "No PipeWire main loop");
        return false;
    }
    m_terminate = m_loop.AddSignal(SIGTERM, [this] { OnSignal("SIGTERM"); });
    m_interrupt = m_loop.AddSignal(SIGINT, [this] { OnSignal("SIGINT"); });
    m_tick = m_loop.AddTimer(kTickMs, [this] { OnTick(); });
    m_second = m_loop.AddTimer(kSecondMs, [this] { OnSecond(); });
    if (!m_terminate || !m_interrupt || !m_tick || !m_second) {
        VLOG(EGroupValueSevere, "PipeWire's main loop took no more sources");
        return false;
    }

    m_pipewire = std::make_unique<PipeWireConnection>(
        m_loop, [this](const std::string& why) { OnPipeWireGone(why); });
    if (!m_pipewire->Connect()) {
        return false;
    }
    DeviceStream::Settings settings;
    settings.latencyFrames = m_options.latencyFrames;
    settings.configurePorts = m_options.noSessionManager;
    auto onFailure = [this](const std::string& why) { OnNodeFailed(why); };
    settings.kind = DeviceStream::Kind::Sink;
    settings.nodeName = kSpeakerName;
    settings.description = kSpeakerDescription;
    m_speaker =
        std::make_unique<DeviceStream>(m_pipewire->Core(), settings, m_speakerCapture, onFailure);
    settings.kind = DeviceStream::Kind::Source;
    settings.nodeName = kMicrophoneName;
    settings.description = kMicrophoneDescription;
    m_microphone = std::make_unique<DeviceStream>(m_pipewire->Core(), settings, m_microphonePlayout,
                                                  onFailure);
    if (!m_speaker->Connect() || !m_microphone->Connect()) {
        return false;
    }

    m_link = std::make_unique<RelayLink>(
        m_loop, m_options.controlPort, m_options.basePort,
        [this](uint64_t stamp, const int16_t* samples, size_t frames) {
            m_jitterBuffer.Push(stamp, samples, frames, Monotonic::Milliseconds());
        },
        [this] { m_jitterBuffer.Reset(); });
    m_link->Announce();
    m_lastFaults = Faults();
    VLOG(EGroupValueInformation, "Nodes \"%s\" and \"%s\" made, cycle %d frames%s",
         kSpeakerDescription, kMicrophoneDescription, m_options.latencyFrames,
         m_options.noSessionManager ? ", ports set up by the nodes" : "");
    return true;
}

void AudioDriver::OnSignal(const char* name)
{
    VLOG(EGroupValueInformation, "Ending on %s", name);
    Stop(0);
}

void AudioDriver::OnPipeWireGone(const std::string& why)
{
    VLOG(EGroupValueSevere, "Ending: PipeWire went away (%s)", why.c_str());
    Stop(1);
}

void AudioDriver::OnNodeFailed(const std::string& why)
{
    VLOG(EGroupValueSevere, "Ending: %s", why.c_str());
    Stop(1);
}

void AudioDriver::Stop(int exitCode)
{
    m_exitCode = exitCode;
    m_loop.Quit();
}

void AudioDriver::OnTick()
{
    RelayLink* link = m_link.get();
    if (link && link->WantsSpeaker()) {
        m_sender.Drain(
            [link](const uint8_t* datagram, size_t size) { link->SendSpeaker(datagram, size); },
            UTCTime::Milliseconds());
    } else {
        m_sender.Drain(nullptr, 0);
    }
    m_jitterBuffer.Poll(Monotonic::Milliseconds());
}

void AudioDriver::OnSecond()
{
    if (m_link) {
        m_link->Announce();
        m_link->BindMissing();
    }
    if (++m_seconds % kCounterSeconds == 0) {
        LogCounters(false);
    }
}

std::string AudioDriver::Faults() const
{
    const MicrophoneJitterBuffer::Counters& jitter = m_jitterBuffer.GetCounters();
    return "speaker frames dropped " + std::to_string(m_speakerRing.Dropped()) + "; late " +
           std::to_string(jitter.lateDatagrams) + ", frames lost " +
           std::to_string(jitter.lostFrames) + ", restarts " + std::to_string(jitter.restarts) +
           ", underruns " + std::to_string(m_microphonePlayout.Underruns()) + ", frames skipped " +
           std::to_string(m_microphonePlayout.Skipped()) + ", frames dropped " +
           std::to_string(m_microphoneRing.Dropped());
}

void AudioDriver::LogCounters(bool always)
{
    const std::string faults = Faults();
    if (!always && faults == m_lastFaults) {
        return;
    }
    m_lastFaults = faults;
    VLOG(EGroupValueInformation, "Counters: speaker datagrams %llu, microphone datagrams %llu; %s",
         static_cast<unsigned long long>(m_sender.Datagrams()),
         static_cast<unsigned long long>(m_jitterBuffer.GetCounters().datagrams), faults.c_str());
}

} // namespace quorvan::velorane::audiodriver
