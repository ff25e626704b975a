#pragma once

// What the benchmarks that run the relay's own classes in their process
// share: the relay's process set-up (queued-connection types, the log file
// store), a kyr-sim over TLS with a throw-away certificate, and reading the
// relay's log and /proc/self afterwards.
//
// Threads: the main thread calls these, before and after the run.

#include "Common/Logger/Src/Logger.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"

#include <cstddef>
#include <string>

namespace velorane::bench {

// The types the relay's queued connections carry, as main registers them.
void RegisterRelayTypes();

// The relay's log file store in folder, at level 0, added to the logger.
quorvan::CRefCountPtr<quorvan::ILogStore> AddLogFileStore(const std::string& folder);
// Takes the store out of the logger and waits until its lines are written.
void FinishLogFileStore(quorvan::CRefCountPtr<quorvan::ILogStore>& store);
// Lines of the log files in folder that hold text.
size_t CountLogLines(const std::string& folder, const std::string& text);

// Starts kyr-sim over TLS on a free port of 127.0.0.1, with a throw-away
// certificate made in folder, the password given and its records in
// record; answers the port, or -1 with the reason on standard error.
int StartTlsKyr(::velorane::test::TempDir& folder, ::velorane::test::ChildProcess& kyr,
                const std::string& password, const std::string& record, int timeLimitSeconds);

// A field of /proc/self/status in kB.
long StatusKb(const char* name);

// The calling thread's id, as /proc/self/task names it.
long ThreadId();

// Called on the decoder thread each time RelayWindow has handed a picture to
// VideoRenderer::renderFrame and the renderer has copied it. RelayWindow's
// call reaches the benchmark through the linker's --wrap of renderFrame,
// which an executable linking this library must ask for (see
// CMakeLists.txt); the relay's code stays as it is.
void SetPictureHook(void (*hook)());

} // namespace velorane::bench
