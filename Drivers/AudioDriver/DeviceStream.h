#pragma once

// One of the driver's two PipeWire nodes: a pw_stream that is itself the
// device ("Audio/Sink" that applications play into, or "Audio/Source" they
// record from), 16-bit stereo at 48 kHz, FL and FR. It isn't linked to
// anything by the driver: the session manager or the user links it, like
// any device. Each graph cycle's samples go to or come from its
// IRealtimeAudio on PipeWire's real-time thread.
//
// Threads: made, connected and destroyed on the main loop, where the state
// events arrive; the process callback runs on PipeWire's real-time thread
// and touches only the buffer and the IRealtimeAudio.

#include "Drivers/AudioDriver/IRealtimeAudio.h"

#include <pipewire/core.h>
#include <pipewire/stream.h>

#include <functional>
#include <string>

namespace quorvan::velorane::audiodriver {

class DeviceStream
{
public:
    enum class Kind
    {
        Sink,
        Source,
    };

    struct Settings
    {
        Kind kind = Kind::Sink;
        std::string nodeName;    // "velorane-speaker"
        std::string description; // "Velorane Speaker"
        int latencyFrames = 480;
        // Without a session manager the node sets up its own ports.
        bool configurePorts = false;
    };

    // onFailure runs on the main loop when the stream fails for good.
    DeviceStream(pw_core* core, const Settings& settings, IRealtimeAudio& audio,
                 std::function<void(const std::string&)> onFailure);
    ~DeviceStream();
    DeviceStream(const DeviceStream&) = delete;
    DeviceStream& operator=(const DeviceStream&) = delete;

    // Makes the node; false (logged) when PipeWire refuses.
    bool Connect();

private:
    static void OnProcess(void* data);
    static void OnStateChanged(void* data, pw_stream_state old, pw_stream_state state,
                               const char* error);

    Settings m_settings;
    IRealtimeAudio& m_audio;
    std::function<void(const std::string&)> m_onFailure;
    pw_stream* m_stream = nullptr;
    pw_stream_events m_events{};
    spa_hook m_listener{};
};

} // namespace quorvan::velorane::audiodriver
