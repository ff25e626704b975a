#include "KyrSession.h"

#include <QTimer>

#include "Console.h"
#include "LiveFaults.h"
#include "ResponseWriter.h"
#include "Tools/Common/Recorder.h"

#include <QDataStream>

namespace kyrsim {

namespace {

constexpr int kHeaderBytes = 12;
constexpr quint32 kHugeGarbageSize = 0x80000000;
// What the flood keeps queued on the socket at most, and writes at a time.
constexpr qint64 kFloodQueued = 4 * 1024 * 1024;
constexpr int kFloodChunk = 256 * 1024;

quint32 LittleEndianWord(const QByteArray& bytes, int offset)
{
    quint32 value = 0;
    QDataStream stream(bytes.mid(offset, 4));
    stream.setByteOrder(QDataStream::LittleEndian);
    stream >> value;
    return value;
}

} // namespace

KyrSession::KyrSession(QSslSocket* socket, const KyrOptions& options, Recorder* recorder,
                       simcommon::WavWriter* speakerWav, LiveFaults* live, QObject* parent)
    : QObject(parent), m_socket(socket), m_options(options), m_recorder(recorder), m_live(live),
      m_audio(options, recorder, speakerWav), m_responder(options, &m_audio),
      m_writer(new ResponseWriter(socket, options.split, options.merge, this))
{
    m_socket->setParent(this);
    connect(m_socket, &QSslSocket::readyRead, this, &KyrSession::OnReadyRead);
    connect(m_socket, &QSslSocket::disconnected, this, &KyrSession::OnDisconnected);
    connect(m_socket, &QSslSocket::encrypted, this,
            [] { PrintErr(QStringLiteral("TLS handshake done")); });
    connect(m_socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), this,
            [](const QList<QSslError>& errors) {
                for (const QSslError& error : errors) {
                    PrintErr(QStringLiteral("TLS error: %1").arg(error.errorString()));
                }
            });
    connect(m_socket, &QSslSocket::errorOccurred, this, [this](QAbstractSocket::SocketError) {
        PrintErr(QStringLiteral("socket error: %1").arg(m_socket->errorString()));
    });
    // A descriptor that was already closed never emits disconnected.
    if (m_socket->state() != QAbstractSocket::ConnectedState) {
        OnDisconnected();
    }
}

void KyrSession::OnReadyRead()
{
    const QByteArray bytes = m_socket->readAll();
    if (m_options.noTlsReply || m_closing) {
        return; // handshake bytes, or anything after we decided to close
    }
    m_buffer += bytes;
    while (!m_closing && (m_passwordTaken ? TakeRequest() : TakePassword())) {
    }
}

bool KyrSession::TakePassword()
{
    if (m_buffer.size() < 4) {
        return false;
    }
    const quint32 length = LittleEndianWord(m_buffer, 0);
    if (length > static_cast<quint32>(kMaxDeclaredBytes)) {
        m_recorder->Line(QStringLiteral("partial ") +
                         QString::fromLatin1(m_buffer.left(4).toHex()));
        Close(QStringLiteral("password frame declares %1 bytes").arg(length));
        return false;
    }
    const int frameBytes = 4 + static_cast<int>(length);
    if (m_buffer.size() < frameBytes) {
        return false;
    }
    const QByteArray frame = m_buffer.left(frameBytes);
    m_buffer.remove(0, frameBytes);
    m_recorder->Line(QStringLiteral("password ") + QString::fromLatin1(frame.toHex()));
    m_passwordTaken = true;
    if (frame.mid(4) != m_options.password) {
        Close(QStringLiteral("wrong password (%1 bytes)").arg(length));
        return false;
    }
    PrintErr(QStringLiteral("password accepted"));
    if (m_options.closeAfter == 0) {
        Close(QStringLiteral("--close-after 0"));
        return false;
    }
    if (m_options.micUnsolicitedMs >= 0) {
        // A microphone response nobody asked for, as the Kyr sends one to
        // start the relay's polling.
        QTimer::singleShot(m_options.micUnsolicitedMs, this, [this] {
            if (m_ended || m_closing) {
                return;
            }
            const QByteArray body = m_audio.MicrophoneBody();
            m_recorder->Line(QStringLiteral("mic-unsolicited %1").arg(body.size()));
            m_writer->Send(KyrResponder::Header(KyrResponder::kServiceAudio,
                                                KyrResponder::kRequestAudio,
                                                static_cast<quint32>(12 + body.size())) +
                           body);
        });
    }
    return true;
}

bool KyrSession::TakeRequest()
{
    if (m_buffer.size() < kHeaderBytes) {
        return false;
    }
    const quint32 count = LittleEndianWord(m_buffer, 8);
    if (count > static_cast<quint32>(kMaxDeclaredBytes)) {
        m_recorder->Line(QStringLiteral("partial ") +
                         QString::fromLatin1(m_buffer.left(kHeaderBytes).toHex()));
        Close(QStringLiteral("request declares %1 payload bytes").arg(count));
        return false;
    }
    const int requestBytes = kHeaderBytes + static_cast<int>(count);
    if (m_buffer.size() < requestBytes) {
        return false;
    }
    const QByteArray request = m_buffer.left(requestBytes);
    m_buffer.remove(0, requestBytes);
    m_recorder->Line(QStringLiteral("request ") + QString::fromLatin1(request.toHex()));
    Answer(request);
    return true;
}

void KyrSession::Answer(const QByteArray& request)
{
    const quint32 service = LittleEndianWord(request, 0);
    const quint32 command = LittleEndianWord(request, 4);
    // The responder sees every request, so that the frame numbers and the
    // picture size stay those of a Kyr that merely lost some answers.
    const QByteArray normal = m_responder.Respond(service, command, request.mid(kHeaderBytes));
    if (m_live->Stalled()) {
        return;
    }
    if (m_options.stallAfter >= 0 && m_answered >= m_options.stallAfter) {
        return;
    }
    m_writer->Send(FaultyAnswer(service, command, normal));
    ++m_answered;
    if (m_options.closeAfter >= 0 && m_answered >= m_options.closeAfter) {
        Close(QStringLiteral("--close-after %1 reached").arg(m_options.closeAfter));
    }
}

QByteArray KyrSession::FaultyAnswer(quint32 service, quint32 command, const QByteArray& normal)
{
    const QByteArray garbage = m_live->TakeGarbage();
    if (!garbage.isNull()) {
        m_recorder->Line(QStringLiteral("garbage %1").arg(garbage.size()));
        return garbage;
    }
    if (m_options.garbageAfter >= 0 && !m_garbageSent && m_answered == m_options.garbageAfter) {
        return KyrResponder::SharedFault(m_options, service, command, m_answered, &m_garbageSent,
                                         &m_hugeSent);
    }
    if (m_options.hugeThenGarbageSec >= 0 && !m_hugeSent && m_answered >= 1) {
        m_hugeSent = true;
        m_recorder->Line(QStringLiteral("flood start"));
        m_flood = new QTimer(this);
        connect(m_flood, &QTimer::timeout, this, &KyrSession::Flood);
        m_floodClock.start();
        m_flood->start(1);
        return KyrResponder::Header(service, command, kHugeGarbageSize);
    }
    const QByteArray fault = KyrResponder::SharedFault(m_options, service, command, m_answered,
                                                       &m_garbageSent, &m_hugeSent);
    return fault.isNull() ? normal : fault;
}

void KyrSession::Flood()
{
    if (m_ended || m_socket->state() != QAbstractSocket::ConnectedState ||
        m_floodClock.elapsed() >= m_options.hugeThenGarbageSec * 1000LL) {
        m_flood->stop();
        m_recorder->Line(QStringLiteral("flood end %1").arg(m_floodBytes));
        return;
    }
    static const QByteArray chunk = [] {
        QByteArray bytes(kFloodChunk, '\0');
        for (int i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>((i * 131 + 17) & 0xFF);
        }
        return bytes;
    }();
    while (m_socket->bytesToWrite() < kFloodQueued) {
        m_socket->write(chunk);
        m_floodBytes += chunk.size();
    }
}

void KyrSession::Close(const QString& reason)
{
    PrintErr(QStringLiteral("closing the connection: %1").arg(reason));
    m_closing = true;
    m_writer->Flush();
    m_socket->disconnectFromHost();
}

void KyrSession::OnDisconnected()
{
    if (m_ended) {
        return;
    }
    m_ended = true;
    if (!m_buffer.isEmpty() && !m_closing) {
        m_recorder->Line(QStringLiteral("partial ") + QString::fromLatin1(m_buffer.toHex()));
    }
    m_recorder->Line(QStringLiteral("closed"));
    PrintErr(QStringLiteral("connection closed"));
    deleteLater();
}

} // namespace kyrsim
