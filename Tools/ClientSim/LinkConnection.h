#pragma once

#include <QByteArray>
#include <QLocalSocket>
#include <QObject>

namespace simcommon {
class Recorder;
}

namespace clientsim {

using simcommon::Recorder;

// One relay connection on the local socket: frames what the relay sends by
// its size field and records each message. Owns the socket and deletes
// itself once the link is gone.
class LinkConnection : public QObject
{
    Q_OBJECT

public:
    LinkConnection(QLocalSocket* socket, Recorder* recorder, QObject* parent);

    QLocalSocket* Socket() const { return m_socket; }
    void Close();

Q_SIGNALS:
    void SignalEnded();

private:
    void OnReadyRead();
    void OnDisconnected();

    QLocalSocket* m_socket;
    Recorder* m_recorder;
    QByteArray m_buffer;
    bool m_ended = false;
};

} // namespace clientsim
