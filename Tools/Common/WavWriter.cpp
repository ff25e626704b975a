#include "WavWriter.h"

#include <QDataStream>

namespace simcommon {

namespace {

void WriteHeader(QFile& file, int channels, int sampleRate, quint32 dataBytes)
{
    QDataStream out(&file);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << static_cast<quint32>(36 + dataBytes);
    out.writeRawData("WAVEfmt ", 8);
    out << static_cast<quint32>(16) << static_cast<quint16>(1) << static_cast<quint16>(channels)
        << static_cast<quint32>(sampleRate) << static_cast<quint32>(sampleRate * channels * 2)
        << static_cast<quint16>(channels * 2) << static_cast<quint16>(16);
    out.writeRawData("data", 4);
    out << dataBytes;
}

} // namespace

WavWriter::~WavWriter()
{
    Close();
}

bool WavWriter::Open(const QString& path, int channels, int sampleRate, QString* error)
{
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        if (error) {
            *error = m_file.errorString();
        }
        return false;
    }
    m_channels = channels;
    m_frames = 0;
    WriteHeader(m_file, channels, sampleRate, 0);
    m_sampleRate = sampleRate;
    return true;
}

void WavWriter::Write(const int16_t* samples, int64_t frames)
{
    if (!m_file.isOpen() || frames <= 0) {
        return;
    }
    QDataStream out(&m_file);
    out.setByteOrder(QDataStream::LittleEndian);
    for (int64_t i = 0; i < frames * m_channels; ++i) {
        out << static_cast<qint16>(samples[i]);
    }
    m_frames += frames;
    // The header follows the data, so a file cut short by a kill still
    // plays what it holds.
    const qint64 end = m_file.pos();
    m_file.seek(0);
    WriteHeader(m_file, m_channels, m_sampleRate, static_cast<quint32>(m_frames * m_channels * 2));
    m_file.seek(end);
    m_file.flush();
}

void WavWriter::Close()
{
    if (!m_file.isOpen()) {
        return;
    }
    const quint32 dataBytes = static_cast<quint32>(m_frames * m_channels * 2);
    m_file.seek(0);
    WriteHeader(m_file, m_channels, m_sampleRate, dataBytes);
    m_file.close();
}

} // namespace simcommon
