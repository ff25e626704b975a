#include "Clients/Conference/Linux/XcbDisplayPlatform.h"

#include "Clients/Conference/Linux/XcbDisplayConfiguration.h"
#include "Clients/Conference/Linux/XcbRandrConnection.h"
#include "Common/Logger/Src/Logger.h"

#include <QMetaObject>
#include <QObject>
#include <QSocketNotifier>

#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>

namespace quorvan::velorane::relay {

std::unique_ptr<XcbDisplayPlatform> XcbDisplayPlatform::Create(const char* displayName,
                                                               std::string* whyNot)
{
    std::unique_ptr<XcbRandrConnection> connection = XcbRandrConnection::Open(displayName, whyNot);
    if (!connection) {
        return nullptr;
    }
    if (!connection->WatchChanges(whyNot)) {
        return nullptr;
    }
    std::unique_ptr<XcbDisplayPlatform> platform(new XcbDisplayPlatform(std::move(connection)));
    if (!platform->Monitors(&platform->m_known)) {
        *whyNot = "the X server doesn't list its monitors";
        return nullptr;
    }
    return platform;
}

XcbDisplayPlatform::XcbDisplayPlatform(std::unique_ptr<XcbRandrConnection> connection)
    : m_connection(std::move(connection)), m_eventContext(std::make_unique<QObject>())
{
    m_notifier = new QSocketNotifier(m_connection->FileDescriptor(), QSocketNotifier::Read,
                                     m_eventContext.get());
    QObject::connect(m_notifier, &QSocketNotifier::activated, m_eventContext.get(),
                     [this] { ReadEvents(); });
}

XcbDisplayPlatform::~XcbDisplayPlatform()
{
    // The notifier and any queued read go before the connection closes.
    m_eventContext.reset();
}

bool XcbDisplayPlatform::Monitors(MonitorList* monitors)
{
    monitors->clear();
    if (m_lost) {
        return false;
    }
    const bool listed = m_connection->QueryMonitors(monitors);
    if (!listed && m_connection->Broken()) {
        NoteConnectionLost();
        return false;
    }
    ReadQueuedEventsSoon();
    return listed;
}

int32_t XcbDisplayPlatform::GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                                 uint32_t* count)
{
    if (!count) {
        return DisplayErrorIllegalArgument;
    }
    *count = 0;
    MonitorList monitors;
    if (!Monitors(&monitors)) {
        return DisplayErrorInvalidConnection;
    }
    if (!displays) {
        *count = static_cast<uint32_t>(monitors.size());
        return DisplayErrorSuccess;
    }
    const size_t written = std::min<size_t>(maxDisplays, monitors.size());
    for (size_t index = 0; index < written; ++index) {
        displays[index] = monitors[index].id;
    }
    *count = static_cast<uint32_t>(written);
    return DisplayErrorSuccess;
}

tDisplayBounds XcbDisplayPlatform::DisplayBounds(uint32_t displayId)
{
    MonitorList monitors;
    Monitors(&monitors);
    const tMonitor* monitor = FindMonitor(monitors, displayId);
    if (!monitor) {
        return {};
    }
    return {double(monitor->x), double(monitor->y), double(monitor->width),
            double(monitor->height)};
}

uint32_t XcbDisplayPlatform::DisplayMirrorsDisplay(uint32_t displayId)
{
    MonitorList monitors;
    Monitors(&monitors);
    return MirrorOf(monitors, displayId);
}

bool XcbDisplayPlatform::DisplayIsMain(uint32_t displayId)
{
    MonitorList monitors;
    Monitors(&monitors);
    return displayId != 0 && MainMonitor(monitors) == displayId;
}

DisplayIdentity XcbDisplayPlatform::Identity(uint32_t displayId)
{
    MonitorList monitors;
    Monitors(&monitors);
    const tMonitor* monitor = FindMonitor(monitors, displayId);
    if (!monitor) {
        return {};
    }
    if (!monitor->outputs.empty()) {
        const std::vector<uint8_t> edid = m_connection->OutputEdid(monitor->outputs.front());
        return IdentityFromEdid(edid.data(), edid.size());
    }
    return IdentityFromMonitorName(m_connection->AtomName(displayId));
}

uint32_t XcbDisplayPlatform::DisplayVendorNumber(uint32_t displayId)
{
    return Identity(displayId).vendor;
}

uint32_t XcbDisplayPlatform::DisplayModelNumber(uint32_t displayId)
{
    return Identity(displayId).model;
}

uint32_t XcbDisplayPlatform::DisplaySerialNumber(uint32_t displayId)
{
    return Identity(displayId).serial;
}

int32_t XcbDisplayPlatform::BeginDisplayConfiguration(DisplayConfigRef* config)
{
    if (!config) {
        return DisplayErrorIllegalArgument;
    }
    if (m_lost) {
        config->reset();
        return DisplayErrorInvalidConnection;
    }
    *config = std::make_unique<DisplayConfig>();
    return DisplayErrorSuccess;
}

int32_t XcbDisplayPlatform::ConfigureDisplayOrigin(DisplayConfig* config, uint32_t displayId,
                                                   int32_t x, int32_t y)
{
    MonitorList monitors;
    if (!config || !Monitors(&monitors) || !FindMonitor(monitors, displayId)) {
        return DisplayErrorIllegalArgument;
    }
    config->steps.push_back({DisplayConfig::Step::Origin, displayId, x, y, 0});
    return DisplayErrorSuccess;
}

int32_t XcbDisplayPlatform::ConfigureDisplayMirrorOfDisplay(DisplayConfig* config,
                                                            uint32_t displayId, uint32_t master)
{
    MonitorList monitors;
    if (!config || !Monitors(&monitors) || !FindMonitor(monitors, displayId)) {
        return DisplayErrorIllegalArgument;
    }
    // Only the end of mirroring is needed; X has no mirroring of its own
    // to set up between monitors.
    if (master != 0) {
        return DisplayErrorNotImplemented;
    }
    config->steps.push_back({DisplayConfig::Step::MirrorOf, displayId, 0, 0, 0});
    return DisplayErrorSuccess;
}

int32_t XcbDisplayPlatform::CompleteDisplayConfiguration(DisplayConfigRef config,
                                                         EDisplayConfigureOption /*option*/)
{
    if (!config) {
        return DisplayErrorIllegalArgument;
    }
    if (m_lost) {
        return DisplayErrorInvalidConnection;
    }
    const int32_t result = ApplyDisplayConfiguration(*m_connection, *config);
    if (m_connection->Broken()) {
        NoteConnectionLost();
    }
    ReadQueuedEventsSoon();
    return result;
}

int32_t XcbDisplayPlatform::RegisterReconfigurationCallback(DisplayReconfigurationCallback callback,
                                                            void* userInfo)
{
    if (!callback) {
        return DisplayErrorIllegalArgument;
    }
    const auto entry = std::make_pair(callback, userInfo);
    if (std::find(m_callbacks.begin(), m_callbacks.end(), entry) == m_callbacks.end()) {
        m_callbacks.push_back(entry);
    }
    return DisplayErrorSuccess;
}

int32_t XcbDisplayPlatform::RemoveReconfigurationCallback(DisplayReconfigurationCallback callback,
                                                          void* userInfo)
{
    const auto entry = std::make_pair(callback, userInfo);
    m_callbacks.erase(std::remove(m_callbacks.begin(), m_callbacks.end(), entry),
                      m_callbacks.end());
    return DisplayErrorSuccess;
}

void XcbDisplayPlatform::ReadEvents()
{
    m_readPosted = false;
    if (m_lost) {
        return;
    }
    xcb_connection_t* connection = m_connection->Connection();
    const uint8_t randrScreenChange =
        m_connection->RandrFirstEvent() + XCB_RANDR_SCREEN_CHANGE_NOTIFY;
    const uint8_t randrNotify = m_connection->RandrFirstEvent() + XCB_RANDR_NOTIFY;
    bool changed = false;
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection)) {
        const uint8_t type = event->response_type & 0x7F;
        if (type == XCB_CONFIGURE_NOTIFY || type == randrScreenChange || type == randrNotify) {
            changed = true;
        }
        std::free(event);
    }
    if (m_connection->Broken()) {
        NoteConnectionLost();
        return;
    }
    if (changed) {
        CompareAndDeliver();
    }
}

void XcbDisplayPlatform::ReadQueuedEventsSoon()
{
    if (m_readPosted || m_lost || !m_eventContext) {
        return;
    }
    m_readPosted = true;
    QMetaObject::invokeMethod(
        m_eventContext.get(), [this] { ReadEvents(); }, Qt::QueuedConnection);
}

void XcbDisplayPlatform::CompareAndDeliver()
{
    MonitorList now;
    if (!Monitors(&now)) {
        return;
    }
    const std::vector<DisplayChange> calls = CompareMonitors(m_known, now);
    m_known = std::move(now);
    // A callback may remove itself or another one: each is looked up again
    // before it is called.
    const auto callbacks = m_callbacks;
    for (const DisplayChange& call : calls) {
        for (const auto& entry : callbacks) {
            if (std::find(m_callbacks.begin(), m_callbacks.end(), entry) != m_callbacks.end()) {
                entry.first(call.displayId, call.flags, entry.second);
            }
        }
    }
}

void XcbDisplayPlatform::NoteConnectionLost()
{
    if (m_lost) {
        return;
    }
    m_lost = true;
    if (m_notifier) {
        m_notifier->setEnabled(false);
    }
    VLOG(EGroupValueWarning,
         "The X connection is gone: display changes are no longer followed and no virtual "
         "monitor is found");
}

} // namespace quorvan::velorane::relay
