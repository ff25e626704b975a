#include "LinkMessage.h"

#include <QDataStream>

namespace clientsim {

namespace {

// An H.264 access unit delimiter, repeated as filler bitstream.
const char kFiller[] = {0x00, 0x00, 0x00, 0x01, 0x09, 0x10};

} // namespace

QByteArray LinkMessage::Build(quint32 command)
{
    QByteArray message;
    QDataStream stream(&message, QIODevice::WriteOnly);
    stream << static_cast<qint32>(8) << command;
    return message;
}

QByteArray LinkMessage::Build(quint32 command, const QByteArray& data)
{
    QByteArray message;
    QDataStream stream(&message, QIODevice::WriteOnly);
    stream << static_cast<qint32>(12 + data.size()) << command << static_cast<quint32>(data.size());
    stream.writeRawData(data.constData(), data.size());
    return message;
}

QByteArray LinkMessage::FramePayload(qint32 number, int length, bool withSize, qint32 width,
                                     qint32 height)
{
    QByteArray payload;
    QDataStream stream(&payload, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << number << static_cast<qint32>(length);
    QByteArray bitstream;
    bitstream.reserve(length);
    for (int i = 0; i < length; ++i) {
        bitstream.append(kFiller[i % sizeof(kFiller)]);
    }
    stream.writeRawData(bitstream.constData(), bitstream.size());
    if (withSize) {
        stream << width << height;
    }
    return payload;
}

QByteArray LinkMessage::FramePayload(qint32 number, const QByteArray& bitstream, qint32 width,
                                     qint32 height)
{
    QByteArray payload;
    QDataStream stream(&payload, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << number << static_cast<qint32>(bitstream.size());
    stream.writeRawData(bitstream.constData(), bitstream.size());
    stream << width << height;
    return payload;
}

} // namespace clientsim
