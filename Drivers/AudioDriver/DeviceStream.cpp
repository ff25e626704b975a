#include "Drivers/AudioDriver/DeviceStream.h"

#include "Drivers/AudioDriver/DriverDatagrams.h"

#include "Common/Logger/Src/Logger.h"

#include <pipewire/keys.h>
#include <pipewire/properties.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <cstring>

namespace quorvan::velorane::audiodriver {

DeviceStream::DeviceStream(pw_core* core, const Settings& settings, IRealtimeAudio& audio,
                           std::function<void(const std::string&)> onFailure)
    : m_settings(settings), m_audio(audio), m_onFailure(std::move(onFailure))
{
    const bool sink = settings.kind == Kind::Sink;
    pw_properties* properties = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CLASS, sink ? "Audio/Sink" : "Audio/Source",
        PW_KEY_NODE_NAME, settings.nodeName.c_str(), PW_KEY_NODE_DESCRIPTION,
        settings.description.c_str(), PW_KEY_NODE_ALWAYS_PROCESS, "true", nullptr);
    pw_properties_setf(properties, PW_KEY_NODE_LATENCY, "%d/%d", settings.latencyFrames,
                       kSampleRate);
    if (settings.configurePorts) {
        pw_properties_set(properties, "adapter.auto-port-config",
                          "{ mode = dsp monitor = false control = false position = preserve }");
    }
    m_events.version = PW_VERSION_STREAM_EVENTS;
    m_events.process = &DeviceStream::OnProcess;
    m_events.state_changed = &DeviceStream::OnStateChanged;
    // pw_stream_new takes the properties, whatever it returns.
    m_stream = pw_stream_new(core, settings.description.c_str(), properties);
    if (m_stream) {
        pw_stream_add_listener(m_stream, &m_listener, &m_events, this);
    }
}

DeviceStream::~DeviceStream()
{
    if (m_stream) {
        spa_hook_remove(&m_listener);
        pw_stream_destroy(m_stream);
    }
}

bool DeviceStream::Connect()
{
    if (!m_stream) {
        VLOG(EGroupValueSevere, "PipeWire made no stream for %s", m_settings.description.c_str());
        return false;
    }
    uint8_t buffer[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, buffer, sizeof(buffer));
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_S16_LE;
    info.rate = kSampleRate;
    info.channels = kChannels;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const bool sink = m_settings.kind == Kind::Sink;
    // No AUTOCONNECT: the stream is the device, applications come to it.
    const int result = pw_stream_connect(
        m_stream, sink ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
        params, 1);
    if (result < 0) {
        VLOG(EGroupValueSevere, "PipeWire refused the node %s: %s", m_settings.description.c_str(),
             std::strerror(-result));
        return false;
    }
    return true;
}

void DeviceStream::OnProcess(void* data)
{
    auto* self = static_cast<DeviceStream*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(self->m_stream);
    if (!buffer) {
        return;
    }
    spa_data& plane = buffer->buffer->datas[0];
    if (plane.data && plane.chunk) {
        auto* bytes = static_cast<uint8_t*>(plane.data);
        if (self->m_settings.kind == Kind::Sink) {
            const uint32_t offset = std::min(plane.chunk->offset, plane.maxsize);
            const uint32_t size = std::min(plane.chunk->size, plane.maxsize - offset);
            self->m_audio.OnCycle(reinterpret_cast<int16_t*>(bytes + offset),
                                  size / kBytesPerFrame);
        } else {
            size_t frames = plane.maxsize / kBytesPerFrame;
            if (buffer->requested > 0) {
                frames = std::min<size_t>(frames, buffer->requested);
            }
            self->m_audio.OnCycle(reinterpret_cast<int16_t*>(bytes), frames);
            plane.chunk->offset = 0;
            plane.chunk->stride = static_cast<int32_t>(kBytesPerFrame);
            plane.chunk->size = static_cast<uint32_t>(frames * kBytesPerFrame);
        }
    }
    pw_stream_queue_buffer(self->m_stream, buffer);
}

void DeviceStream::OnStateChanged(void* data, pw_stream_state, pw_stream_state state,
                                  const char* error)
{
    auto* self = static_cast<DeviceStream*>(data);
    // Connecting and paused come and go with every link and suspension;
    // only the states that say something are logged.
    if (state == PW_STREAM_STATE_STREAMING) {
        VLOG(EGroupValueInformation, "%s: streaming", self->m_settings.description.c_str());
    } else if (state == PW_STREAM_STATE_ERROR) {
        self->m_onFailure(self->m_settings.description + ": " + (error ? error : "error"));
    }
}

} // namespace quorvan::velorane::audiodriver
