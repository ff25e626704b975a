#include "Drivers/AudioDriver/PipeWireConnection.h"

#include "Common/Logger/Src/Logger.h"

#include <pipewire/keys.h>
#include <pipewire/properties.h>

#include <cerrno>
#include <cstring>

namespace quorvan::velorane::audiodriver {

PipeWireConnection::PipeWireConnection(MainLoop& loop,
                                       std::function<void(const std::string&)> onGone)
    : m_onGone(std::move(onGone))
{
    // The configuration of real-time audio clients: it asks for real-time
    // priority for the thread the nodes' process callbacks run on.
    m_context = pw_context_new(loop.Loop(),
                               pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
    m_events.version = PW_VERSION_CORE_EVENTS;
    m_events.error = &PipeWireConnection::OnCoreError;
}

PipeWireConnection::~PipeWireConnection()
{
    if (m_core) {
        spa_hook_remove(&m_listener);
        pw_core_disconnect(m_core);
    }
    if (m_context) {
        pw_context_destroy(m_context);
    }
}

bool PipeWireConnection::Connect()
{
    if (!m_context) {
        VLOG(EGroupValueSevere, "No PipeWire context: %s", std::strerror(errno));
        return false;
    }
    m_core = pw_context_connect(m_context, nullptr, 0);
    if (!m_core) {
        VLOG(EGroupValueSevere, "Can't connect to PipeWire: %s", std::strerror(errno));
        return false;
    }
    pw_core_add_listener(m_core, &m_listener, &m_events, this);
    return true;
}

void PipeWireConnection::OnCoreError(void* data, uint32_t id, int, int result, const char* message)
{
    auto* self = static_cast<PipeWireConnection*>(data);
    if (id != PW_ID_CORE || result != -EPIPE) {
        // An error on one object (a stream's node) is that object's
        // business, and its own state change reports what is final.
        VLOG(EGroupValueWarning, "PipeWire error on object %u: %s", id,
             message ? message : std::strerror(-result));
        return;
    }
    if (!self->m_gone) {
        self->m_gone = true;
        self->m_onGone(message ? message : std::strerror(EPIPE));
    }
}

} // namespace quorvan::velorane::audiodriver
