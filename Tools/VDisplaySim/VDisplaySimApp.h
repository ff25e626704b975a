#pragma once

#include "VDisplayOptions.h"

#include <QLocalServer>
#include <QObject>
#include <QString>

namespace simcommon {
class Recorder;
}

namespace vdisplaysim {

using simcommon::Recorder;
class ConferenceLink;

// Holds the display process's local server, numbers the connections, makes
// the -c connection and ends the program by its rules: the time limit, or
// a DestroyConference reply with --exit-after-destroy.
class VDisplaySimApp : public QObject
{
    Q_OBJECT

public:
    VDisplaySimApp(const VDisplayOptions& options, Recorder* recorder);

    // Writes the pid file and starts listening; false (with a message on
    // standard error) when that fails, *exitCode then says how to end.
    bool Start(int* exitCode);

private:
    void OnNewConnection();
    void OnDestroyReplied();
    void Exit(const QString& reason);

    VDisplayOptions m_options;
    Recorder* m_recorder;
    QLocalServer m_server;
    ConferenceLink* m_conference = nullptr;
    int m_connections = 0;
    bool m_exiting = false;
};

} // namespace vdisplaysim
