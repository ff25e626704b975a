#include "WavReader.h"

#include <QFile>

namespace driversim {

namespace {

uint32_t Le32(const QByteArray& bytes, int at)
{
    return uint32_t(uint8_t(bytes[at])) | (uint32_t(uint8_t(bytes[at + 1])) << 8) |
           (uint32_t(uint8_t(bytes[at + 2])) << 16) | (uint32_t(uint8_t(bytes[at + 3])) << 24);
}

uint16_t Le16(const QByteArray& bytes, int at)
{
    return static_cast<uint16_t>(uint8_t(bytes[at]) | (uint8_t(bytes[at + 1]) << 8));
}

} // namespace

bool ReadWav(const QString& path, std::vector<int16_t>* samples, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return false;
    }
    const QByteArray bytes = file.readAll();
    if (bytes.size() < 12 || bytes.left(4) != "RIFF" || bytes.mid(8, 4) != "WAVE") {
        *error = QStringLiteral("not a WAV file");
        return false;
    }
    bool formatOk = false;
    int at = 12;
    while (at + 8 <= bytes.size()) {
        const QByteArray id = bytes.mid(at, 4);
        const uint32_t size = Le32(bytes, at + 4);
        const int body = at + 8;
        if (size > static_cast<uint32_t>(bytes.size() - body)) {
            break;
        }
        if (id == "fmt " && size >= 16) {
            formatOk = Le16(bytes, body) == 1 && Le16(bytes, body + 2) == 2 &&
                       Le32(bytes, body + 4) == 48000 && Le16(bytes, body + 14) == 16;
        } else if (id == "data") {
            if (!formatOk) {
                *error = QStringLiteral("only 16-bit PCM, 48 kHz, stereo");
                return false;
            }
            samples->resize(size / 2);
            for (size_t i = 0; i < samples->size(); ++i) {
                (*samples)[i] = static_cast<int16_t>(Le16(bytes, body + static_cast<int>(2 * i)));
            }
            return true;
        }
        at = body + static_cast<int>(size) + static_cast<int>(size & 1);
    }
    *error = QStringLiteral("no data chunk");
    return false;
}

} // namespace driversim
