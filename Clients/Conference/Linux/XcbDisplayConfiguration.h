#pragma once

// Applies a display configuration transaction to RandR monitors. A monitor
// with outputs moves by its CRTCs; one without outputs (our virtual
// monitor) moves by being deleted and set again at the new place, since
// the server refuses to set a monitor over one of the same name. The X
// screen grows first when the new arrangement needs more room, as far as
// the server allows; when it can't, nothing is changed.
//
// Threads: the GUI thread, with the connection's.

#include "Clients/Conference/IDisplayPlatform.h"
#include "Clients/Conference/Linux/MonitorArrangement.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quorvan::velorane::relay {

class XcbRandrConnection;

// The arrangement a transaction asks for, worked out from the monitors as
// they are.
struct ArrangementPlan
{
    MonitorList after;
    // The monitors whose place changes, in the order of now.
    std::vector<uint32_t> moved;
    // The monitors whose staged place was taken by another monitor of the
    // same size, and which go right of all the others instead.
    std::vector<uint32_t> sentRight;
    // The room the whole arrangement needs from the origin.
    uint32_t width = 0;
    uint32_t height = 0;
    // Empty when the places can be set on an X screen.
    std::string whyNot;
};

// Origins are taken in the order staged, the last one for a monitor
// winning; an un-mirror puts a mirroring monitor at y = 0 right of all the
// others; monitors that aren't there any more are passed over. A monitor
// staged exactly onto another one would mirror it (two monitors on one
// rectangle is all that mirroring is on X), and its un-mirroring would move
// it away again, and the next arrangement back, for ever: it goes at y = 0
// right of all the others instead.
ArrangementPlan PlanArrangement(const MonitorList& now, const DisplayConfig& config);

// One of EDisplayError. Failures are logged.
int32_t ApplyDisplayConfiguration(XcbRandrConnection& connection, const DisplayConfig& config);

} // namespace quorvan::velorane::relay
