#pragma once

#include "Tools/Common/H264Encoder.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QtGlobal>

namespace kyrsim {

// Where the access units come from: the H.264 encoder of the test picture,
// or, in filler mode, a fixed block of filler bitstream. Keeps the picture
// size: the one StartVideo asked for (fitted to what the encoder takes) or,
// once forced, the forced one.
class VideoSource
{
public:
    VideoSource(bool filler, int fillerBytes);

    // StartVideo: a new encoder at the asked size, first picture an IDR.
    void Start(qint32 width, qint32 height);
    // From now on encodes at this size whatever StartVideo asks.
    void Force(qint32 width, qint32 height);

    // One access unit for picture `index`, showing `label`.
    QByteArray Next(qint64 index, qint32 label);
    qint32 Width() const { return m_width; }
    qint32 Height() const { return m_height; }

private:
    void OpenEncoder();
    void CountTime(qint64 nanoseconds);

    bool m_filler;
    QByteArray m_fillerBytes;
    qint32 m_width = 1280;
    qint32 m_height = 720;
    bool m_forced = false;
    bool m_reopen = true;
    simcommon::H264Encoder m_encoder;
    // Encoding time, reported on stderr every kReportEvery pictures.
    int m_timed = 0;
    qint64 m_totalNs = 0;
    qint64 m_maxNs = 0;
};

} // namespace kyrsim
