#pragma once

#include "ClientOptions.h"
#include "Tools/Common/Recorder.h"

#include <QLocalServer>
#include <QObject>
#include <QPointer>

namespace clientsim {

using simcommon::Recorder;

class LinkConnection;
class RelayLauncher;

// Builds and wires client-sim: the local server, the relay process, the
// script and the two deadlines, and decides the exit code.
class ClientSimApp : public QObject
{
    Q_OBJECT

public:
    explicit ClientSimApp(ClientOptions options, QObject* parent = nullptr);

    // False, with the reason printed, when the program can't run at all.
    bool Start(Recorder* recorder);

private:
    void OnNewConnection();
    void OnRelayExited(int exitCode, bool crashed);
    void OnQuitAfter();
    void OnTimeLimit();
    void StopLink();
    // Leaves a moment for the last bytes and the disconnect to be recorded.
    void ExitSoon(int code);

    ClientOptions m_options;
    Recorder* m_recorder = nullptr;
    QLocalServer m_server;
    RelayLauncher* m_relay = nullptr;
    QPointer<LinkConnection> m_link;
    bool m_scriptStarted = false;
    bool m_exiting = false;
};

} // namespace clientsim
