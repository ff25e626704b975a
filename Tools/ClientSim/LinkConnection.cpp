#include "LinkConnection.h"

#include "Console.h"
#include "LinkMessage.h"
#include "Tools/Common/Recorder.h"

#include <QDataStream>

namespace clientsim {

LinkConnection::LinkConnection(QLocalSocket* socket, Recorder* recorder, QObject* parent)
    : QObject(parent), m_socket(socket), m_recorder(recorder)
{
    m_socket->setParent(this);
    m_recorder->Line(QStringLiteral("connected"));
    PrintErr(QStringLiteral("relay connected"));
    connect(m_socket, &QLocalSocket::readyRead, this, &LinkConnection::OnReadyRead);
    connect(m_socket, &QLocalSocket::disconnected, this, &LinkConnection::OnDisconnected);
    if (m_socket->state() != QLocalSocket::ConnectedState) {
        OnDisconnected();
    }
}

void LinkConnection::Close()
{
    m_socket->flush();
    m_socket->disconnectFromServer();
}

void LinkConnection::OnReadyRead()
{
    m_buffer += m_socket->readAll();
    while (m_buffer.size() >= 4) {
        qint32 size = 0;
        QDataStream stream(m_buffer);
        stream >> size;
        if (size < LinkMessage::kMinSize || size > LinkMessage::kMaxSize) {
            // No way to find the next message again: drop what we hold.
            m_recorder->Line(QStringLiteral("garbage ") + QString::fromLatin1(m_buffer.toHex()));
            m_buffer.clear();
            return;
        }
        if (m_buffer.size() < size) {
            return;
        }
        m_recorder->Line(QStringLiteral("message ") +
                         QString::fromLatin1(m_buffer.left(size).toHex()));
        m_buffer.remove(0, size);
    }
}

void LinkConnection::OnDisconnected()
{
    if (m_ended) {
        return;
    }
    m_ended = true;
    if (m_socket->bytesAvailable() > 0) {
        OnReadyRead();
    }
    if (!m_buffer.isEmpty()) {
        m_recorder->Line(QStringLiteral("partial ") + QString::fromLatin1(m_buffer.toHex()));
    }
    m_recorder->Line(QStringLiteral("disconnected"));
    PrintErr(QStringLiteral("relay disconnected"));
    Q_EMIT SignalEnded();
    deleteLater();
}

} // namespace clientsim
