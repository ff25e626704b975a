#pragma once

// The logging every program of ours starts with: its own log files
// (<storeName>_<year>_<month>_<day>_<NN>.log) in the user's data folder under
// "Velorane/Client/Logs", then standard output and syslog, at level 0.

#include "Common/Logger/Src/FileStore.h"

#include <string>

namespace quorvan {

// Returns the file store, so that main can wait for its last line; null
// when it couldn't be made.
CRefCountPtr<FileStore> StartProgramLogging(const std::string& storeName);

} // namespace quorvan
