#include "Drivers/AudioDriver/DriverOptions.h"

#include "Drivers/AudioDriver/DriverDatagrams.h"

namespace quorvan::velorane::audiodriver {

void DriverOptions::AddOptions(CLI::App& app)
{
    app.add_option("--base-port", basePort,
                   "The relay's base port (its --relayPort), to send before the relay names it: "
                   "speaker audio and announces go to base + 8, microphone audio comes to base + 7")
        ->check(CLI::Range(1, kMaxBasePort));
    app.add_option("--latency", latencyFrames,
                   "Graph cycle the nodes ask for, in frames at 48 kHz (PipeWire may round it "
                   "to a power of two)")
        ->check(CLI::Range(32, 8192))
        ->capture_default_str();
    app.add_flag("--no-session-manager", noSessionManager,
                 "For a PipeWire without a session manager: the nodes set up their own ports; "
                 "link them with pw-link");
    app.add_option("--control-port", controlPort,
                   "Where the Kyr's address arrives (the relay sends to 9002; another port is "
                   "for tests)")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
}

} // namespace quorvan::velorane::audiodriver
