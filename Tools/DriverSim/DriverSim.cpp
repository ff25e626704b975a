#include "DriverSim.h"

#include "WavReader.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QSocketNotifier>
#include <QTextStream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>

namespace driversim {

namespace {

constexpr int kSampleRate = 48000;
constexpr int kMaxSpeakerFrames = 882;
constexpr int kMaxDriverDatagram = 3537;

int BoundSocket(int port, QString* error)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        *error =
            QStringLiteral("can't bind 127.0.0.1:%1: %2").arg(port).arg(qt_error_string(errno));
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    return fd;
}

void AppendBigEndian(QByteArray& out, uint64_t value, int bytes)
{
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        out.append(static_cast<char>((value >> shift) & 0xFF));
    }
}

uint64_t ReadBigEndian(const QByteArray& in, int at, int bytes)
{
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = (value << 8) | static_cast<uint8_t>(in[at + i]);
    }
    return value;
}

} // namespace

DriverSim::DriverSim(const DriverOptions& options, QObject* parent)
    : QObject(parent), m_options(options)
{
}

DriverSim::~DriverSim()
{
    Finish();
    for (const int fd : {m_sendSocket, m_micSocket, m_controlSocket}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool DriverSim::Start(QString* error)
{
    if (!m_recorder.Open(m_options.recordFile, error)) {
        return false;
    }
    if (!m_options.speakerWav.isEmpty() && !ReadWav(m_options.speakerWav, &m_speaker, error)) {
        return false;
    }
    if (m_options.speakerWav.isEmpty() && m_options.toneHz > 0 && m_options.toneSeconds > 0) {
        const auto frames = static_cast<size_t>(m_options.toneSeconds * kSampleRate);
        m_speaker.resize(frames * 2);
        for (size_t i = 0; i < frames; ++i) {
            const auto sample = static_cast<int16_t>(
                std::lround(10000.0 * std::sin(2 * M_PI * m_options.toneHz *
                                               static_cast<double>(i) / kSampleRate)));
            m_speaker[2 * i] = sample;
            m_speaker[2 * i + 1] = sample;
        }
    }
    if (!m_options.micWav.isEmpty() && !m_micWav.Open(m_options.micWav, 2, kSampleRate, error)) {
        return false;
    }
    m_sendSocket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (!Bind(error)) {
        return false;
    }
    if (!m_options.controlFile.isEmpty()) {
        m_control.SetHandler([this](const QString& order) { OnOrder(order); });
        if (!m_control.Open(m_options.controlFile, error)) {
            return false;
        }
    }
    connect(&m_announceTimer, &QTimer::timeout, this, &DriverSim::OnAnnounceTimer);
    m_speakerTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_speakerTimer, &QTimer::timeout, this, &DriverSim::OnSpeakerTimer);
    m_clock.start();
    if (!m_speaker.empty()) {
        m_recorder.Line(QStringLiteral("speaker-start"));
    }
    StartSending();
    return true;
}

bool DriverSim::Bind(QString* error)
{
    m_micSocket = BoundSocket(m_options.kyrPort + 7, error);
    if (m_micSocket < 0) {
        return false;
    }
    m_controlSocket = BoundSocket(m_options.controlPort, error);
    if (m_controlSocket < 0) {
        return false;
    }
    m_micNotifier = new QSocketNotifier(m_micSocket, QSocketNotifier::Read, this);
    connect(m_micNotifier, &QSocketNotifier::activated, this, &DriverSim::OnMicrophoneReadable);
    m_controlNotifier = new QSocketNotifier(m_controlSocket, QSocketNotifier::Read, this);
    connect(m_controlNotifier, &QSocketNotifier::activated, this, &DriverSim::OnControlReadable);
    return true;
}

void DriverSim::StartSending()
{
    if (m_options.announceIntervalMs > 0) {
        m_announceTimer.start(m_options.announceIntervalMs);
        OnAnnounceTimer();
    }
    const size_t totalFrames = m_speaker.size() / 2;
    if (totalFrames > 0 && !m_speakerEnded) {
        // Pace from now on, as if the frames sent so far had ended just now:
        // the frames of a vanished spell are not caught up.
        m_speakerStartMs =
            m_clock.elapsed() - static_cast<qint64>(m_speakerFrame * 1000 / kSampleRate);
        m_speakerTimer.start(5);
    }
}

void DriverSim::OnOrder(const QString& order)
{
    if (order == QLatin1String("vanish")) {
        m_recorder.Line(QStringLiteral("control vanish"));
        Vanish();
    } else if (order == QLatin1String("return")) {
        m_recorder.Line(QStringLiteral("control return"));
        Return();
    } else {
        QTextStream(stderr) << "driver-sim: unknown order on the control pipe: " << order << "\n";
        m_recorder.Line(QStringLiteral("control unknown %1").arg(order));
    }
}

void DriverSim::Vanish()
{
    if (m_vanished) {
        return;
    }
    m_vanished = true;
    m_announceTimer.stop();
    m_speakerTimer.stop();
    delete m_micNotifier;
    delete m_controlNotifier;
    m_micNotifier = nullptr;
    m_controlNotifier = nullptr;
    ::close(m_micSocket);
    ::close(m_controlSocket);
    m_micSocket = -1;
    m_controlSocket = -1;
}

void DriverSim::Return()
{
    if (!m_vanished) {
        return;
    }
    m_vanished = false;
    QString error;
    if (!Bind(&error)) {
        // Someone took a port meanwhile: a driver that can't come back.
        QTextStream(stderr) << "driver-sim: " << error << "\n";
        m_recorder.Line(QStringLiteral("control return failed"));
        QCoreApplication::exit(1);
        return;
    }
    StartSending();
}

void DriverSim::Finish()
{
    m_micWav.Close();
}

void DriverSim::SendTo(int port, const QByteArray& datagram)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::sendto(m_sendSocket, datagram.constData(), static_cast<size_t>(datagram.size()), 0,
             reinterpret_cast<sockaddr*>(&address), sizeof(address));
}

void DriverSim::OnAnnounceTimer()
{
    const qint64 now = m_clock.elapsed();
    const bool paused = m_options.announcePauseAtMs >= 0 && now >= m_options.announcePauseAtMs &&
                        (m_options.announceResumeAtMs < 0 || now < m_options.announceResumeAtMs);
    if (paused) {
        return;
    }
    SendTo(m_options.kyrPort + 8, QByteArray(1, '\x03'));
}

void DriverSim::OnSpeakerTimer()
{
    // Real-time pace: as many packets as the time since the start asks for.
    // m_speakerFrame counts every frame sent; with --loop the audio starts
    // over at its end.
    const size_t totalFrames = m_speaker.size() / 2;
    const auto due =
        static_cast<size_t>((m_clock.elapsed() - m_speakerStartMs) * kSampleRate / 1000);
    const size_t packetFrames =
        static_cast<size_t>(std::min(std::max(m_options.packetFrames, 1), kMaxSpeakerFrames));
    const size_t limit = m_options.loop ? due : std::min(due, totalFrames);
    while (m_speakerFrame + packetFrames <= limit) {
        QByteArray datagram(1, '\x02');
        AppendBigEndian(datagram, static_cast<uint64_t>(QDateTime::currentMSecsSinceEpoch()), 8);
        for (size_t frame = 0; frame < packetFrames; ++frame) {
            const size_t at = (m_speakerFrame + frame) % totalFrames;
            AppendBigEndian(datagram, static_cast<uint16_t>(m_speaker[2 * at]), 2);
            AppendBigEndian(datagram, static_cast<uint16_t>(m_speaker[2 * at + 1]), 2);
        }
        SendTo(m_options.kyrPort + 8, datagram);
        m_speakerFrame += packetFrames;
        ++m_speakerPackets;
    }
    if (!m_options.loop && m_speakerFrame + packetFrames > totalFrames) {
        m_speakerTimer.stop();
        m_speakerEnded = true;
        m_recorder.Line(QStringLiteral("speaker-end packets=%1").arg(m_speakerPackets));
    }
}

void DriverSim::SendMalformed()
{
    // Speaker data of every length from 0 to the largest, then every
    // command byte that means nothing.
    int sent = 0;
    for (int length = 0; length <= kMaxDriverDatagram; ++length) {
        QByteArray datagram(length, '\x11');
        if (length > 0) {
            datagram[0] = '\x02';
        }
        SendTo(m_options.kyrPort + 8, datagram);
        ++sent;
    }
    for (int command = 4; command < 256; ++command) {
        SendTo(m_options.kyrPort + 8, QByteArray(1 + command % 16, static_cast<char>(command)));
        ++sent;
    }
    m_recorder.Line(QStringLiteral("malformed %1").arg(sent));
}

void DriverSim::OnMicrophoneReadable()
{
    QByteArray datagram(65536, '\0');
    for (;;) {
        const ssize_t n = ::recv(m_micSocket, datagram.data(), 65536, 0);
        if (n < 0) {
            return;
        }
        if (n < 8 || (n - 8) % 4 != 0) {
            m_recorder.Line(QStringLiteral("mic malformed bytes=%1").arg(n));
            continue;
        }
        const uint64_t stamp = ReadBigEndian(datagram, 0, 8);
        const int frames = static_cast<int>((n - 8) / 4);
        m_recorder.Line(QStringLiteral("mic stamp=%1 frames=%2").arg(stamp).arg(frames));
        std::vector<int16_t> samples(static_cast<size_t>(frames) * 2);
        for (size_t i = 0; i < samples.size(); ++i) {
            samples[i] =
                static_cast<int16_t>(ReadBigEndian(datagram, 8 + 2 * static_cast<int>(i), 2));
        }
        m_micWav.Write(samples.data(), frames);
    }
}

void DriverSim::OnControlReadable()
{
    QByteArray datagram(65536, '\0');
    for (;;) {
        const ssize_t n = ::recv(m_controlSocket, datagram.data(), 65536, 0);
        if (n < 0) {
            return;
        }
        if (n < 14) {
            m_recorder.Line(QStringLiteral("address malformed bytes=%1").arg(n));
            continue;
        }
        const uint64_t ip = ReadBigEndian(datagram, 0, 4);
        const uint64_t port = ReadBigEndian(datagram, 4, 2);
        const uint64_t length = ReadBigEndian(datagram, 6, 8);
        if (length > static_cast<uint64_t>(n - 14)) {
            m_recorder.Line(
                QStringLiteral("address malformed length=%1 bytes=%2").arg(length).arg(n));
            continue;
        }
        if (ip == 0 && port == 0 && length == 0) {
            m_recorder.Line(QStringLiteral("goodbye"));
            continue;
        }
        // The first address shows the relay is up and listening: the time
        // for the malformed sweep.
        if (m_options.malformed && !m_malformedSent) {
            m_malformedSent = true;
            QTimer::singleShot(0, this, &DriverSim::SendMalformed);
        }
        m_recorder.Line(QStringLiteral("address %1.%2.%3.%4 %5 %6")
                            .arg((ip >> 24) & 0xFF)
                            .arg((ip >> 16) & 0xFF)
                            .arg((ip >> 8) & 0xFF)
                            .arg(ip & 0xFF)
                            .arg(port)
                            .arg(QString::fromUtf8(datagram.mid(14, static_cast<int>(length)))));
    }
}

} // namespace driversim
