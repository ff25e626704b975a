#include "ClientSimApp.h"

#include "Console.h"
#include "LinkConnection.h"
#include "RelayLauncher.h"
#include "ScriptRunner.h"
#include "Tools/Common/LocalSocketFolder.h"

#include <QCoreApplication>
#include <QTimer>

#include <utility>

namespace clientsim {

namespace {

const char* const kServerName = "VELORANE_RELAY";
constexpr int kExitKilled = 3;
constexpr int kExitCrashed = 4;
constexpr int kExitFailure = 1;
constexpr int kDrainMs = 200;

} // namespace

ClientSimApp::ClientSimApp(ClientOptions options, QObject* parent)
    : QObject(parent), m_options(std::move(options)), m_relay(new RelayLauncher(this))
{
    connect(&m_server, &QLocalServer::newConnection, this, &ClientSimApp::OnNewConnection);
    connect(m_relay, &RelayLauncher::SignalExited, this, &ClientSimApp::OnRelayExited);
    connect(m_relay, &RelayLauncher::SignalFailedToStart, this, [this](const QString& reason) {
        PrintErr(
            QStringLiteral("can't start the relay %1: %2").arg(m_options.relayProgram, reason));
        ExitSoon(kExitFailure);
    });
}

bool ClientSimApp::Start(Recorder* recorder)
{
    m_recorder = recorder;
    if (!m_options.noListen) {
        // In the user's runtime folder, as the relay looks for it, and
        // open to this user only.
        const QString path = simcommon::LocalSocketPath(QString::fromLatin1(kServerName));
        m_server.setSocketOptions(QLocalServer::UserAccessOption);
        QLocalServer::removeServer(path);
        if (!m_server.listen(path)) {
            PrintErr(QStringLiteral("can't listen on %1: %2")
                         .arg(QString::fromLatin1(kServerName), m_server.errorString()));
            return false;
        }
        PrintOut(QStringLiteral("listening on %1").arg(m_server.fullServerName()));
    }
    if (!m_options.relayProgram.isEmpty()) {
        m_relay->Start(m_options.relayProgram, m_options.relayArguments);
    }
    QTimer::singleShot(m_options.timeLimitSec * 1000, this, &ClientSimApp::OnTimeLimit);
    if (m_options.quitAfterMs >= 0) {
        QTimer::singleShot(m_options.quitAfterMs, this, &ClientSimApp::OnQuitAfter);
    }
    return true;
}

void ClientSimApp::OnNewConnection()
{
    while (QLocalSocket* socket = m_server.nextPendingConnection()) {
        auto* link = new LinkConnection(socket, m_recorder, this);
        // The script is played once, on the first connection.
        if (!m_scriptStarted) {
            m_scriptStarted = true;
            auto* script = new ScriptRunner(m_options.actions, socket, link);
            QTimer::singleShot(0, script, &ScriptRunner::Start);
        }
        m_link = link;
    }
}

void ClientSimApp::OnRelayExited(int exitCode, bool crashed)
{
    if (crashed) {
        PrintOut(QStringLiteral("relay crashed"));
        ExitSoon(kExitCrashed);
        return;
    }
    PrintOut(QStringLiteral("relay exited with code %1").arg(exitCode));
    ExitSoon(exitCode);
}

void ClientSimApp::OnQuitAfter()
{
    PrintErr(QStringLiteral("--quit-after-ms reached"));
    StopLink();
    if (m_relay->IsRunning()) {
        return; // its exit decides the code; the time limit still applies
    }
    ExitSoon(0);
}

void ClientSimApp::OnTimeLimit()
{
    PrintErr(QStringLiteral("time limit reached"));
    StopLink();
    if (m_relay->IsRunning()) {
        m_relay->Kill();
        PrintOut(QStringLiteral("relay killed at the time limit"));
        ExitSoon(kExitKilled);
        return;
    }
    ExitSoon(0);
}

void ClientSimApp::StopLink()
{
    m_server.close();
    if (m_link) {
        m_link->Close();
    }
}

void ClientSimApp::ExitSoon(int code)
{
    if (m_exiting) {
        return;
    }
    m_exiting = true;
    QTimer::singleShot(kDrainMs, this, [code] { QCoreApplication::exit(code); });
}

} // namespace clientsim
