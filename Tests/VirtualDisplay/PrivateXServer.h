#pragma once

// An Xvfb of the test's own. It picks a free display number itself and
// tells it through -displayfd, so tests running side by side (and other
// servers on the machine) never meet. Started with -noreset: without it the
// server drops every RandR monitor whenever its last client leaves, which
// happens between two xrandr calls of a test.

#include <string>
#include <sys/types.h>

namespace velorane::test {

class PrivateXServer
{
public:
    PrivateXServer() = default;
    ~PrivateXServer();
    PrivateXServer(const PrivateXServer&) = delete;
    PrivateXServer& operator=(const PrivateXServer&) = delete;

    // A screen of width by height; its one output, "screen", shows all of
    // it. False when the server didn't come up within 20 s.
    bool Start(int width, int height, const std::string& outputFile);
    // ":<number>".
    const std::string& Display() const { return m_display; }
    // Ends the server (SIGTERM) and waits for it.
    void Stop();

private:
    pid_t m_pid = -1;
    std::string m_display;
};

} // namespace velorane::test
