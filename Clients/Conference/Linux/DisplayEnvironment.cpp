#include "Clients/Conference/Linux/DisplayEnvironment.h"

#include <cstdlib>

namespace quorvan::velorane::relay {

namespace {

bool IsSet(const char* name)
{
    const char* value = std::getenv(name);
    return value && *value;
}

} // namespace

std::string MissingDisplayMessage()
{
    if (IsSet("QT_QPA_PLATFORM") || IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) {
        return std::string();
    }
    return "No display: neither DISPLAY nor WAYLAND_DISPLAY is set. The relay needs a "
           "graphical session for its window (or QT_QPA_PLATFORM naming a platform).";
}

} // namespace quorvan::velorane::relay
