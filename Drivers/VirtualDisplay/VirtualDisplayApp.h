#pragma once

// The program's owner: opens the X display, clears a monitor that an
// earlier run left, serves VIRTUAL_MONITOR_SERVER, and with -c connects to
// the relay. Every way out (QuitProcess, a termination signal, the relay's
// link closing) removes the monitor first and leaves the event loop a
// moment later, so that the last reply still goes out.
//
// Threads: the main thread only.

#include "Drivers/VirtualDisplay/VirtualDisplayOptions.h"

#include <QObject>

#include <memory>

namespace quorvan::velorane::virtualmonitor {
class IpcServer;
}

namespace quorvan::velorane::virtualdisplay {

class ConferenceLink;
class TerminationSignals;
class VirtualMonitorManager;
class X11Desktop;

class VirtualDisplayApp : public QObject
{
    Q_OBJECT

public:
    explicit VirtualDisplayApp(const VirtualDisplayOptions& options);
    ~VirtualDisplayApp() override;

    // False, with the exit code to end with, when the program can't run.
    bool Start(int* exitCode);

private:
    void RemoveStaleMonitor();
    void Quit(const char* reason, int exitCode);
    void OnDisplayLost();

    VirtualDisplayOptions mOptions;
    // Declared in the order of need: the server and the link go first, the
    // desktop that the manager works on last.
    std::unique_ptr<X11Desktop> mDesktop;
    std::shared_ptr<VirtualMonitorManager> mManager;
    std::unique_ptr<virtualmonitor::IpcServer> mServer;
    std::unique_ptr<TerminationSignals> mSignals;
    std::unique_ptr<ConferenceLink> mConference;
    bool mQuitting = false;
};

} // namespace quorvan::velorane::virtualdisplay
