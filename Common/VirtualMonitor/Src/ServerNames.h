#pragma once

// The names of the local sockets around the virtual display process.

namespace quorvan::velorane::virtualmonitor {

// Served by the virtual display process; the relay connects once per
// request.
extern const char* VIRTUAL_MONITOR_IPC_SERVER;
// Served by the relay in standalone mode; the virtual display process
// connects once it is ready for requests.
extern const char* CONFERENCE_IPC_SERVER;
// Kept with the other two; nothing in the relay reads it.
extern const char* VELORANE_IPC_SERVER;

} // namespace quorvan::velorane::virtualmonitor
