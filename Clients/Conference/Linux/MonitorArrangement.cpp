#include "Clients/Conference/Linux/MonitorArrangement.h"

#include "Clients/Conference/IDisplayPlatform.h"

namespace quorvan::velorane::relay {

namespace {

bool SameRectangle(const tMonitor& a, const tMonitor& b)
{
    return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
}

// Whether a is preferred over b as the original of a mirror set; the list
// order decides last, so earlier wins when nothing else does.
bool PreferredOriginal(const tMonitor& a, const tMonitor& b, uint32_t mainId)
{
    if ((a.id == mainId) != (b.id == mainId)) {
        return a.id == mainId;
    }
    return !a.outputs.empty() && b.outputs.empty();
}

uint32_t ChangeFlags(const MonitorList& before, const MonitorList& after, const tMonitor& now)
{
    const tMonitor* old = FindMonitor(before, now.id);
    const bool mirrors = MirrorOf(after, now.id) != 0;
    const bool main = MainMonitor(after) == now.id;
    if (!old) {
        return DisplayAddFlag | (mirrors ? DisplayMirrorFlag : 0u) |
               (main ? DisplaySetMainFlag : 0u);
    }
    uint32_t flags = 0;
    if (old->x != now.x || old->y != now.y) {
        flags |= DisplayMovedFlag;
    }
    if (old->width != now.width || old->height != now.height) {
        flags |= DisplaySetModeFlag;
    }
    if (main && MainMonitor(before) != now.id) {
        flags |= DisplaySetMainFlag;
    }
    const bool mirroredBefore = MirrorOf(before, now.id) != 0;
    if (mirrors && !mirroredBefore) {
        flags |= DisplayMirrorFlag;
    } else if (!mirrors && mirroredBefore) {
        flags |= DisplayUnMirrorFlag;
    }
    return flags;
}

} // namespace

const tMonitor* FindMonitor(const MonitorList& monitors, uint32_t id)
{
    for (const auto& monitor : monitors) {
        if (monitor.id == id) {
            return &monitor;
        }
    }
    return nullptr;
}

uint32_t MainMonitor(const MonitorList& monitors)
{
    for (const auto& monitor : monitors) {
        if (monitor.primary) {
            return monitor.id;
        }
    }
    for (const auto& monitor : monitors) {
        if (!monitor.outputs.empty()) {
            return monitor.id;
        }
    }
    return monitors.empty() ? 0 : monitors.front().id;
}

uint32_t MirrorOf(const MonitorList& monitors, uint32_t id)
{
    const tMonitor* self = FindMonitor(monitors, id);
    if (!self) {
        return 0;
    }
    const uint32_t mainId = MainMonitor(monitors);
    const tMonitor* original = nullptr;
    for (const auto& monitor : monitors) {
        if (!SameRectangle(monitor, *self)) {
            continue;
        }
        if (!original || PreferredOriginal(monitor, *original, mainId)) {
            original = &monitor;
        }
    }
    return original && original->id != id ? original->id : 0;
}

std::vector<DisplayChange> CompareMonitors(const MonitorList& before, const MonitorList& after)
{
    std::vector<DisplayChange> changes;
    for (const auto& monitor : after) {
        const uint32_t flags = ChangeFlags(before, after, monitor);
        if (flags != 0) {
            changes.push_back({monitor.id, flags});
        }
    }
    for (const auto& monitor : before) {
        if (!FindMonitor(after, monitor.id)) {
            changes.push_back({monitor.id, DisplayRemoveFlag});
        }
    }
    std::vector<DisplayChange> calls;
    calls.reserve(changes.size() * 2);
    for (const auto& change : changes) {
        calls.push_back({change.displayId, DisplayBeginConfigurationFlag});
    }
    calls.insert(calls.end(), changes.begin(), changes.end());
    return calls;
}

std::string DescribeMonitors(const MonitorList& monitors)
{
    std::string text;
    for (const auto& monitor : monitors) {
        if (!text.empty()) {
            text += ", ";
        }
        text += std::to_string(monitor.id) + " " + std::to_string(monitor.width) + "x" +
                std::to_string(monitor.height) + (monitor.x >= 0 ? "+" : "") +
                std::to_string(monitor.x) + (monitor.y >= 0 ? "+" : "") + std::to_string(monitor.y);
    }
    return text;
}

} // namespace quorvan::velorane::relay
