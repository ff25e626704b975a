#pragma once

// An Xvfb of a test's own, on the first free display number from a
// per-process start, so that tests running side by side never meet. It is
// started with -noreset: without it the server resets when its last client
// goes, and a reset drops every RandR monitor a test has set. The screen
// can be made wider than its one output (Xvfb can't grow its screen past
// the size it starts with), so that monitors can be added beside it.

#include "Tests/Support/ChildProcess.h"

#include <string>
#include <vector>

namespace velorane::test {

class PrivateXServer
{
public:
    struct Options
    {
        // The screen, which is also the largest size it can have.
        int width = 1920;
        int height = 1080;
        // The one output's size, when smaller than the screen: a mode of
        // that size is added and set, and the screen is left at the size
        // given above.
        int outputWidth = 0;
        int outputHeight = 0;
        // Where the server's output goes.
        std::string folder;
        // The server ends with the thread that started it, even when this
        // process never gets to stop it (ChildProcess::Options).
        bool endWithParent = false;
        // More of Xvfb's options, such as "-extension RANDR" for a server
        // without RandR.
        std::vector<std::string> arguments;
    };

    // One 1920x1080 output at the left of a screen screenWidth wide, with
    // room beside it for monitors.
    static Options WithRoomBesideOutput(const std::string& folder, int screenWidth);

    PrivateXServer() = default;
    ~PrivateXServer();
    PrivateXServer(const PrivateXServer&) = delete;
    PrivateXServer& operator=(const PrivateXServer&) = delete;

    // False when no server could be started within 15 s.
    bool Start(const Options& options);
    // ":N".
    const std::string& Name() const { return m_name; }
    bool Running() { return m_server.Running(); }
    pid_t Pid() const { return m_server.Pid(); }
    // Ends the server, as a crash of the X server would for its clients.
    void Stop();

private:
    ChildProcess m_server;
    std::string m_name;
};

} // namespace velorane::test
