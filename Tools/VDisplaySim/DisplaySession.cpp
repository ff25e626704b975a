#include "DisplaySession.h"

#include "CommandTable.h"
#include "Console.h"
#include "ReplyWriter.h"
#include "Tools/Common/Recorder.h"
#include "WireMessage.h"

namespace vdisplaysim {

DisplaySession::DisplaySession(QLocalSocket* socket, int number, const VDisplayOptions& options,
                               Recorder* recorder, QObject* parent)
    : QObject(parent), m_socket(socket), m_number(number), m_options(options), m_recorder(recorder),
      m_responder(options), m_writer(new ReplyWriter(socket, number, recorder, this))
{
    m_socket->setParent(this);
    Record(QStringLiteral("open"), QString());
    PrintErr(QStringLiteral("connection %1 opened").arg(m_number));
    connect(m_writer, &ReplyWriter::SignalWritten, this, [this](quint16 command) {
        if (command == command::kDestroyConference) {
            Q_EMIT SignalDestroyReplied();
        }
    });
    connect(m_socket, &QLocalSocket::readyRead, this, &DisplaySession::OnReadyRead);
    connect(m_socket, &QLocalSocket::disconnected, this, &DisplaySession::OnDisconnected);
    if (m_socket->state() != QLocalSocket::ConnectedState) {
        OnDisconnected();
        return;
    }
    if (m_socket->bytesAvailable() > 0) {
        OnReadyRead();
    }
}

void DisplaySession::OnReadyRead()
{
    if (m_closing) {
        m_socket->readAll(); // the rest is of no interest any more
        return;
    }
    m_buffer += m_socket->readAll();
    while (TakeMessage()) {
    }
}

bool DisplaySession::TakeMessage()
{
    if (m_closing || m_buffer.size() < 4) {
        return false;
    }
    const qint32 size = wire::ReadInt32(m_buffer, 0);
    if (size < wire::kHeaderSize || size > wire::kMaxSize) {
        // Nothing to find the next message by: give the connection up.
        Record(QStringLiteral("bad"), QStringLiteral("size %1").arg(size));
        PrintErr(QStringLiteral("connection %1: bad size %2, closing").arg(m_number).arg(size));
        m_closing = true;
        m_buffer.clear();
        m_writer->Stop();
        m_socket->disconnectFromServer();
        return false;
    }
    if (m_buffer.size() < size) {
        return false;
    }
    const QByteArray message = m_buffer.left(size);
    m_buffer.remove(0, size);
    Handle(message);
    return true;
}

void DisplaySession::Handle(const QByteArray& message)
{
    Record(QStringLiteral("request"), QString::fromLatin1(message.toHex()));
    const qint8 type = wire::ReadInt8(message, 6);
    if (type != wire::kRequest) {
        Record(QStringLiteral("skipped"), QStringLiteral("type %1").arg(static_cast<quint8>(type)));
        return;
    }
    const Answer answer = m_responder.Respond(message);
    Record(QStringLiteral("command"),
           answer.args.isEmpty() ? answer.name : answer.name + QLatin1Char(' ') + answer.args);
    if (m_options.silent.contains(answer.command)) {
        Record(QStringLiteral("silent"), answer.name);
        return;
    }
    m_writer->Send(answer.command, answer.name, answer.reply, m_options.delayMs,
                   m_options.cuts.value(answer.command, -1),
                   m_options.splits.value(answer.command, SplitFault{-1, 0}));
}

void DisplaySession::OnDisconnected()
{
    if (m_ended) {
        return;
    }
    m_ended = true;
    m_writer->Stop();
    Record(QStringLiteral("closed"), QString());
    PrintErr(QStringLiteral("connection %1 closed").arg(m_number));
    deleteLater();
}

void DisplaySession::Record(const QString& what, const QString& rest)
{
    QString line = QStringLiteral("%1 %2").arg(what).arg(m_number);
    if (!rest.isEmpty()) {
        line += QLatin1Char(' ') + rest;
    }
    m_recorder->Line(line);
}

} // namespace vdisplaysim
