#pragma once

#include "Tools/Common/ControlFifo.h"
#include "Tools/Common/Recorder.h"
#include "Tools/Common/WavWriter.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <cstdint>
#include <vector>

class QSocketNotifier;

namespace driversim {

struct DriverOptions
{
    int kyrPort = 0;        // the relay's base port
    int controlPort = 9002; // where the relay sends the Kyr's address
    QString recordFile;     // empty: standard output
    int timeLimitSec = 60;
    int announceIntervalMs = 1000; // 0: no announces
    int announcePauseAtMs = -1;    // stop announcing at this time...
    int announceResumeAtMs = -1;   // ...and start again at this one
    double toneHz = 0;             // speaker tone; 0 with no WAV: no speaker data
    double toneSeconds = 0;
    QString speakerWav;
    int packetFrames = 480;
    bool loop = false;      // the speaker audio starts over at its end
    bool malformed = false; // once the relay's first address message came
    QString micWav;
    QString controlFile; // orders while running (vanish, return); empty: none
};

// The local audio driver as the relay sees it, on 127.0.0.1, big-endian:
// announces (byte 3) and speaker data (byte 2, 8-byte time stamp in ms of
// CLOCK_REALTIME, 16-bit stereo samples) to kyrPort + 8; microphone
// datagrams (8-byte time stamp in frames, samples) arrive on kyrPort + 7,
// the Kyr's address (4-byte address, 2-byte port, 8-byte length, text) on
// the control port. Every microphone datagram and address message is
// recorded, one line each.
class DriverSim : public QObject
{
    Q_OBJECT

public:
    explicit DriverSim(const DriverOptions& options, QObject* parent = nullptr);
    ~DriverSim() override;

    // Binds both ports, opens the record and the control pipe; false with a
    // reason.
    bool Start(QString* error);
    // Writes the microphone WAV out.
    void Finish();

private:
    // Binds the microphone and control ports and watches them.
    bool Bind(QString* error);
    // Starts announcing and sending speaker audio, which goes on from the
    // time it is now.
    void StartSending();
    void OnOrder(const QString& order);
    // The driver goes away as a process that ended would: no announces, no
    // speaker data, its two ports closed. "return" undoes it.
    void Vanish();
    void Return();
    void SendTo(int port, const QByteArray& datagram);
    void OnAnnounceTimer();
    void OnSpeakerTimer();
    void SendMalformed();
    void OnMicrophoneReadable();
    void OnControlReadable();

    DriverOptions m_options;
    simcommon::Recorder m_recorder;
    simcommon::WavWriter m_micWav;
    int m_sendSocket = -1;
    int m_micSocket = -1;
    int m_controlSocket = -1;
    QSocketNotifier* m_micNotifier = nullptr;
    QSocketNotifier* m_controlNotifier = nullptr;
    QTimer m_announceTimer;
    QTimer m_speakerTimer;
    QElapsedTimer m_clock;
    std::vector<int16_t> m_speaker; // interleaved stereo
    size_t m_speakerFrame = 0;
    qint64 m_speakerStartMs = 0;
    int m_speakerPackets = 0;
    bool m_malformedSent = false;
    bool m_speakerEnded = false;
    bool m_vanished = false;
    simcommon::ControlFifo m_control;
};

} // namespace driversim
