#pragma once

#include <QLocalSocket>
#include <QObject>
#include <QString>

namespace simcommon {
class Recorder;
}

namespace vdisplaysim {

using simcommon::Recorder;

// The -c connection to the conference server: made once, kept open, and
// nothing is ever sent on it. Whatever arrives is read and dropped.
class ConferenceLink : public QObject
{
    Q_OBJECT

public:
    ConferenceLink(const QString& serverName, Recorder* recorder, QObject* parent);

    void Start();

private:
    void OnConnected();
    void OnError(QLocalSocket::LocalSocketError error);
    void OnDisconnected();

    QString m_serverName;
    Recorder* m_recorder;
    QLocalSocket* m_socket; // child of this link
    bool m_connected = false;
    bool m_failed = false;
};

} // namespace vdisplaysim
