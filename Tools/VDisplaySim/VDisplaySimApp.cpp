#include "VDisplaySimApp.h"

#include "ConferenceLink.h"
#include "Console.h"
#include "DisplaySession.h"
#include "Tools/Common/LocalSocketFolder.h"
#include "Tools/Common/Recorder.h"

#include <QCoreApplication>
#include <QFile>
#include <QLocalSocket>
#include <QTimer>

namespace vdisplaysim {

namespace {

// Time between the DestroyConference reply and the exit, so that the last
// bytes leave and the relay sees the reply before the disconnect.
constexpr int kExitGraceMs = 100;

bool WritePidFile(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = QStringLiteral("can't write pid file %1: %2").arg(path, file.errorString());
        return false;
    }
    file.write(QByteArray::number(QCoreApplication::applicationPid()) + '\n');
    return true;
}

} // namespace

VDisplaySimApp::VDisplaySimApp(const VDisplayOptions& options, Recorder* recorder)
    : m_options(options), m_recorder(recorder)
{
    connect(&m_server, &QLocalServer::newConnection, this, &VDisplaySimApp::OnNewConnection);
}

bool VDisplaySimApp::Start(int* exitCode)
{
    QString error;
    if (!m_options.pidFile.isEmpty() && !WritePidFile(m_options.pidFile, &error)) {
        PrintErr(error);
        *exitCode = 2;
        return false;
    }

    QTimer::singleShot(m_options.timeLimitSec * 1000, this,
                       [this] { Exit(QStringLiteral("time-limit")); });

    // A socket file left by a copy that died would make listen fail.
    // In the user's runtime folder, as the relay looks for it, and open to
    // this user only.
    const QString path = simcommon::LocalSocketPath(m_options.serverName);
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    QLocalServer::removeServer(path);
    if (!m_server.listen(path)) {
        PrintErr(QStringLiteral("can't listen on %1: %2")
                     .arg(m_options.serverName, m_server.errorString()));
        *exitCode = 1;
        return false;
    }
    m_recorder->Line(QStringLiteral("listening %1").arg(m_options.serverName));
    PrintErr(QStringLiteral("socket %1").arg(m_server.fullServerName()));
    PrintOut(QStringLiteral("listening on %1").arg(m_options.serverName));

    if (m_options.conference) {
        m_conference = new ConferenceLink(m_options.conferenceServer, m_recorder, this);
        m_conference->Start();
    }
    return true;
}

void VDisplaySimApp::OnNewConnection()
{
    while (QLocalSocket* socket = m_server.nextPendingConnection()) {
        auto* session = new DisplaySession(socket, ++m_connections, m_options, m_recorder, this);
        connect(session, &DisplaySession::SignalDestroyReplied, this,
                &VDisplaySimApp::OnDestroyReplied);
    }
}

void VDisplaySimApp::OnDestroyReplied()
{
    if (!m_options.exitAfterDestroy || m_exiting) {
        return;
    }
    QTimer::singleShot(kExitGraceMs, this, [this] { Exit(QStringLiteral("destroy")); });
}

void VDisplaySimApp::Exit(const QString& reason)
{
    if (m_exiting) {
        return;
    }
    m_exiting = true;
    m_recorder->Line(QStringLiteral("exit %1").arg(reason));
    PrintErr(QStringLiteral("exit: %1").arg(reason));
    QCoreApplication::exit(0);
}

} // namespace vdisplaysim
