#include "Tests/Support/ChildProcess.h"

#include "Tests/Support/TempDir.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace velorane::test {

namespace {
constexpr auto kPoll = std::chrono::milliseconds(20);
}

ChildProcess::~ChildProcess() { Kill(); }

bool ChildProcess::Start(const Options& options)
{
    if (options.argv.empty()) {
        return false;
    }
    m_outputFile = options.outputFile;

    // Everything the child needs is built before fork: after it, only
    // async-signal-safe calls.
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text(*entry);
        const std::string name = text.substr(0, text.find('='));
        bool replaced = options.environment.count(name) > 0;
        for (const auto& gone : options.unset) {
            replaced = replaced || gone == name;
        }
        if (!replaced) {
            environment.push_back(text);
        }
    }
    for (const auto& [name, value] : options.environment) {
        environment.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& text : environment) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = options.argv;
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int output = -1;
    if (!m_outputFile.empty()) {
        output = open(m_outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (output < 0) {
            return false;
        }
    }

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        if (output >= 0) {
            close(output);
        }
        return false;
    }
    if (pid == 0) {
        if (options.endWithParent &&
            (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)) {
            _exit(127);
        }
        const int devNull = open("/dev/null", O_RDONLY);
        if (devNull >= 0) {
            dup2(devNull, STDIN_FILENO);
        }
        if (output >= 0) {
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    if (output >= 0) {
        close(output);
    }
    m_pid = pid;
    m_exited = false;
    return true;
}

bool ChildProcess::WaitForExit(std::chrono::milliseconds timeout, int* exitCode)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_exited && m_pid > 0) {
        int status = 0;
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_exited = true;
            m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPoll);
    }
    if (exitCode) {
        *exitCode = m_exitCode;
    }
    return m_exited;
}

bool ChildProcess::Running() { return m_pid > 0 && !WaitForExit(std::chrono::milliseconds(0)); }

void ChildProcess::Kill()
{
    if (m_pid > 0 && !m_exited) {
        kill(m_pid, SIGKILL);
        WaitForExit(std::chrono::seconds(10));
    }
}

std::string ChildProcess::Output() const
{
    return m_outputFile.empty() ? std::string() : ReadFile(m_outputFile);
}

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) const
{
    return WaitForFileContaining(m_outputFile, text, timeout);
}

bool WaitForFileContaining(const std::string& path, const std::string& text,
                           std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (ReadFile(path).find(text) != std::string::npos) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPoll);
    }
}

std::string BinaryPath(const std::string& name) { return std::string(VELORANE_BIN_DIR) + "/" + name; }

std::string SourcePath(const std::string& relative)
{
    return std::string(VELORANE_SOURCE_DIR) + "/" + relative;
}

int FreeTcpPort()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    int port = -1;
    socklen_t length = sizeof(address);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(fd);
    return port;
}

double CpuSecondsOf(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t name = text.rfind(')');
    if (name == std::string::npos || name + 2 > text.size()) {
        return 0;
    }
    // The fields after the command name, which is in parentheses: utime and
    // stime are the 14th and 15th of the line.
    std::istringstream fields(text.substr(name + 2));
    std::string field;
    long long ticks = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index >= 14) {
            ticks += std::atoll(field.c_str());
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

} // namespace velorane::test
