#include "Benchmarks/ApplicationStreams.h"
#include "Benchmarks/StereoFormat.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <thread>

namespace velorane::bench {

namespace {

pw_stream* Connect(pw_core* core, const char* name, const char* target, bool playback,
                   pw_stream_events* events, spa_hook* listener, void* data)
{
    pw_properties* properties = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", "media.category", playback ? "Playback" : "Capture",
        PW_KEY_TARGET_OBJECT, target, PW_KEY_NODE_LATENCY, "256/48000", nullptr);
    pw_stream* stream = pw_stream_new(core, name, properties);
    if (!stream) {
        return nullptr;
    }
    pw_stream_add_listener(stream, listener, events, data);
    uint8_t buffer[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, buffer, sizeof(buffer));
    const spa_pod* params[1] = {StereoFormat(&builder)};
    pw_stream_connect(stream, playback ? PW_DIRECTION_OUTPUT : PW_DIRECTION_INPUT, PW_ID_ANY,
                      static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                   PW_STREAM_FLAG_MAP_BUFFERS |
                                                   PW_STREAM_FLAG_RT_PROCESS),
                      params, 1);
    return stream;
}

} // namespace

int64_t ApplicationStreams::NowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

ApplicationStreams::ApplicationStreams()
{
    m_loop = pw_thread_loop_new("bench-apps", nullptr);
    m_playbackEvents.version = PW_VERSION_STREAM_EVENTS;
    m_playbackEvents.process = &ApplicationStreams::OnPlayback;
    m_captureEvents.version = PW_VERSION_STREAM_EVENTS;
    m_captureEvents.process = &ApplicationStreams::OnCapture;
}

ApplicationStreams::~ApplicationStreams()
{
    if (!m_loop) {
        return;
    }
    pw_thread_loop_lock(m_loop);
    for (pw_stream* stream : {m_playback, m_capture}) {
        if (stream) {
            pw_stream_destroy(stream);
        }
    }
    if (m_core) {
        pw_core_disconnect(m_core);
    }
    pw_thread_loop_unlock(m_loop);
    pw_thread_loop_stop(m_loop);
    if (m_context) {
        pw_context_destroy(m_context);
    }
    pw_thread_loop_destroy(m_loop);
}

bool ApplicationStreams::Start()
{
    if (!m_loop) {
        return false;
    }
    m_context = pw_context_new(pw_thread_loop_get_loop(m_loop),
                               pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
    if (!m_context || pw_thread_loop_start(m_loop) != 0) {
        return false;
    }
    pw_thread_loop_lock(m_loop);
    m_core = pw_context_connect(m_context, nullptr, 0);
    if (m_core) {
        m_playback = Connect(m_core, "bench-playback", "velorane-speaker", true, &m_playbackEvents,
                             &m_playbackListener, this);
        m_capture = Connect(m_core, "bench-capture", "velorane-microphone", false, &m_captureEvents,
                            &m_captureListener, this);
    }
    pw_thread_loop_unlock(m_loop);
    return m_playback && m_capture;
}

int64_t ApplicationStreams::PlayClick()
{
    m_played = 0;
    m_clickWanted = true;
    const int64_t deadline = NowNs() + 1000000000;
    while (m_played.load() == 0 && NowNs() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    m_clickWanted = false;
    return m_played.load();
}

void ApplicationStreams::OnPlayback(void* data)
{
    auto* self = static_cast<ApplicationStreams*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(self->m_playback);
    if (!buffer) {
        return;
    }
    spa_data& plane = buffer->buffer->datas[0];
    if (plane.data) {
        size_t frames = plane.maxsize / 4;
        if (buffer->requested > 0) {
            frames = std::min<size_t>(frames, buffer->requested);
        }
        auto* samples = static_cast<int16_t*>(plane.data);
        std::memset(samples, 0, frames * 4);
        if (frames > 0 && self->m_clickWanted.exchange(false)) {
            samples[0] = kClick;
            samples[1] = kClick;
            self->m_played = NowNs();
        }
        plane.chunk->offset = 0;
        plane.chunk->stride = 4;
        plane.chunk->size = static_cast<uint32_t>(frames * 4);
    }
    pw_stream_queue_buffer(self->m_playback, buffer);
}

void ApplicationStreams::OnCapture(void* data)
{
    auto* self = static_cast<ApplicationStreams*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(self->m_capture);
    if (!buffer) {
        return;
    }
    const spa_data& plane = buffer->buffer->datas[0];
    if (plane.data && plane.chunk) {
        const uint32_t offset = std::min(plane.chunk->offset, plane.maxsize);
        const uint32_t size = std::min(plane.chunk->size, plane.maxsize - offset);
        int16_t sample = 0;
        for (uint32_t at = offset; at + 2 <= offset + size; at += 4) {
            std::memcpy(&sample, static_cast<const uint8_t*>(plane.data) + at, 2);
            if (sample == kClick) {
                self->m_heard = NowNs();
                break;
            }
        }
    }
    pw_stream_queue_buffer(self->m_capture, buffer);
}

} // namespace velorane::bench
