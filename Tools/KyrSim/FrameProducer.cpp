#include "FrameProducer.h"

#include "Console.h"

#include <QDataStream>

namespace kyrsim {

namespace {

// Adds to a 32-bit counter with wrap-around instead of overflow.
qint32 Advance(qint32 number, quint32 step)
{
    return static_cast<qint32>(static_cast<quint32>(number) + step);
}

} // namespace

FrameProducer::FrameProducer(const KyrOptions& options)
    : m_options(options), m_source(options.filler, options.frameBytes),
      m_nextNumber(options.firstFrame)
{
}

void FrameProducer::Start(qint32 width, qint32 height)
{
    m_source.Start(width, height);
}

QByteArray FrameProducer::NextPayload()
{
    const qint64 index = m_index++;
    if (index == m_options.resizeAt) {
        PrintErr(QStringLiteral("frame %1: size changes to %2x%3")
                     .arg(index)
                     .arg(m_options.resizeWidth)
                     .arg(m_options.resizeHeight));
        m_source.Force(m_options.resizeWidth, m_options.resizeHeight);
    }
    qint32 number = m_nextNumber;
    if (index == m_options.jumpAt) {
        number = Advance(number, 1);
    }
    m_nextNumber = Advance(number, 1);

    QByteArray accessUnit = m_source.Next(index, number);
    if (index == m_options.truncateAt) {
        accessUnit.truncate(accessUnit.size() / 2);
    }
    if (index == m_options.oversizedAt && accessUnit.size() < m_options.oversizedBytes) {
        // Zero bytes after an access unit are legal trailing padding.
        accessUnit.append(QByteArray(m_options.oversizedBytes - accessUnit.size(), '\0'));
    }
    qint32 length = accessUnit.size();
    if (index == m_options.truncateLieAt) {
        length += kLieExtra;
    }

    QByteArray body;
    QDataStream stream(&body, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << number << length;
    stream.writeRawData(accessUnit.constData(), accessUnit.size());
    stream << m_source.Width() << m_source.Height();
    return body;
}

} // namespace kyrsim
