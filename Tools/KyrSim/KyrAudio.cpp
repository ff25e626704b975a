#include "KyrAudio.h"

#include "Tools/Common/Recorder.h"
#include "Tools/Common/WavWriter.h"

#include <QDataStream>
#include <QDateTime>
#include <QRandomGenerator>

#include <opus.h>

#include <cmath>
#include <vector>

namespace kyrsim {

namespace {

constexpr int kSampleRate = 48000;
constexpr int kChannels = 2;
// An Opus packet of the relay holds 10 ms; 120 ms is the most Opus has.
constexpr int kMaxDecodeFrames = 5760;
constexpr double kTwoPi = 6.283185307179586;

qint64 NowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

KyrAudio::KyrAudio(const KyrOptions& options, simcommon::Recorder* recorder,
                   simcommon::WavWriter* speakerWav)
    : m_options(options), m_recorder(recorder), m_speakerWav(speakerWav)
{
    int error = 0;
    m_decoder = opus_decoder_create(kSampleRate, kChannels, &error);
    if (error != OPUS_OK) {
        m_decoder = nullptr;
    }
}

KyrAudio::~KyrAudio()
{
    if (m_decoder) {
        opus_decoder_destroy(m_decoder);
    }
}

QByteArray KyrAudio::Respond(quint32 command, const QByteArray& payload)
{
    switch (command) {
    case kAudioStart:
        m_recorder->Line(QStringLiteral("audio-start"));
        return QByteArray();
    case kAudioStop:
        m_recorder->Line(QStringLiteral("audio-stop"));
        return QByteArray();
    case kSpeakerData:
        TakeSpeaker(payload);
        return QByteArray();
    case kTimeOffsetPing: {
        // Little-endian in, behind the count word of the header: the
        // relay's clock.
        QDataStream in(payload);
        in.setByteOrder(QDataStream::LittleEndian);
        qint64 sent = 0;
        in >> sent;
        const qint64 kyrNow = NowMs() + m_options.clockAheadMs;
        m_recorder->Line(QStringLiteral("ping sent=%1 kyr=%2 bytes=%3")
                             .arg(sent)
                             .arg(kyrNow)
                             .arg(payload.size()));
        QByteArray body;
        QDataStream out(&body, QIODevice::WriteOnly);
        out.setByteOrder(QDataStream::BigEndian);
        out << sent << kyrNow;
        return body;
    }
    case kRequestAudio:
        return MicrophoneBody();
    default:
        return QByteArray();
    }
}

QByteArray KyrAudio::MicrophoneBody()
{
    const int index = m_micResponses++;
    const int frames = m_options.micFrames;
    if (index != m_options.micFaultAt || m_options.micFault.isEmpty()) {
        return ToneBody(frames, frames, -1);
    }
    const QString& fault = m_options.micFault;
    m_recorder->Line(QStringLiteral("mic-fault %1").arg(fault));
    if (fault == QLatin1String("oversized")) {
        return ToneBody(883, 883, -1);
    }
    if (fault == QLatin1String("truncated")) {
        // Says 882 frames, holds 100.
        return ToneBody(100, 882, -1);
    }
    if (fault == QLatin1String("negative")) {
        return ToneBody(4, -1, -1);
    }
    if (fault == QLatin1String("short")) {
        return ToneBody(1, 1, 15);
    }
    // garbage: random bytes of a random length up to 4000.
    QByteArray body(static_cast<int>(QRandomGenerator::global()->bounded(4000)), '\0');
    for (char& byte : body) {
        byte = static_cast<char>(QRandomGenerator::global()->bounded(256));
    }
    return body;
}

QByteArray KyrAudio::ToneBody(int frames, qint32 declaredFrames, int byteLimit)
{
    QByteArray body;
    QDataStream out(&body, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::BigEndian);
    out << m_micStamp << declaredFrames;
    const double step = kTwoPi * m_options.micToneHz / kSampleRate;
    for (int i = 0; i < frames; ++i) {
        const qint16 sample = static_cast<qint16>(std::lround(8000.0 * std::sin(m_phase)));
        m_phase = std::fmod(m_phase + step, kTwoPi);
        out << sample << sample;
    }
    m_micStamp += static_cast<quint64>(frames);
    if (byteLimit >= 0) {
        body.truncate(byteLimit);
    }
    return body;
}

void KyrAudio::TakeSpeaker(const QByteArray& payload)
{
    ++m_speakerPackets;
    QDataStream in(payload);
    in.setByteOrder(QDataStream::LittleEndian);
    // Behind the header's count word (length + 24): the length, the
    // encoded packets, the stamp, the Kyr clock and the rate.
    qint32 length = 0;
    in >> length;
    if (in.status() != QDataStream::Ok) {
        m_recorder->Line(QStringLiteral("speaker empty bytes=%1").arg(payload.size()));
        return;
    }
    if (length < 0 || payload.size() != 4 + length + 20) {
        m_recorder->Line(
            QStringLiteral("speaker malformed length=%1 bytes=%2").arg(length).arg(payload.size()));
        return;
    }
    const QByteArray encoded = payload.mid(4, length);
    in.skipRawData(length);
    qint64 stamp = 0;
    qint64 kyrNow = 0;
    qint32 rate = 0;
    in >> stamp >> kyrNow >> rate;

    // The encoded audio is a row of packets, each behind its big-endian
    // 32-bit length.
    int packets = 0;
    int decodedFrames = 0;
    QString result = QStringLiteral("ok");
    std::vector<opus_int16> pcm(static_cast<size_t>(kMaxDecodeFrames * kChannels));
    int offset = 0;
    while (offset < encoded.size()) {
        if (encoded.size() - offset < 4) {
            result = QStringLiteral("short-length");
            break;
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(encoded.constData()) + offset;
        const quint32 n = (quint32(bytes[0]) << 24) | (quint32(bytes[1]) << 16) |
                          (quint32(bytes[2]) << 8) | quint32(bytes[3]);
        offset += 4;
        if (n > static_cast<quint32>(encoded.size() - offset)) {
            result = QStringLiteral("short-packet");
            break;
        }
        ++packets;
        const int frames = m_decoder ? opus_decode(m_decoder, bytes + 4, static_cast<opus_int32>(n),
                                                   pcm.data(), kMaxDecodeFrames, 0)
                                     : OPUS_INTERNAL_ERROR;
        if (frames < 0) {
            result = QStringLiteral("decode-error:%1").arg(frames);
        } else {
            decodedFrames += frames;
            if (m_speakerWav) {
                m_speakerWav->Write(pcm.data(), frames);
            }
        }
        offset += static_cast<int>(n);
    }
    m_recorder->Line(QStringLiteral("speaker stamp=%1 kyr-now=%2 rate=%3 bytes=%4 packets=%5 "
                                    "frames=%6 decode=%7")
                         .arg(stamp)
                         .arg(kyrNow)
                         .arg(rate)
                         .arg(length)
                         .arg(packets)
                         .arg(decodedFrames)
                         .arg(result));
}

} // namespace kyrsim
