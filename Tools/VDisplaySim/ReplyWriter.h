#pragma once

#include "VDisplayOptions.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QLocalSocket>
#include <QObject>
#include <QQueue>
#include <QString>
#include <QTimer>

namespace simcommon {
class Recorder;
}

namespace vdisplaysim {

using simcommon::Recorder;

// Writes one connection's replies in order, each after the --delay, whole,
// split in two writes, or cut short. After a cut the connection is stuck:
// nothing more is ever written on it, and each reply still waiting or
// still to come is recorded as silent instead.
class ReplyWriter : public QObject
{
    Q_OBJECT

public:
    ReplyWriter(QLocalSocket* socket, int connection, Recorder* recorder, QObject* parent);

    // cutBytes < 0: no cut; split.headBytes < 0: no split.
    void Send(quint16 command, const QString& name, const QByteArray& reply, int delayMs,
              int cutBytes, SplitFault split);
    // Drops everything still waiting, without records (the link is gone).
    void Stop();

Q_SIGNALS:
    // The last byte of a reply to command has been handed to the socket.
    void SignalWritten(quint16 command);

private:
    struct Pending
    {
        quint16 command;
        QString name;
        QByteArray bytes;
        qint64 dueMs;
        int cutBytes;
        SplitFault split;
    };

    void Pump();
    void WriteFirst(const Pending& reply);
    void OnPauseOver();
    void Write(const QByteArray& data);
    void StickAfterCut();

    QLocalSocket* m_socket;
    int m_connection;
    Recorder* m_recorder;
    QQueue<Pending> m_queue;
    QElapsedTimer m_clock;
    QTimer m_wait;  // until the next reply is due
    QTimer m_pause; // the pause inside a split reply
    QByteArray m_rest;
    quint16 m_restCommand = 0;
    bool m_stuck = false;
    bool m_stopped = false;
};

} // namespace vdisplaysim
