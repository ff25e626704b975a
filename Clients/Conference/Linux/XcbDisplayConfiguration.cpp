#include "Clients/Conference/Linux/XcbDisplayConfiguration.h"

#include "Clients/Conference/Linux/XcbRandrConnection.h"
#include "Common/Logger/Src/Logger.h"

#include <algorithm>
#include <limits>

namespace quorvan::velorane::relay {

namespace {

tMonitor* Find(MonitorList& monitors, uint32_t id)
{
    for (auto& monitor : monitors) {
        if (monitor.id == id) {
            return &monitor;
        }
    }
    return nullptr;
}

// The right edge of every monitor but one.
int64_t RightOfOthers(const MonitorList& monitors, uint32_t id)
{
    int64_t right = 0;
    for (const auto& monitor : monitors) {
        if (monitor.id != id) {
            right = std::max<int64_t>(right, int64_t(monitor.x) + monitor.width);
        }
    }
    return right;
}

// Another monitor covers exactly the same rectangle.
bool CoversAnother(const MonitorList& monitors, const tMonitor& monitor)
{
    for (const auto& other : monitors) {
        if (other.id != monitor.id && other.x == monitor.x && other.y == monitor.y &&
            other.width == monitor.width && other.height == monitor.height) {
            return true;
        }
    }
    return false;
}

// X places monitors and CRTCs with 16-bit signed positions from the
// screen's origin, which is the top left of the whole arrangement.
constexpr int64_t kMaxPosition = std::numeric_limits<int16_t>::max();
constexpr int64_t kMaxScreenSide = std::numeric_limits<uint16_t>::max();

} // namespace

ArrangementPlan PlanArrangement(const MonitorList& now, const DisplayConfig& config)
{
    ArrangementPlan plan;
    plan.after = now;
    for (const auto& step : config.steps) {
        tMonitor* monitor = Find(plan.after, step.displayId);
        if (!monitor) {
            continue;
        }
        if (step.kind == DisplayConfig::Step::Origin) {
            monitor->x = step.x;
            monitor->y = step.y;
        } else if (step.master == 0 && MirrorOf(plan.after, step.displayId) != 0) {
            const int64_t right = RightOfOthers(plan.after, step.displayId);
            monitor->x = static_cast<int32_t>(std::min(right, kMaxPosition + 1));
            monitor->y = 0;
        }
    }
    for (auto& monitor : plan.after) {
        const tMonitor* before = FindMonitor(now, monitor.id);
        const bool moves = before && (before->x != monitor.x || before->y != monitor.y);
        if (moves && CoversAnother(plan.after, monitor)) {
            const int64_t right = RightOfOthers(plan.after, monitor.id);
            monitor.x = static_cast<int32_t>(std::min(right, kMaxPosition + 1));
            monitor.y = 0;
            plan.sentRight.push_back(monitor.id);
        }
    }
    int64_t width = 0;
    int64_t height = 0;
    for (const auto& monitor : plan.after) {
        const tMonitor* before = FindMonitor(now, monitor.id);
        const bool moves = before && (before->x != monitor.x || before->y != monitor.y);
        if (moves) {
            plan.moved.push_back(monitor.id);
            if (monitor.x < 0 || monitor.y < 0 || monitor.x > kMaxPosition ||
                monitor.y > kMaxPosition) {
                plan.whyNot = "position " + std::to_string(monitor.x) + "," +
                              std::to_string(monitor.y) + " is outside the X screen";
            }
        }
        width = std::max<int64_t>(width, int64_t(monitor.x) + monitor.width);
        height = std::max<int64_t>(height, int64_t(monitor.y) + monitor.height);
    }
    plan.width = static_cast<uint32_t>(std::clamp<int64_t>(width, 0, kMaxScreenSide));
    plan.height = static_cast<uint32_t>(std::clamp<int64_t>(height, 0, kMaxScreenSide));
    return plan;
}

int32_t ApplyDisplayConfiguration(XcbRandrConnection& connection, const DisplayConfig& config)
{
    MonitorList now;
    if (!connection.QueryMonitors(&now)) {
        return DisplayErrorInvalidConnection;
    }
    const ArrangementPlan plan = PlanArrangement(now, config);
    for (const uint32_t id : plan.sentRight) {
        const tMonitor* after = FindMonitor(plan.after, id);
        VLOG(EGroupValueWarning,
             "Display 0x%x would cover another display of its size: it goes right of the "
             "others, to %d,%d",
             id, after->x, after->y);
    }
    // A pass that moves nothing changes nothing, and so reports nothing.
    if (plan.moved.empty()) {
        return DisplayErrorSuccess;
    }
    if (!plan.whyNot.empty()) {
        VLOG(EGroupValueWarning, "Display arrangement refused: %s", plan.whyNot.c_str());
        return DisplayErrorIllegalArgument;
    }
    XcbRandrConnection::ScreenSize screen;
    if (!connection.QueryScreenSize(&screen)) {
        return DisplayErrorInvalidConnection;
    }
    std::string error;
    if (plan.width > screen.width || plan.height > screen.height) {
        const uint32_t width = std::max(plan.width, screen.width);
        const uint32_t height = std::max(plan.height, screen.height);
        if (width > screen.maxWidth || height > screen.maxHeight) {
            VLOG(EGroupValueWarning,
                 "Display arrangement refused: the X screen can't grow to %ux%u (at most %ux%u)",
                 width, height, screen.maxWidth, screen.maxHeight);
            return DisplayErrorCannotComplete;
        }
        if (!connection.SetScreenSize(screen, width, height, &error)) {
            VLOG(EGroupValueWarning, "Display arrangement refused: %s", error.c_str());
            return DisplayErrorCannotComplete;
        }
    }
    int32_t result = DisplayErrorSuccess;
    for (const uint32_t id : plan.moved) {
        const tMonitor* before = FindMonitor(now, id);
        const tMonitor* after = FindMonitor(plan.after, id);
        bool moved = false;
        if (!before->outputs.empty()) {
            moved = connection.MoveOutputs(before->outputs, after->x - before->x,
                                           after->y - before->y, &error);
        } else if (connection.DeleteMonitor(id, &error)) {
            moved = connection.SetMonitor(*after, &error);
            std::string again;
            if (!moved && !connection.SetMonitor(*before, &again)) {
                VLOG(EGroupValueWarning, "Couldn't put display 0x%x back: %s", id, again.c_str());
            }
        }
        if (!moved) {
            VLOG(EGroupValueWarning, "Couldn't move display 0x%x to %d,%d: %s", id, after->x,
                 after->y, error.c_str());
            if (result == DisplayErrorSuccess) {
                result = DisplayErrorCannotComplete;
            }
        }
    }
    connection.Flush();
    return result;
}

} // namespace quorvan::velorane::relay
