#pragma once

#include "FrameProducer.h"
#include "KyrAudio.h"
#include "KyrOptions.h"

#include <QByteArray>
#include <QtGlobal>

namespace kyrsim {

// The well-behaved Kyr: builds the response to one request and keeps the
// video state that later responses depend on (picture size, frame number,
// encoder); the frame faults live in FrameProducer.
//
// A request is little-endian: service, command, payload count (header not
// counted), payload. A response header is big-endian: service, command,
// size of the whole message including the 12 header bytes.
class KyrResponder
{
public:
    static constexpr quint32 kServiceVideo = 0xBBFE4599;
    static constexpr quint32 kServiceAudio = 0xEABA0314;
    static constexpr quint32 kStartVideo = 0xCD01;
    static constexpr quint32 kRequestFrame = 0xD0F9;
    static constexpr quint32 kStopVideo = 0xEF34;
    static constexpr quint32 kRequestAudio = 0x62EB;
    static constexpr quint32 kTimeOffsetPing = 0xD43E;

    // audio answers the audio service; it outlives the responder.
    KyrResponder(const KyrOptions& options, KyrAudio* audio);

    // payload: the request's bytes after its 12-byte header.
    QByteArray Respond(quint32 service, quint32 command, const QByteArray& payload);

    static QByteArray Header(quint32 service, quint32 command, quint32 size);
    // The answer faults both carriers share, for the answer numbered
    // answered (from 0) of a connection: --garbage-after (once), --huge-size
    // (the second answer, once) and --small-size (every answer). The flags
    // remember what was sent once. A null array when none applies.
    static QByteArray SharedFault(const KyrOptions& options, quint32 service, quint32 command,
                                  int answered, bool* garbageSent, bool* hugeSent);

private:
    FrameProducer m_frames;
    KyrAudio* m_audio;
};

} // namespace kyrsim
