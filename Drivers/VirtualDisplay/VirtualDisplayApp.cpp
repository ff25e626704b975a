#include "Drivers/VirtualDisplay/VirtualDisplayApp.h"

#include "Drivers/VirtualDisplay/ConferenceLink.h"
#include "Drivers/VirtualDisplay/Linux/TerminationSignals.h"
#include "Drivers/VirtualDisplay/Linux/X11Desktop.h"
#include "Drivers/VirtualDisplay/UnsupportedExtendedPresentation.h"
#include "Drivers/VirtualDisplay/VirtualMonitorIdentity.h"
#include "Drivers/VirtualDisplay/VirtualMonitorManager.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/VirtualMonitor/Src/IpcServer.h"
#include "Common/VirtualMonitor/Src/ServerNames.h"

#include <QCoreApplication>
#include <QTimer>

#include <string>
#include <vector>

namespace quorvan::velorane::virtualdisplay {

namespace {
// From the decision to end to the end itself: time for a reply written just
// before (QuitProcess's) to leave the socket.
constexpr int kExitGraceMs = 100;
} // namespace

VirtualDisplayApp::VirtualDisplayApp(const VirtualDisplayOptions& options) : mOptions(options) {}

VirtualDisplayApp::~VirtualDisplayApp()
{
    // An end that didn't pass through Quit still takes the monitor away.
    if (mManager && mDesktop && mDesktop->IsConnected()) {
        mManager->RemoveMonitor();
    }
}

bool VirtualDisplayApp::Start(int* exitCode)
{
    mSignals = std::make_unique<TerminationSignals>();
    connect(mSignals.get(), &TerminationSignals::SignalTermination, this,
            [this](int) { Quit("termination signal", 0); });

    std::string error;
    mDesktop = X11Desktop::Open(&error);
    if (!mDesktop) {
        VLOG(EGroupValueSevere, "Unable to start: %s", error.c_str());
        *exitCode = 1;
        return false;
    }
    VLOG(EGroupValueInformation, "Connected to the X display %s", mDesktop->DisplayName().c_str());
    connect(mDesktop.get(), &X11Desktop::SignalConnectionLost, this,
            &VirtualDisplayApp::OnDisplayLost);
    RemoveStaleMonitor();

    mManager = std::make_shared<VirtualMonitorManager>(mDesktop.get(), mOptions.arrivalDelayMs);
    mServer = std::make_unique<virtualmonitor::IpcServer>(
        mManager, std::make_shared<UnsupportedExtendedPresentation>());
    // Queued: the server answers QuitProcess after it has said so.
    connect(
        mServer.get(), &virtualmonitor::IpcServer::SignalQuitProcess, this,
        [this] { Quit("QuitProcess", 0); }, Qt::QueuedConnection);
    const QString serverName = QString::fromLatin1(virtualmonitor::VIRTUAL_MONITOR_IPC_SERVER);
    if (!mServer->Initialize(serverName)) {
        *exitCode = 1;
        return false;
    }
    VLOG(EGroupValueInformation, "Serving %s", virtualmonitor::VIRTUAL_MONITOR_IPC_SERVER);

    if (mOptions.conference) {
        mConference = std::make_unique<ConferenceLink>(
            QString::fromLatin1(virtualmonitor::CONFERENCE_IPC_SERVER));
        connect(mConference.get(), &ConferenceLink::SignalUnreachable, this,
                [this] { Quit("the relay's server can't be reached", 1); });
        connect(mConference.get(), &ConferenceLink::SignalClosed, this,
                [this] { Quit("the relay is gone", 0); });
        mConference->Connect();
    }
    return true;
}

void VirtualDisplayApp::RemoveStaleMonitor()
{
    std::vector<tMonitorRect> monitors;
    if (!mDesktop->ListMonitors(&monitors)) {
        return;
    }
    for (const tMonitorRect& monitor : monitors) {
        if (monitor.name != kVirtualMonitorName) {
            continue;
        }
        if (mDesktop->DeleteMonitor(monitor.name)) {
            VLOG(EGroupValueWarning, "Removed the virtual monitor %s that an earlier run left",
                 kVirtualMonitorName);
        } else {
            VLOG(EGroupValueWarning,
                 "Unable to remove the virtual monitor %s that an earlier run left: %s",
                 kVirtualMonitorName, mDesktop->LastError().c_str());
        }
    }
}

void VirtualDisplayApp::Quit(const char* reason, int exitCode)
{
    if (mQuitting) {
        return;
    }
    mQuitting = true;
    VLOG(EGroupValueInformation, "Ending: %s", reason);
    if (mManager && mDesktop && mDesktop->IsConnected()) {
        mManager->RemoveMonitor();
    }
    QTimer::singleShot(kExitGraceMs, this, [exitCode] { QCoreApplication::exit(exitCode); });
}

void VirtualDisplayApp::OnDisplayLost()
{
    // The monitors went with the server; there is nothing left to remove.
    if (mManager) {
        mManager->ForgetDesktop();
    }
    Quit("the X display is gone", 1);
}

} // namespace quorvan::velorane::virtualdisplay
