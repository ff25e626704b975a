#pragma once

// The driver's connection to the PipeWire daemon: a context on the main
// loop and its core. When the daemon goes away the core reports EPIPE:
// onGone is called once, and the driver ends so that its service manager
// can start it again.
//
// Threads: the main loop only.

#include "Drivers/AudioDriver/MainLoop.h"

#include <pipewire/context.h>
#include <pipewire/core.h>

#include <functional>
#include <string>

namespace quorvan::velorane::audiodriver {

class PipeWireConnection
{
public:
    PipeWireConnection(MainLoop& loop, std::function<void(const std::string&)> onGone);
    ~PipeWireConnection();
    PipeWireConnection(const PipeWireConnection&) = delete;
    PipeWireConnection& operator=(const PipeWireConnection&) = delete;

    // False (logged) when there is no daemon to talk to.
    bool Connect();
    pw_core* Core() const { return m_core; }

private:
    static void OnCoreError(void* data, uint32_t id, int seq, int result, const char* message);

    std::function<void(const std::string&)> m_onGone;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_core_events m_events{};
    spa_hook m_listener{};
    bool m_gone = false;
};

} // namespace quorvan::velorane::audiodriver
