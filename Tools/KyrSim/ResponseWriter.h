#pragma once

#include <QAbstractSocket>
#include <QByteArray>
#include <QObject>
#include <QQueue>
#include <QTimer>

namespace kyrsim {

// Writes responses to the socket, whole or deliberately badly cut:
// split writes each message as 5 bytes, then the rest 50 ms later; merge
// holds a message back and writes it in one call with the next one. Order
// is kept: a message waits behind the delayed half of the one before.
class ResponseWriter : public QObject
{
    Q_OBJECT

public:
    ResponseWriter(QAbstractSocket* socket, bool split, bool merge, QObject* parent);

    void Send(const QByteArray& message);
    // Writes whatever is held or delayed now, in order.
    void Flush();

private:
    struct Chunk
    {
        QByteArray bytes;
        int delayMs;
    };

    void Queue(const QByteArray& data);
    void Pump();
    void Write(const QByteArray& data);

    QAbstractSocket* m_socket;
    bool m_split;
    bool m_merge;
    bool m_holding = false;
    QByteArray m_held;
    QQueue<Chunk> m_chunks;
    QTimer m_delay;
};

} // namespace kyrsim
