#include "WireMessage.h"

namespace vdisplaysim {

namespace wire {

namespace {

quint64 ReadBigEndian(const QByteArray& data, int offset, int bytes)
{
    quint64 value = 0;
    for (int i = 0; i < bytes; ++i) {
        const int at = offset + i;
        const quint8 byte = at < data.size() ? static_cast<quint8>(data.at(at)) : 0;
        value = (value << 8) | byte;
    }
    return value;
}

void AppendBigEndian(QByteArray* data, quint64 value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i) {
        data->append(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
}

} // namespace

qint8 ReadInt8(const QByteArray& data, int offset)
{
    return static_cast<qint8>(ReadBigEndian(data, offset, 1));
}

qint16 ReadInt16(const QByteArray& data, int offset)
{
    return static_cast<qint16>(ReadBigEndian(data, offset, 2));
}

qint32 ReadInt32(const QByteArray& data, int offset)
{
    return static_cast<qint32>(ReadBigEndian(data, offset, 4));
}

qint64 ReadInt64(const QByteArray& data, int offset)
{
    return static_cast<qint64>(ReadBigEndian(data, offset, 8));
}

void AppendInt8(QByteArray* data, qint8 value)
{
    AppendBigEndian(data, static_cast<quint8>(value), 1);
}

void AppendInt32(QByteArray* data, qint32 value)
{
    AppendBigEndian(data, static_cast<quint32>(value), 4);
}

QByteArray BuildReply(quint16 command, qint32 result, const QByteArray& payload)
{
    QByteArray reply;
    reply.reserve(kReplyHeaderSize + payload.size());
    AppendInt32(&reply, kReplyHeaderSize + payload.size());
    AppendBigEndian(&reply, command, 2);
    AppendInt8(&reply, kReply);
    AppendInt32(&reply, result);
    reply.append(payload);
    return reply;
}

} // namespace wire

} // namespace vdisplaysim
