#pragma once

// The bare library for the audio driver's benchmark: a sink and a source
// made as the driver makes its nodes (pw_stream, same properties, format
// and flags, client-rt.conf), whose process callbacks only take and give
// back their buffers (the source's silent). What it costs is what PipeWire
// costs for two such device nodes; what the driver costs beyond it is the
// driver's own work.

namespace velorane::bench {

// Runs the two nodes until SIGTERM or SIGINT; 0, or 1 when PipeWire can't
// be reached. Called by the benchmark in a child process of its own.
int RunBareDeviceNodes();

} // namespace velorane::bench
