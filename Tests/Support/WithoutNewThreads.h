#pragma once

// Runs a test's body in a child process that may start no thread: the
// limit on processes of its user is lowered below what it has (a root
// child takes the user nobody first, since root isn't held to that limit).
// What a process meets when the system has no thread left to give.
//
// Threads: forks from the calling thread; the body runs on the child's one
// thread, and its exit code comes back.

#include <functional>

namespace velorane::test {

// The body's result (0 to 125) as the child's exit code;
// kThreadLimitNotHeld when the child could still start a thread (a machine
// that holds no such limit), -1 when it died by a signal.
constexpr int kThreadLimitNotHeld = 125;
int RunWithoutNewThreads(const std::function<int()>& body);

} // namespace velorane::test
