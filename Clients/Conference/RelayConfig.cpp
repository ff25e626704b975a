#include "Clients/Conference/RelayConfig.h"

#include <CLI/CLI.hpp>

#include <sstream>
#include <stdexcept>

namespace quorvan::velorane::relay {

void RelayConfig::Print(std::string& out) const
{
    std::ostringstream stream;
    stream << "windowWidth=[" << windowWidth << "]"
           << " windowHeight=[" << windowHeight << "]"
           << " windowName=[" << windowName << "]"
           << " kyrIp=[" << kyrIp << "]"
           << " kyrPort=[" << kyrPort << "]"
           << " shouldCreateWindow=[" << shouldCreateWindow << "]";
    out = stream.str();
}

void RelayConfig::AddOptions(CLI::App& app)
{
    app.add_option("--name", windowName, "");
    app.add_option("--kyrIp", kyrIp, "");
    app.add_option("--relayPort", kyrPort, "");
    app.add_option("--relayPassword", relayPassword, "");
    app.add_option("--width", windowWidth, "");
    app.add_option("--height", windowHeight, "");
    // A leading '!' makes a flag whose presence yields false.
    app.add_flag("-t,--use-tcp", useTcp, "");
    app.add_flag("-n,--standalone", standalone, "");
    app.add_flag("!-m,!--no-monitor", useMonitor, "");
    app.add_flag("!-u,!--no-usbip", tunnelConfig.enabled, "");
    app.add_flag("!-l,!--no-window", shouldCreateWindow, "");
    app.add_flag("!--insecure-usbip", tunnelConfig.secure, "");
}

void RelayConfig::ParseCommandLine(CLI::App& app, int argc, const char* const* argv)
{
    try {
        app.parse(argc, argv);
    } catch (const std::out_of_range&) {
        throw CLI::ConversionError("Could not convert: a flag's value is out of range");
    }
}

void RelayConfig::CompleteTunnelConfig()
{
    tunnelConfig.kyrIp = kyrIp;
    tunnelConfig.password = relayPassword;
    tunnelConfig.port = static_cast<uint16_t>(kyrPort + 5);
}

} // namespace quorvan::velorane::relay
