#pragma once

// Where the local sockets of the relay and its peers live. /tmp is shared by
// every user of the machine, so a socket name there can be taken first by
// someone else, who would then serve the relay or reach its server. The
// per-user runtime folder ($XDG_RUNTIME_DIR, mode 0700) is used when it is
// set; without it the temporary folder ($TMPDIR, else /tmp), as Qt would
// place a bare name. Both ends of a link must see the same two variables.

#include <string>

namespace quorvan::platform {

// The folder itself, without a trailing slash.
std::string LocalSocketDirectory();

// The full path for a local socket name. A name that already is an
// absolute path is returned as it is.
std::string LocalSocketPath(const std::string& name);

} // namespace quorvan::platform
