#include "Common/VirtualMonitor/Src/ServerNames.h"

namespace quorvan::velorane::virtualmonitor {

const char* VIRTUAL_MONITOR_IPC_SERVER = "VIRTUAL_MONITOR_SERVER";
const char* CONFERENCE_IPC_SERVER = "CONFERENCE_SERVER";
const char* VELORANE_IPC_SERVER = "VELORANE_CLIENT_SERVER";

} // namespace quorvan::velorane::virtualmonitor
