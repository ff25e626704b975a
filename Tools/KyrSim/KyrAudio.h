#pragma once

#include "KyrOptions.h"

#include <QByteArray>
#include <QtGlobal>

#include <memory>

struct OpusDecoder;

namespace simcommon {
class Recorder;
class WavWriter;
} // namespace simcommon

namespace kyrsim {

// The Kyr's audio service: AudioStart and AudioStop, the time-offset ping
// (with a clock that runs a chosen offset ahead), microphone audio (a tone)
// in RequestAudio responses, and speaker packets, whose Opus payloads are
// decoded with libopus into a WAV file and a record. One per connection.
//
// Request payloads are little-endian; response bodies big-endian.
class KyrAudio
{
public:
    static constexpr quint32 kRequestAudio = 0x62EB;
    static constexpr quint32 kTimeOffsetPing = 0xD43E;
    static constexpr quint32 kAudioStart = 0x1000A;
    static constexpr quint32 kAudioStop = 0x1DEAD;
    static constexpr quint32 kSpeakerData = 0x1EF21;

    KyrAudio(const KyrOptions& options, simcommon::Recorder* recorder,
             simcommon::WavWriter* speakerWav);
    ~KyrAudio();
    KyrAudio(const KyrAudio&) = delete;
    KyrAudio& operator=(const KyrAudio&) = delete;

    // The body of the response to an audio request (the payload being the
    // request's bytes after its header), and a record of what came.
    QByteArray Respond(quint32 command, const QByteArray& payload);

    // A microphone response body, as the next poll would get it; also what
    // is sent unasked.
    QByteArray MicrophoneBody();

private:
    void TakeSpeaker(const QByteArray& payload);
    QByteArray ToneBody(int frames, qint32 declaredFrames, int byteLimit);

    KyrOptions m_options;
    simcommon::Recorder* m_recorder;
    simcommon::WavWriter* m_speakerWav;
    OpusDecoder* m_decoder = nullptr;
    quint64 m_micStamp = 0;
    double m_phase = 0.0;
    int m_micResponses = 0;
    quint64 m_speakerPackets = 0;
};

} // namespace kyrsim
