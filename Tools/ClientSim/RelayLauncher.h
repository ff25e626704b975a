#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace clientsim {

// Starts the relay program with client-sim's own standard streams and
// reports how it ended.
class RelayLauncher : public QObject
{
    Q_OBJECT

public:
    explicit RelayLauncher(QObject* parent);

    void Start(const QString& program, const QStringList& arguments);
    bool IsRunning() const;
    // Kills the relay and waits for it briefly.
    void Kill();

Q_SIGNALS:
    void SignalExited(int exitCode, bool crashed);
    void SignalFailedToStart(const QString& reason);

private:
    QProcess m_process;
    bool m_killed = false;
};

} // namespace clientsim
