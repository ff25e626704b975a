#pragma once

#include <QFile>
#include <QString>

#include <cstdint>

namespace simcommon {

// Writes 16-bit PCM to a WAV file as it comes; the sizes in the header are
// filled in by Close (also from the destructor), so a file that was never
// closed still plays up to its header's zero sizes.
class WavWriter
{
public:
    WavWriter() = default;
    ~WavWriter();
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;

    bool Open(const QString& path, int channels, int sampleRate, QString* error);
    bool IsOpen() const { return m_file.isOpen(); }
    // frames frames of interleaved host-order samples.
    void Write(const int16_t* samples, int64_t frames);
    void Close();
    int64_t Frames() const { return m_frames; }

private:
    QFile m_file;
    int m_channels = 0;
    int m_sampleRate = 0;
    int64_t m_frames = 0;
};

} // namespace simcommon
