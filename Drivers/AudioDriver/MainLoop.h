#pragma once

// The driver's main loop: PipeWire's own, with the sockets, timers and
// signals hung on it as sources. Every callback runs on the thread inside
// Run.
//
// Threads: made, run and torn down on the main thread.

#include <pipewire/main-loop.h>

#include <functional>
#include <memory>

struct spa_source;

namespace quorvan::velorane::audiodriver {

class MainLoop
{
public:
    // A source on the loop; it goes away with this object.
    class Source
    {
    public:
        ~Source();
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

    private:
        friend class MainLoop;
        Source(pw_loop* loop, std::function<void()> callback)
            : m_loop(loop), m_callback(std::move(callback))
        {
        }

        static void OnIo(void* data, int fd, uint32_t mask);
        static void OnTimer(void* data, uint64_t expirations);
        static void OnSignal(void* data, int signalNumber);

        pw_loop* m_loop;
        spa_source* m_source = nullptr;
        std::function<void()> m_callback;
    };

    MainLoop();
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    bool Valid() const { return m_loop != nullptr; }
    pw_loop* Loop() const;

    // Each returns null when PipeWire can't make the source.
    std::unique_ptr<Source> AddReadable(int fd, std::function<void()> callback);
    std::unique_ptr<Source> AddTimer(int intervalMs, std::function<void()> callback);
    // The signal must be blocked in every thread (main blocks it first).
    std::unique_ptr<Source> AddSignal(int signalNumber, std::function<void()> callback);

    // Runs until Quit.
    void Run();
    void Quit();

private:
    pw_main_loop* m_loop = nullptr;
};

} // namespace quorvan::velorane::audiodriver
