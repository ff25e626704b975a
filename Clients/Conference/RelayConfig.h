#pragma once

// The process's configuration: plain values, filled once from the command
// line and copied by whoever needs them.

#include <cstdint>
#include <string>

namespace CLI {
class App;
}

namespace quorvan {

// Input of the conference tunnel manager.
struct ConferenceTunnelConfig
{
    bool enabled = true;
    std::string kyrIp;
    uint16_t port = 0;
    std::string password;
    bool secure = true;
};

namespace velorane::relay {

struct RelayConfig
{
    std::string windowName;
    std::string kyrIp;
    uint16_t kyrPort = 0;
    int32_t windowWidth = 1280;
    int32_t windowHeight = 720;
    std::string relayPassword;
    bool useTcp = false;
    bool standalone = false;
    bool useMonitor = true;
    bool shouldCreateWindow = true;
    quorvan::ConferenceTunnelConfig tunnelConfig;

    // One line, no line end: "windowWidth=[1280] windowHeight=[720] ...".
    void Print(std::string& out) const;

    // Adds the relay's options and flags to app, bound to this object's
    // fields, in the order the client application knows them.
    void AddOptions(CLI::App& app);

    // Parses the command line with app (made with AddOptions) into the
    // fields. A malformed line throws CLI::ParseError, whatever went wrong:
    // CLI11 lets std::out_of_range through for a negated flag given a
    // number past 64 bits ("--no-monitor=99999999999999999999"), and that
    // is refused as a value that doesn't convert.
    void ParseCommandLine(CLI::App& app, int argc, const char* const* argv);

    // Fills the tunnel entry from the parsed fields: address, password, and
    // the base port plus 5 wrapped in 16 bits.
    void CompleteTunnelConfig();
};

} // namespace velorane::relay
} // namespace quorvan
