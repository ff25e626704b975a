#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace clientsim {

// Messages of the local link, big-endian throughout: int32 size of the
// whole message (its 8 header bytes included), int32 command, and only with
// data a uint32 byte count followed by the bytes.
class LinkMessage
{
public:
    static constexpr quint32 kKillApplication = 0xFE47;
    static constexpr quint32 kConnectUsb = 0xFE48;
    static constexpr quint32 kKillApplication2 = 0xFE49;
    static constexpr quint32 kError = 0xFE50;
    static constexpr quint32 kStartScrape = 0xFE51;
    static constexpr quint32 kDesktopPixels = 0xFE52;

    // A bounded message is what the parser accepts from the relay.
    static constexpr int kMinSize = 8;
    static constexpr int kMaxSize = 16 * 1024 * 1024;

    static QByteArray Build(quint32 command);
    // Size field 12 + data size, then the count and the data.
    static QByteArray Build(quint32 command, const QByteArray& data);
    // A frame payload, little-endian inside: number, length, length filler
    // bytes, and the picture size only when withSize is set.
    static QByteArray FramePayload(qint32 number, int length, bool withSize, qint32 width,
                                   qint32 height);
    // The same with a given bitstream and always the picture size.
    static QByteArray FramePayload(qint32 number, const QByteArray& bitstream, qint32 width,
                                   qint32 height);
};

} // namespace clientsim
