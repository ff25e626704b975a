#include "Tests/VirtualDisplay/PrivateXServer.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace velorane::test {

namespace {

// The descriptor the server writes its display number to.
constexpr int kDisplayFd = 3;

const char* XvfbPath()
{
    for (const char* candidate : {"/usr/bin/Xvfb", "/usr/local/bin/Xvfb"}) {
        if (access(candidate, X_OK) == 0) {
            return candidate;
        }
    }
    return "/usr/bin/Xvfb";
}

} // namespace

PrivateXServer::~PrivateXServer()
{
    Stop();
}

bool PrivateXServer::Start(int width, int height, const std::string& outputFile)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    std::vector<std::string> args = {
        XvfbPath(),  "-displayfd", std::to_string(kDisplayFd),
        "-screen",   "0",          std::to_string(width) + "x" + std::to_string(height) + "x24",
        "-nolisten", "tcp",        "-noreset"};
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        if (output >= 0) {
            close(output);
        }
        return false;
    }
    if (pid == 0) {
        // dup2 leaves the new descriptors open across exec.
        dup2(fds[1], kDisplayFd);
        if (output >= 0) {
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    if (output >= 0) {
        close(output);
    }
    m_pid = pid;

    std::string number;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (number.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd wait{fds[0], POLLIN, 0};
        if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        char chunk[16];
        const ssize_t got = read(fds[0], chunk, sizeof(chunk));
        if (got <= 0) {
            break;
        }
        number.append(chunk, static_cast<size_t>(got));
    }
    close(fds[0]);
    const size_t end = number.find('\n');
    if (end == std::string::npos || end == 0) {
        Stop();
        return false;
    }
    m_display = ":" + number.substr(0, end);
    return true;
}

void PrivateXServer::Stop()
{
    if (m_pid <= 0) {
        return;
    }
    kill(m_pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (waitpid(m_pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    m_pid = -1;
}

} // namespace velorane::test
