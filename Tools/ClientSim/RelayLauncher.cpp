#include "RelayLauncher.h"

namespace clientsim {

RelayLauncher::RelayLauncher(QObject* parent) : QObject(parent)
{
    m_process.setProcessChannelMode(QProcess::ForwardedChannels);
    m_process.setInputChannelMode(QProcess::ForwardedInputChannel);
    connect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this](int exitCode, QProcess::ExitStatus status) {
                if (!m_killed) {
                    Q_EMIT SignalExited(exitCode, status == QProcess::CrashExit);
                }
            });
    connect(&m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            Q_EMIT SignalFailedToStart(m_process.errorString());
        }
    });
}

void RelayLauncher::Start(const QString& program, const QStringList& arguments)
{
    m_process.start(program, arguments);
}

bool RelayLauncher::IsRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

void RelayLauncher::Kill()
{
    m_killed = true;
    m_process.kill();
    m_process.waitForFinished(2000);
}

} // namespace clientsim
