#include "ReplyWriter.h"

#include "Tools/Common/Recorder.h"

#include <algorithm>

namespace vdisplaysim {

ReplyWriter::ReplyWriter(QLocalSocket* socket, int connection, Recorder* recorder, QObject* parent)
    : QObject(parent), m_socket(socket), m_connection(connection), m_recorder(recorder)
{
    m_clock.start();
    m_wait.setSingleShot(true);
    m_pause.setSingleShot(true);
    connect(&m_wait, &QTimer::timeout, this, &ReplyWriter::Pump);
    connect(&m_pause, &QTimer::timeout, this, &ReplyWriter::OnPauseOver);
}

void ReplyWriter::Send(quint16 command, const QString& name, const QByteArray& reply, int delayMs,
                       int cutBytes, SplitFault split)
{
    if (m_stopped) {
        return;
    }
    if (m_stuck) {
        m_recorder->Line(QStringLiteral("silent %1 %2").arg(m_connection).arg(name));
        return;
    }
    m_queue.enqueue({command, name, reply, m_clock.elapsed() + delayMs, cutBytes, split});
    Pump();
}

void ReplyWriter::Stop()
{
    m_stopped = true;
    m_queue.clear();
    m_rest.clear();
    m_wait.stop();
    m_pause.stop();
}

void ReplyWriter::Pump()
{
    // A split reply's second half goes out before anything behind it.
    while (!m_stopped && !m_stuck && !m_pause.isActive() && !m_queue.isEmpty()) {
        const qint64 wait = m_queue.head().dueMs - m_clock.elapsed();
        if (wait > 0) {
            m_wait.start(static_cast<int>(wait));
            return;
        }
        WriteFirst(m_queue.dequeue());
    }
}

void ReplyWriter::WriteFirst(const Pending& reply)
{
    const int size = reply.bytes.size();
    const QString hex = QString::fromLatin1(reply.bytes.toHex());
    m_recorder->Line(QStringLiteral("reply %1 %2").arg(m_connection).arg(hex));
    if (reply.cutBytes >= 0) {
        const int head = std::min(reply.cutBytes, size);
        Write(reply.bytes.left(head));
        m_recorder->Line(QStringLiteral("cut %1 %2").arg(m_connection).arg(head));
        StickAfterCut();
        return;
    }
    if (reply.split.headBytes >= 0) {
        const int head = std::min(reply.split.headBytes, size);
        Write(reply.bytes.left(head));
        m_recorder->Line(QStringLiteral("split %1 %2").arg(m_connection).arg(head));
        if (head < size) {
            m_rest = reply.bytes.mid(head);
            m_restCommand = reply.command;
            m_pause.start(reply.split.pauseMs);
            return;
        }
    } else {
        Write(reply.bytes);
    }
    Q_EMIT SignalWritten(reply.command);
}

void ReplyWriter::OnPauseOver()
{
    const QByteArray rest = m_rest;
    m_rest.clear();
    Write(rest);
    Q_EMIT SignalWritten(m_restCommand);
    Pump();
}

void ReplyWriter::Write(const QByteArray& data)
{
    if (data.isEmpty() || m_socket->state() != QLocalSocket::ConnectedState) {
        return;
    }
    m_socket->write(data);
    m_socket->flush();
}

void ReplyWriter::StickAfterCut()
{
    m_stuck = true;
    m_wait.stop();
    while (!m_queue.isEmpty()) {
        const Pending dropped = m_queue.dequeue();
        m_recorder->Line(QStringLiteral("silent %1 %2").arg(m_connection).arg(dropped.name));
    }
}

} // namespace vdisplaysim
