#pragma once

// Helpers for the synchronisation tests: a stopwatch, bounded polling, and a
// look at a kernel task's state so a test knows a thread is really asleep
// before it signals.

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/syscall.h>
#include <sys/types.h>
#include <thread>
#include <unistd.h>

namespace velorane::test {

class Stopwatch
{
public:
    Stopwatch() : m_start(std::chrono::steady_clock::now()) {}
    double ElapsedMs() const
    {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - m_start)
            .count();
    }

private:
    std::chrono::steady_clock::time_point m_start;
};

// Polls every millisecond until the condition holds or the limit passes.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::seconds(2))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline pid_t KernelThreadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// The state letter of one of our tasks ('R', 'S', ...), or '\0' when the task
// is gone.
inline char TaskState(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return '\0';
    }
    // "tid (comm) S ...": the comm may hold spaces, so look after the last ')'.
    const auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) {
        return '\0';
    }
    return line[close + 2];
}

// True once the task has been seen asleep on twenty polls in a row (about
// 20 ms), which a thread that still has work to do doesn't manage.
inline bool WaitUntilAsleep(pid_t tid, std::chrono::milliseconds limit = std::chrono::seconds(5))
{
    int asleep = 0;
    return WaitUntil(
        [&] {
            asleep = TaskState(tid) == 'S' ? asleep + 1 : 0;
            return asleep >= 20;
        },
        limit);
}

inline bool WaitUntilTaskGone(pid_t tid, std::chrono::milliseconds limit = std::chrono::seconds(2))
{
    return WaitUntil([&] { return TaskState(tid) == '\0'; }, limit);
}

} // namespace velorane::test
