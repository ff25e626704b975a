// The relay's command line: the input cut at zero bytes into the words of
// an argument vector behind the program name, parsed into a RelayConfig as
// main parses it (RelayConfig::ParseCommandLine; a parse error goes to
// app.exit, here into strings instead of the terminal), then completed and
// printed as main does. An exception other than CLI11's parse error would
// end the relay, as it ends this run.
//
// Checked: the tunnel entry is the base port plus 5 in 16 bits, with the
// address and password copied, and the printed line has its fixed form.

#include "Clients/Conference/RelayConfig.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

using quorvan::velorane::relay::RelayConfig;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> words{"velorane-relay"};
    std::string word;
    for (size_t i = 0; i < size && words.size() < 64; ++i) {
        if (data[i] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word.push_back(static_cast<char>(data[i]));
        }
    }
    if (!word.empty() && words.size() < 64) {
        words.push_back(word);
    }
    std::vector<char*> argv;
    for (std::string& each : words) {
        argv.push_back(each.data());
    }
    argv.push_back(nullptr);

    RelayConfig config;
    CLI::App app{"Velorane Conference", ""};
    config.AddOptions(app);
    try {
        config.ParseCommandLine(app, static_cast<int>(words.size()), argv.data());
    } catch (const CLI::ParseError& e) {
        std::ostringstream out;
        std::ostringstream err;
        const int code = app.exit(e, out, err);
        // Help is no error; everything else is.
        VELORANE_FUZZ_CHECK((code == 0) == (out.str().size() > 0 && err.str().empty()));
        return 0;
    }

    config.CompleteTunnelConfig();
    VELORANE_FUZZ_CHECK(config.tunnelConfig.port == static_cast<uint16_t>(config.kyrPort + 5));
    VELORANE_FUZZ_CHECK(config.tunnelConfig.kyrIp == config.kyrIp);
    VELORANE_FUZZ_CHECK(config.tunnelConfig.password == config.relayPassword);
    std::string printed;
    config.Print(printed);
    VELORANE_FUZZ_CHECK(printed.rfind("windowWidth=[", 0) == 0);
    const std::string tail =
        " shouldCreateWindow=[" + std::string(config.shouldCreateWindow ? "1" : "0") + "]";
    VELORANE_FUZZ_CHECK(printed.size() >= tail.size() &&
                        printed.compare(printed.size() - tail.size(), tail.size(), tail) == 0);
    return 0;
}
