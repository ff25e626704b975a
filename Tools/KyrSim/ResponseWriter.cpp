#include "ResponseWriter.h"

namespace kyrsim {

namespace {

constexpr int kSplitHead = 5;
constexpr int kSplitPauseMs = 50;

} // namespace

ResponseWriter::ResponseWriter(QAbstractSocket* socket, bool split, bool merge, QObject* parent)
    : QObject(parent), m_socket(socket), m_split(split), m_merge(merge)
{
    m_delay.setSingleShot(true);
    connect(&m_delay, &QTimer::timeout, this, &ResponseWriter::Pump);
}

void ResponseWriter::Send(const QByteArray& message)
{
    if (m_merge && !m_holding) {
        m_held = message;
        m_holding = true;
        return;
    }
    if (m_merge) {
        m_holding = false;
        Queue(m_held + message);
        m_held.clear();
        return;
    }
    Queue(message);
}

void ResponseWriter::Flush()
{
    m_delay.stop();
    QByteArray all;
    while (!m_chunks.isEmpty()) {
        all += m_chunks.dequeue().bytes;
    }
    all += m_held;
    m_held.clear();
    m_holding = false;
    Write(all);
}

void ResponseWriter::Queue(const QByteArray& data)
{
    if (m_split && data.size() > kSplitHead) {
        m_chunks.enqueue({data.left(kSplitHead), 0});
        m_chunks.enqueue({data.mid(kSplitHead), kSplitPauseMs});
    } else {
        m_chunks.enqueue({data, 0});
    }
    Pump();
}

void ResponseWriter::Pump()
{
    if (m_delay.isActive()) {
        return;
    }
    while (!m_chunks.isEmpty()) {
        Chunk& next = m_chunks.head();
        if (next.delayMs > 0) {
            m_delay.start(next.delayMs);
            next.delayMs = 0;
            return;
        }
        Write(m_chunks.dequeue().bytes);
    }
}

void ResponseWriter::Write(const QByteArray& data)
{
    if (data.isEmpty() || m_socket->state() != QAbstractSocket::ConnectedState) {
        return;
    }
    m_socket->write(data);
    m_socket->flush();
}

} // namespace kyrsim
