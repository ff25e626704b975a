#pragma once

#include "KyrOptions.h"
#include "KyrResponder.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSslSocket>
#include <QTimer>

namespace simcommon {
class Recorder;
class WavWriter;
} // namespace simcommon

namespace kyrsim {

using simcommon::Recorder;
class LiveFaults;
class ResponseWriter;

// One relay connection: checks the password frame, records and answers
// requests, and applies the fault modes. The fault counters are per
// connection. Deletes itself, with its socket, when the connection ends.
class KyrSession : public QObject
{
    Q_OBJECT

public:
    // speakerWav takes the decoded speaker audio, or is null; live holds
    // the faults the control pipe switches, and outlives the session.
    KyrSession(QSslSocket* socket, const KyrOptions& options, Recorder* recorder,
               simcommon::WavWriter* speakerWav, LiveFaults* live, QObject* parent);

private:
    void OnReadyRead();
    void OnDisconnected();
    // Each takes one complete item from m_buffer; false when more bytes
    // are needed or the connection is being closed.
    bool TakePassword();
    bool TakeRequest();
    void Answer(const QByteArray& request);
    QByteArray FaultyAnswer(quint32 service, quint32 command, const QByteArray& normal);
    void Close(const QString& reason);
    // Writes garbage while the socket takes it, until the flood's time is up.
    void Flood();

    QSslSocket* m_socket;
    KyrOptions m_options;
    Recorder* m_recorder;
    LiveFaults* m_live;
    KyrAudio m_audio;
    KyrResponder m_responder;
    ResponseWriter* m_writer;
    QByteArray m_buffer;
    bool m_passwordTaken = false;
    bool m_closing = false;
    bool m_ended = false;
    int m_answered = 0;
    bool m_garbageSent = false;
    bool m_hugeSent = false;
    QTimer* m_flood = nullptr;
    QElapsedTimer m_floodClock;
    qint64 m_floodBytes = 0;
};

} // namespace kyrsim
