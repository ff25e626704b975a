#include "KyrResponder.h"

#include <QDataStream>

namespace kyrsim {

namespace {

// An H.264 access unit delimiter, repeated as filler bitstream.
const char kFiller[] = {0x00, 0x00, 0x00, 0x01, 0x09, 0x10};

} // namespace

KyrResponder::KyrResponder(qint32 firstFrame, int frameBytes, int audioBytes)
    : m_nextFrame(firstFrame), m_audioBytes(audioBytes)
{
    m_bitstream.reserve(frameBytes);
    for (int i = 0; i < frameBytes; ++i) {
        m_bitstream.append(kFiller[i % sizeof(kFiller)]);
    }
}

QByteArray KyrResponder::Header(quint32 service, quint32 command, quint32 size)
{
    QByteArray header;
    QDataStream stream(&header, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::BigEndian);
    stream << service << command << size;
    return header;
}

QByteArray KyrResponder::Respond(quint32 service, quint32 command, const QByteArray& payload)
{
    QByteArray body;
    if (service == kServiceVideo && command == kStartVideo && payload.size() >= 8) {
        QDataStream stream(payload);
        stream.setByteOrder(QDataStream::LittleEndian);
        stream >> m_width >> m_height;
    } else if (service == kServiceVideo && command == kRequestFrame) {
        body = FramePayload();
    } else if (service == kServiceAudio && command == kRequestAudio) {
        body = QByteArray(m_audioBytes, '\0');
    } else if (service == kServiceAudio && command == kTimeOffsetPing) {
        body = payload.left(8);
    }
    // Every other command, known or not, gets an empty response.
    return Header(service, command, static_cast<quint32>(12 + body.size())) + body;
}

QByteArray KyrResponder::FramePayload()
{
    QByteArray body;
    QDataStream stream(&body, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << m_nextFrame << static_cast<qint32>(m_bitstream.size());
    stream.writeRawData(m_bitstream.constData(), m_bitstream.size());
    stream << m_width << m_height;
    // Wraps like the 32-bit counter it models instead of overflowing.
    m_nextFrame = static_cast<qint32>(static_cast<quint32>(m_nextFrame) + 1u);
    return body;
}

} // namespace kyrsim
