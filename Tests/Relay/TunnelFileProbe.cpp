// Runs the tunnel manager's Connect once on the path given and prints what
// it logged, one "group<TAB>message" line each. The tests run it inside a
// private mount namespace, where a read-only bind mount makes the remove
// fail even for root.

#include "Clients/Conference/Linux/ConferenceTunnelManagerImpl.h"
#include "Tests/Support/CapturingLogStore.h"

#include <cstdio>

using quorvan::ConferenceTunnelConfig;
using quorvan::velorane::relay::LinuxConferenceTunnelManager;

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: tunnel-file-probe <path>\n");
        return 2;
    }
    ConferenceTunnelConfig config;
    config.kyrIp = "10.1.2.3";
    config.port = 7005;
    config.password = "probe";
    velorane::test::ScopedLogCapture capture;
    LinuxConferenceTunnelManager manager(config, nullptr, argv[1]);
    const int result = manager.Connect();
    for (const auto& line : capture->Lines()) {
        std::printf("%d\t%s\n", static_cast<int>(line.group), line.message.c_str());
    }
    std::printf("result\t%d\n", result);
    return 0;
}
