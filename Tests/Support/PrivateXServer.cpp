#include "Tests/Support/PrivateXServer.h"

#include "Tests/Support/XDisplayTools.h"

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

namespace velorane::test {

namespace {

using namespace std::chrono_literals;

std::string XvfbPath()
{
    for (const char* candidate : {"/usr/bin/Xvfb", "/usr/local/bin/Xvfb"}) {
        if (access(candidate, X_OK) == 0) {
            return candidate;
        }
    }
    return "Xvfb";
}

bool Exists(const std::string& path)
{
    struct stat info
    {
    };
    return stat(path.c_str(), &info) == 0;
}

} // namespace

PrivateXServer::Options PrivateXServer::WithRoomBesideOutput(const std::string& folder,
                                                             int screenWidth)
{
    Options options;
    options.width = screenWidth;
    options.height = 1080;
    options.outputWidth = 1920;
    options.outputHeight = 1080;
    options.folder = folder;
    return options;
}

PrivateXServer::~PrivateXServer()
{
    Stop();
}

bool PrivateXServer::Start(const Options& options)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        const int number = 400 + (getpid() + attempt * 37) % 500;
        const std::string socket = "/tmp/.X11-unix/X" + std::to_string(number);
        if (Exists(socket) || Exists("/tmp/.X" + std::to_string(number) + "-lock")) {
            continue;
        }
        ChildProcess::Options child;
        child.argv = {XvfbPath(),
                      ":" + std::to_string(number),
                      "-screen",
                      "0",
                      std::to_string(options.width) + "x" + std::to_string(options.height) + "x24",
                      "-nolisten",
                      "tcp",
                      "-noreset",
                      "-br"};
        child.argv.insert(child.argv.end(), options.arguments.begin(), options.arguments.end());
        child.outputFile = options.folder + "/xvfb-" + std::to_string(number) + ".out";
        child.endWithParent = options.endWithParent;
        if (!m_server.Start(child)) {
            return false;
        }
        const auto deadline = std::chrono::steady_clock::now() + 15s;
        while (std::chrono::steady_clock::now() < deadline) {
            if (Exists(socket)) {
                m_name = ":" + std::to_string(number);
                break;
            }
            if (!m_server.Running()) {
                break; // another server took the number first
            }
            std::this_thread::sleep_for(50ms);
        }
        if (!m_name.empty()) {
            if (options.outputWidth > 0 && options.outputHeight > 0) {
                XDisplayTools tools(m_name);
                if (!tools.SetOutputSize(options.outputWidth, options.outputHeight, options.width,
                                         options.height)) {
                    Stop();
                    return false;
                }
            }
            return true;
        }
        Stop();
    }
    return false;
}

// Asked to end, Xvfb removes its socket and lock file; killed, it leaves
// them behind.
void PrivateXServer::Stop()
{
    if (m_server.Pid() > 0 && m_server.Running()) {
        kill(m_server.Pid(), SIGTERM);
        m_server.WaitForExit(5s);
    }
    m_server.Kill();
}

} // namespace velorane::test
