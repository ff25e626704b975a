#pragma once

// The "-c" link: once the program serves its requests it connects to the
// relay's CONFERENCE_SERVER, which tells the relay that it may send them.
// Nothing travels on the link; it stays open as long as the relay runs,
// so its end is how the program learns that the relay is gone.
//
// Threads: the main thread only.

#include <QLocalSocket>
#include <QObject>
#include <QString>

namespace quorvan::velorane::virtualdisplay {

class ConferenceLink : public QObject
{
    Q_OBJECT

public:
    explicit ConferenceLink(const QString& serverName, QObject* parent = nullptr);

    void Connect();

Q_SIGNALS:
    // The relay's server couldn't be reached.
    void SignalUnreachable();
    // The relay closed the link, or ended.
    void SignalClosed();

private:
    void OnConnected();
    void OnError(QLocalSocket::LocalSocketError error);
    void OnDisconnected();
    void OnReadyRead();

    QString mServerName;
    QLocalSocket mSocket;
    bool mConnected = false;
    bool mEnded = false;
};

} // namespace quorvan::velorane::virtualdisplay
