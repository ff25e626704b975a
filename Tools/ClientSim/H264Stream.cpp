#include "H264Stream.h"

#include "Console.h"
#include "LinkMessage.h"

namespace clientsim {

H264Stream::H264Stream(int count, int width, int height, QObject* parent)
    : QObject(parent), m_count(count), m_width(width), m_height(height)
{
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(kIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &H264Stream::SendNext);
}

void H264Stream::Start()
{
    int width = m_width;
    int height = m_height;
    if (simcommon::H264Encoder::FitSize(&width, &height)) {
        PrintErr(QStringLiteral("pixels-h264: size %1x%2 changed to %3x%4 for the encoder")
                     .arg(m_width)
                     .arg(m_height)
                     .arg(width)
                     .arg(height));
    }
    QString error;
    if (!m_encoder.Open(width, height, &error)) {
        PrintErr(QStringLiteral("pixels-h264: can't open the encoder: %1").arg(error));
        Finish();
        return;
    }
    m_timer.start();
    SendNext();
}

void H264Stream::Stop()
{
    Finish();
}

void H264Stream::Finish()
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    m_timer.stop();
    Q_EMIT SignalFinished();
}

void H264Stream::SendNext()
{
    if (m_finished) {
        return;
    }
    QString error;
    const QByteArray accessUnit = m_encoder.EncodeNext(m_sent, m_sent, &error);
    if (accessUnit.isEmpty()) {
        PrintErr(QStringLiteral("pixels-h264: frame %1: %2").arg(m_sent).arg(error));
        Finish();
        return;
    }
    const QByteArray payload =
        LinkMessage::FramePayload(m_sent, accessUnit, m_encoder.Width(), m_encoder.Height());
    ++m_sent;
    Q_EMIT SignalMessage(LinkMessage::Build(LinkMessage::kDesktopPixels, payload));
    if (m_sent >= m_count) {
        Finish();
    }
}

} // namespace clientsim
