// The tunnel file merge: the input gives the relay's address, port and
// password (as the command line would, text without line feeds or with
// them) and the old file's contents, or no file at all; the tunnel manager
// rewrites the file on a private path as it does /var/tmp/relaycam.ini.
//
// Checked: the new file starts with the relay's three lines exactly, each
// with its line feed; every line after them is a foreign line of the old
// file (none holds one of the relay's keys), in the old order; and the file
// ends with a line feed.

#include "Clients/Conference/Linux/ConferenceTunnelManagerImpl.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using quorvan::ConferenceTunnelConfig;
using quorvan::velorane::relay::LinuxConferenceTunnelManager;

namespace {

const std::string& FilePath()
{
    static const std::string path = [] {
        char folder[] = "/tmp/velorane-fuzz-XXXXXX";
        if (!mkdtemp(folder)) {
            std::abort();
        }
        return std::string(folder) + "/relaycam.ini";
    }();
    return path;
}

// Text as a command line carries it: bytes below 0x80, so that the
// conversions on its way in and out leave it as it is.
std::string Text(FuzzedDataProvider& input)
{
    std::string text = input.ConsumeRandomLengthString(64);
    for (char& c : text) {
        c = static_cast<char>(c & 0x7F);
    }
    return text;
}

// A line-by-line read, as std::getline gives it.
std::vector<std::string> Lines(const std::string& content)
{
    std::vector<std::string> lines;
    std::istringstream stream(content);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool HasOwnKey(const std::string& line)
{
    for (const char* key : {"KyrIP=", "Password=", "SSL=", "ForceSoftDecoder="}) {
        if (line.find(key) != std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    velorane::fuzz::EnsureCoreApplication();
    FuzzedDataProvider input(data, size);
    ConferenceTunnelConfig config;
    config.kyrIp = Text(input);
    config.password = Text(input);
    config.port = input.ConsumeIntegral<uint16_t>();
    const bool fileThere = input.ConsumeBool();
    const std::string old = input.ConsumeRemainingBytesAsString();

    const std::string& path = FilePath();
    ::unlink(path.c_str());
    if (fileThere) {
        std::ofstream(path, std::ios::binary) << old;
    }

    LinuxConferenceTunnelManager manager(config, nullptr, path);
    VELORANE_FUZZ_CHECK(manager.Connect() == quorvan::Success);

    std::ostringstream written;
    written << std::ifstream(path, std::ios::binary).rdbuf();
    const std::string content = written.str();
    const std::string head = "KyrIP=" + config.kyrIp + ":" + std::to_string(config.port) +
                             "\nPassword=" + config.password + "\nForceSoftDecoder=1\n";
    VELORANE_FUZZ_CHECK(content.compare(0, head.size(), head) == 0);
    VELORANE_FUZZ_CHECK(content.back() == '\n');

    // The foreign lines, in their old order.
    const std::vector<std::string> before = fileThere ? Lines(old) : std::vector<std::string>();
    size_t next = 0;
    for (const std::string& line : Lines(content.substr(head.size()))) {
        VELORANE_FUZZ_CHECK(!HasOwnKey(line));
        while (next < before.size() && before[next] != line) {
            ++next;
        }
        VELORANE_FUZZ_CHECK(next < before.size());
        ++next;
    }
    return 0;
}
