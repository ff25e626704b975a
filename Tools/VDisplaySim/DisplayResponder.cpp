#include "DisplayResponder.h"

#include "CommandTable.h"
#include "WireMessage.h"

#include <QStringList>

namespace vdisplaysim {

namespace {

QByteArray RectBytes(const Rect& rect)
{
    QByteArray bytes;
    wire::AppendInt32(&bytes, rect.x);
    wire::AppendInt32(&bytes, rect.y);
    wire::AppendInt32(&bytes, rect.width);
    wire::AppendInt32(&bytes, rect.height);
    return bytes;
}

QString Int32Fields(const QByteArray& message, int count)
{
    QStringList fields;
    for (int i = 0; i < count; ++i) {
        fields.append(QString::number(wire::ReadInt32(message, wire::kHeaderSize + 4 * i)));
    }
    return fields.join(QLatin1Char(' '));
}

// The request's fields as the record shows them.
QString DecodeFields(quint16 command, const QByteArray& message)
{
    const int at = wire::kHeaderSize;
    switch (command) {
    case command::kCreateConference:
        return Int32Fields(message, 2);
    case command::kSetResolution:
        return QStringLiteral("%1 %2 %3")
            .arg(wire::ReadInt32(message, at))
            .arg(wire::ReadInt32(message, at + 4))
            .arg(static_cast<quint8>(wire::ReadInt8(message, at + 8)));
    case command::kSetCursorCage:
        return QStringLiteral("%1 %2")
            .arg(static_cast<quint8>(wire::ReadInt8(message, at)))
            .arg(wire::ReadInt64(message, at + 1));
    case command::kReservedRect:
        return Int32Fields(message, 4);
    default:
        return QString();
    }
}

} // namespace

DisplayResponder::DisplayResponder(const VDisplayOptions& options) : m_options(options) {}

Answer DisplayResponder::Respond(const QByteArray& message) const
{
    Answer answer;
    answer.command = static_cast<quint16>(wire::ReadInt16(message, 4));
    const CommandInfo* info = CommandTable::Find(answer.command);
    if (info == nullptr) {
        answer.name = QStringLiteral("unknown");
        answer.args = QString::number(answer.command);
        answer.reply =
            wire::BuildReply(answer.command, Result(answer.command, wire::kGeneralFailure), {});
        return answer;
    }
    answer.name = QLatin1String(info->name);
    answer.args = DecodeFields(answer.command, message);
    if (!info->served) {
        answer.reply =
            wire::BuildReply(answer.command, Result(answer.command, wire::kGeneralFailure), {});
        return answer;
    }
    // The display process refuses to be told to quit over the link.
    const qint32 normal = answer.command == command::kQuitProcess ? wire::kGeneralFailure : 0;
    answer.reply =
        wire::BuildReply(answer.command, Result(answer.command, normal), Payload(answer.command));
    return answer;
}

QByteArray DisplayResponder::Payload(quint16 command) const
{
    switch (command) {
    case command::kSetCursorCage:
        return RectBytes(m_options.cageRect);
    case command::kRequestCalibrate: {
        QByteArray payload;
        wire::AppendInt8(&payload, m_options.calibrateFound ? 1 : 0);
        if (m_options.calibrateFound) {
            payload += RectBytes(m_options.calibrateRect);
        }
        return payload;
    }
    default:
        return QByteArray();
    }
}

qint32 DisplayResponder::Result(quint16 command, qint32 normal) const
{
    return m_options.results.value(command, normal);
}

} // namespace vdisplaysim
