#pragma once

// The applications' side of the audio driver for its benchmark: a playback
// stream linked to "Velorane Speaker" and a capture stream linked to
// "Velorane Microphone", on a PipeWire thread loop of this process, written
// on libpipewire alone. The playback stream plays silence and, when asked,
// one click (a frame of kClick) at the start of a graph cycle, noting when
// it handed that cycle over; the capture stream notes when a click comes
// in. Times are CLOCK_MONOTONIC in ns.
//
// Threads: made and destroyed on one thread; the process callbacks run on
// the loop's real-time thread and meet the others only in atomics.

#include <pipewire/pipewire.h>

#include <atomic>
#include <cstdint>

namespace velorane::bench {

class ApplicationStreams
{
public:
    static constexpr int16_t kClick = 20000;

    ApplicationStreams();
    ~ApplicationStreams();
    ApplicationStreams(const ApplicationStreams&) = delete;
    ApplicationStreams& operator=(const ApplicationStreams&) = delete;

    // Connects both streams; false when PipeWire refuses.
    bool Start();

    // The next playback cycle carries a click; returns once it went out,
    // with the time it did, or 0 after a second.
    int64_t PlayClick();
    // The time the last click came into the capture stream (0: none yet).
    int64_t LastClickHeard() const { return m_heard.load(); }

    static int64_t NowNs();

private:
    static void OnPlayback(void* data);
    static void OnCapture(void* data);

    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_stream* m_playback = nullptr;
    pw_stream* m_capture = nullptr;
    pw_stream_events m_playbackEvents{};
    pw_stream_events m_captureEvents{};
    spa_hook m_playbackListener{};
    spa_hook m_captureListener{};
    std::atomic<bool> m_clickWanted{false};
    std::atomic<int64_t> m_played{0};
    std::atomic<int64_t> m_heard{0};
};

} // namespace velorane::bench
