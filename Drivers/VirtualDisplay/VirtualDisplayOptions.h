#pragma once

// The command line of VeloraneVirtualDisplay.

#include <CLI/CLI.hpp>

namespace quorvan::velorane::virtualdisplay {

struct VirtualDisplayOptions
{
    // -c: connect to the relay's CONFERENCE_SERVER once ready, and end when
    // that link ends.
    bool conference = false;
    // Time from the CreateConference reply to the monitor's arrival; at
    // least 100 ms, so that the reply has left before the monitor comes.
    int arrivalDelayMs = 500;

    // Adds the options, the description and the help text to app.
    void AddOptions(CLI::App& app);
};

} // namespace quorvan::velorane::virtualdisplay
