#include "VideoSource.h"

#include "Console.h"

namespace kyrsim {

namespace {

// An H.264 access unit delimiter, repeated as filler bitstream.
const char kFiller[] = {0x00, 0x00, 0x00, 0x01, 0x09, 0x10};
constexpr int kReportEvery = 150;

} // namespace

VideoSource::VideoSource(bool filler, int fillerBytes) : m_filler(filler)
{
    m_fillerBytes.reserve(fillerBytes);
    for (int i = 0; i < fillerBytes; ++i) {
        m_fillerBytes.append(kFiller[i % sizeof(kFiller)]);
    }
}

void VideoSource::Start(qint32 width, qint32 height)
{
    if (!m_forced) {
        m_width = width;
        m_height = height;
    }
    m_reopen = true;
}

void VideoSource::Force(qint32 width, qint32 height)
{
    m_width = width;
    m_height = height;
    m_forced = true;
    m_reopen = true;
}

QByteArray VideoSource::Next(qint64 index, qint32 label)
{
    if (m_filler) {
        return m_fillerBytes;
    }
    if (m_reopen) {
        m_reopen = false;
        OpenEncoder();
    }
    if (!m_encoder.IsOpen()) {
        return {};
    }
    QElapsedTimer timer;
    timer.start();
    QString error;
    const QByteArray accessUnit = m_encoder.EncodeNext(index, label, &error);
    if (accessUnit.isEmpty()) {
        PrintErr(QStringLiteral("encoding frame %1 failed: %2").arg(label).arg(error));
    }
    CountTime(timer.nsecsElapsed());
    return accessUnit;
}

void VideoSource::OpenEncoder()
{
    int width = m_width;
    int height = m_height;
    if (simcommon::H264Encoder::FitSize(&width, &height)) {
        PrintErr(QStringLiteral("picture size %1x%2 changed to %3x%4 for the encoder")
                     .arg(m_width)
                     .arg(m_height)
                     .arg(width)
                     .arg(height));
    }
    m_width = width;
    m_height = height;
    m_timed = 0;
    m_totalNs = 0;
    m_maxNs = 0;
    QString error;
    if (!m_encoder.Open(width, height, &error)) {
        PrintErr(QStringLiteral("can't open the H.264 encoder at %1x%2: %3")
                     .arg(width)
                     .arg(height)
                     .arg(error));
        return;
    }
    PrintErr(QStringLiteral("encoding H.264 at %1x%2").arg(width).arg(height));
}

void VideoSource::CountTime(qint64 nanoseconds)
{
    ++m_timed;
    m_totalNs += nanoseconds;
    m_maxNs = qMax(m_maxNs, nanoseconds);
    if (m_timed < kReportEvery) {
        return;
    }
    PrintErr(QStringLiteral("encoded %1 frames at %2x%3: mean %4 ms, max %5 ms")
                 .arg(m_timed)
                 .arg(m_width)
                 .arg(m_height)
                 .arg(static_cast<double>(m_totalNs) / m_timed / 1e6, 0, 'f', 1)
                 .arg(static_cast<double>(m_maxNs) / 1e6, 0, 'f', 1));
    m_timed = 0;
    m_totalNs = 0;
    m_maxNs = 0;
}

} // namespace kyrsim
