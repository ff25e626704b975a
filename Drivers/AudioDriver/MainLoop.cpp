#include "Drivers/AudioDriver/MainLoop.h"

// The loop macros below use ENOTSUP without including errno.h.
#include <cerrno>
#include <ctime>

#include <pipewire/loop.h>
#include <spa/support/loop.h>

namespace quorvan::velorane::audiodriver {

MainLoop::Source::~Source()
{
    if (m_source) {
        pw_loop_destroy_source(m_loop, m_source);
    }
}

void MainLoop::Source::OnIo(void* data, int, uint32_t)
{
    static_cast<Source*>(data)->m_callback();
}

void MainLoop::Source::OnTimer(void* data, uint64_t)
{
    static_cast<Source*>(data)->m_callback();
}

void MainLoop::Source::OnSignal(void* data, int)
{
    static_cast<Source*>(data)->m_callback();
}

MainLoop::MainLoop() : m_loop(pw_main_loop_new(nullptr)) {}

MainLoop::~MainLoop()
{
    if (m_loop) {
        pw_main_loop_destroy(m_loop);
    }
}

pw_loop* MainLoop::Loop() const
{
    return pw_main_loop_get_loop(m_loop);
}

std::unique_ptr<MainLoop::Source> MainLoop::AddReadable(int fd, std::function<void()> callback)
{
    std::unique_ptr<Source> source(new Source(Loop(), std::move(callback)));
    source->m_source = pw_loop_add_io(Loop(), fd, SPA_IO_IN, false, &Source::OnIo, source.get());
    return source->m_source ? std::move(source) : nullptr;
}

std::unique_ptr<MainLoop::Source> MainLoop::AddTimer(int intervalMs, std::function<void()> callback)
{
    std::unique_ptr<Source> source(new Source(Loop(), std::move(callback)));
    source->m_source = pw_loop_add_timer(Loop(), &Source::OnTimer, source.get());
    if (!source->m_source) {
        return nullptr;
    }
    timespec interval{};
    interval.tv_sec = intervalMs / 1000;
    interval.tv_nsec = static_cast<long>(intervalMs % 1000) * 1000000L;
    pw_loop_update_timer(Loop(), source->m_source, &interval, &interval, false);
    return source;
}

std::unique_ptr<MainLoop::Source> MainLoop::AddSignal(int signalNumber,
                                                      std::function<void()> callback)
{
    std::unique_ptr<Source> source(new Source(Loop(), std::move(callback)));
    source->m_source = pw_loop_add_signal(Loop(), signalNumber, &Source::OnSignal, source.get());
    return source->m_source ? std::move(source) : nullptr;
}

void MainLoop::Run()
{
    pw_main_loop_run(m_loop);
}

void MainLoop::Quit()
{
    pw_main_loop_quit(m_loop);
}

} // namespace quorvan::velorane::audiodriver
