#pragma once

// Whether the process can show a window at all. Started from a service or
// an SSH shell the relay has no display, and Qt then aborts with a text
// about platform plugins that doesn't say what is missing.

#include <string>

namespace quorvan::velorane::relay {

// Empty when a display is there: DISPLAY or WAYLAND_DISPLAY is set, or
// QT_QPA_PLATFORM names a platform explicitly (offscreen included).
// Otherwise one line for people that names the missing variables.
std::string MissingDisplayMessage();

} // namespace quorvan::velorane::relay
