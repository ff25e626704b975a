#pragma once

// Runs a program as a real child process for end-to-end tests: its own
// environment overrides, standard output and error in a file (so a chatty
// child can never block on a full pipe), bounded waits, and a kill at the
// end if it still runs.

#include <chrono>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace velorane::test {

class ChildProcess
{
public:
    struct Options
    {
        std::vector<std::string> argv;
        // Set (or, with an empty value and unset = true, removed) in the
        // child's environment on top of the test's own.
        std::map<std::string, std::string> environment;
        std::vector<std::string> unset;
        // Where standard output and error go.
        std::string outputFile;
        // The child is killed when the thread that started it ends, also
        // when this process dies without cleaning up (a crash, the end of a
        // fuzz run whose objects are never destroyed).
        bool endWithParent = false;
    };

    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // False when the program can't be started.
    bool Start(const Options& options);
    // True when the child has ended within the time; its exit code, or
    // 128 + signal when a signal ended it.
    bool WaitForExit(std::chrono::milliseconds timeout, int* exitCode = nullptr);
    // True once the output holds text.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) const;
    std::string Output() const;
    bool Running();
    void Kill();
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    bool m_exited = false;
    int m_exitCode = -1;
    std::string m_outputFile;
};

// Where the build puts its executables (build/bin) and the repository root.
std::string BinaryPath(const std::string& name);
std::string SourcePath(const std::string& relative);

// Waits until a file holds text (or a predicate on its contents is true).
bool WaitForFileContaining(const std::string& path, const std::string& text,
                           std::chrono::milliseconds timeout);

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreeTcpPort();

// User and system time a process has used so far, in seconds, from
// /proc/<pid>/stat (clock ticks); 0 when it can't be read.
double CpuSecondsOf(pid_t pid);

} // namespace velorane::test
