#include "KyrResponder.h"

#include <QDataStream>

namespace kyrsim {

KyrResponder::KyrResponder(const KyrOptions& options, KyrAudio* audio)
    : m_frames(options), m_audio(audio)
{
}

QByteArray KyrResponder::Header(quint32 service, quint32 command, quint32 size)
{
    QByteArray header;
    QDataStream stream(&header, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::BigEndian);
    stream << service << command << size;
    return header;
}

QByteArray KyrResponder::SharedFault(const KyrOptions& options, quint32 service, quint32 command,
                                     int answered, bool* garbageSent, bool* hugeSent)
{
    constexpr quint32 kHugeSize = 0xFFFFFFF0;
    constexpr quint32 kSmallSize = 4;
    if (options.garbageAfter >= 0 && !*garbageSent && answered == options.garbageAfter) {
        *garbageSent = true;
        return QByteArray(options.garbageBytes, static_cast<char>(0xA5));
    }
    if (options.hugeSize && !*hugeSent && answered >= 1) {
        *hugeSent = true;
        return Header(service, command, kHugeSize);
    }
    if (options.smallSize) {
        return Header(service, command, kSmallSize);
    }
    return QByteArray();
}

QByteArray KyrResponder::Respond(quint32 service, quint32 command, const QByteArray& payload)
{
    QByteArray body;
    if (service == kServiceVideo && command == kStartVideo && payload.size() >= 8) {
        qint32 width = 0;
        qint32 height = 0;
        QDataStream stream(payload);
        stream.setByteOrder(QDataStream::LittleEndian);
        stream >> width >> height;
        m_frames.Start(width, height);
    } else if (service == kServiceVideo && command == kRequestFrame) {
        body = m_frames.NextPayload();
    } else if (service == kServiceAudio && m_audio) {
        body = m_audio->Respond(command, payload);
    }
    // Every other command, known or not, gets an empty response.
    return Header(service, command, static_cast<quint32>(12 + body.size())) + body;
}

} // namespace kyrsim
