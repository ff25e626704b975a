#pragma once

// The driver's command line.

#include <CLI/CLI.hpp>

namespace quorvan::velorane::audiodriver {

struct DriverOptions
{
    // The relay's base port before any address message; 0: wait for one.
    int basePort = 0;
    // The graph cycle the nodes ask for, in frames at 48 kHz.
    int latencyFrames = 480;
    // A bare PipeWire with no session manager: the nodes set up their own
    // ports, and links are made by hand (pw-link).
    bool noSessionManager = false;
    // Where the Kyr's address arrives; the relay always sends to 9002.
    int controlPort = 9002;

    void AddOptions(CLI::App& app);
};

} // namespace quorvan::velorane::audiodriver
