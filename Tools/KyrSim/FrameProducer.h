#pragma once

#include "KyrOptions.h"
#include "VideoSource.h"

#include <QByteArray>
#include <QtGlobal>

namespace kyrsim {

// Builds the frame payloads of one connection and applies the frame faults.
// A frame payload is little-endian: int32 frame number, int32 length, the
// access unit, int32 width, int32 height.
class FrameProducer
{
public:
    explicit FrameProducer(const KyrOptions& options);

    // StartVideo with the size the relay asked for.
    void Start(qint32 width, qint32 height);
    QByteArray NextPayload();

private:
    // Bytes the length field claims beyond the truth under --truncate-lie-at:
    // more than the width and height that follow.
    static constexpr int kLieExtra = 4096;

    KyrOptions m_options;
    VideoSource m_source;
    qint32 m_nextNumber;
    qint64 m_index = 0; // frames built so far on this connection
};

} // namespace kyrsim
