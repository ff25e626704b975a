#include "UsbKyr.h"

#include "Console.h"
#include "LiveFaults.h"
#include "Tools/Common/Recorder.h"

#include <QTimer>

namespace kyrsim {

namespace {

constexpr uint16_t kVendor = 0x7A31;
constexpr uint16_t kProduct = 0x0301;
constexpr int kHeaderBytes = 12;
// How long the IN transfer of --usb-unplug-during-in waits before the pull.
constexpr int kPullWhileWaitingMs = 100;

quint32 LittleEndian(const std::vector<uint8_t>& bytes, size_t at)
{
    return quint32(bytes[at]) | (quint32(bytes[at + 1]) << 8) | (quint32(bytes[at + 2]) << 16) |
           (quint32(bytes[at + 3]) << 24);
}

bool Within(int index, int first, int count)
{
    return index >= 0 && first >= 0 && index >= first && index - first < count;
}

} // namespace

UsbKyr::UsbKyr(const KyrOptions& options, simcommon::Recorder* recorder,
               simcommon::WavWriter* speakerWav, LiveFaults* live, QObject* parent)
    : QObject(parent), m_options(options), m_recorder(recorder), m_live(live),
      m_audio(options, recorder, speakerWav), m_responder(options, &m_audio),
      m_device(std::make_unique<simcommon::EmulatedUsbDevice>())
{
    m_device->KeepOutTransfers(false);
    m_device->SetOutHandler(
        [this](const std::vector<uint8_t>& request) { return Answer(request); });
    m_device->SetInWaitingHandler([this] { OnInWaiting(); });
}

UsbKyr::~UsbKyr() = default;

QString UsbKyr::TestbedDirectory() const
{
    return QString::fromStdString(m_device->Directory());
}

void UsbKyr::Start()
{
    m_clock.start();
    if (m_options.usbPlugAfterMs > 0) {
        QTimer::singleShot(m_options.usbPlugAfterMs, this, &UsbKyr::Plug);
    } else {
        Plug();
    }
    if (m_options.usbUnplugAtMs >= 0) {
        QTimer::singleShot(m_options.usbUnplugAtMs, this, &UsbKyr::Unplug);
    }
    if (m_options.usbReplugAtMs >= 0) {
        QTimer::singleShot(m_options.usbReplugAtMs, this, &UsbKyr::Plug);
    }
}

void UsbKyr::Record(const QString& line)
{
    std::lock_guard<std::mutex> hold(m_lock);
    m_recorder->Line(line);
}

void UsbKyr::Plug()
{
    m_device->Plug(kVendor, kProduct);
    Record(QStringLiteral("plugged"));
}

void UsbKyr::Unplug()
{
    m_device->Unplug();
    Record(QStringLiteral("unplugged"));
    if (m_options.usbReplugAfterMs >= 0) {
        QTimer::singleShot(m_options.usbReplugAfterMs, this, &UsbKyr::Plug);
    }
}

void UsbKyr::OnInWaiting()
{
    // On the testbed's thread: the pull itself is the main thread's, a
    // moment later, while the relay's IN transfer is still waiting.
    if (m_pullWhenInWaits.exchange(false)) {
        QMetaObject::invokeMethod(
            this, [this] { QTimer::singleShot(kPullWhileWaitingMs, this, &UsbKyr::Unplug); },
            Qt::QueuedConnection);
    }
}

QByteArray UsbKyr::UnsolicitedMicrophone(quint32 service, quint32 command)
{
    // Over USB the Kyr speaks only when asked: its first microphone answer,
    // which starts the relay's polling, takes the place of the answer to a
    // request whose answer the relay can spare (not one of the audio
    // commands whose answers it reads).
    if (m_options.micUnsolicitedMs < 0 || m_micUnsolicitedSent ||
        m_clock.elapsed() < m_options.micUnsolicitedMs ||
        (service == KyrResponder::kServiceAudio &&
         (command == KyrAudio::kAudioStart || command == KyrAudio::kTimeOffsetPing ||
          command == KyrAudio::kRequestAudio))) {
        return QByteArray();
    }
    m_micUnsolicitedSent = true;
    const QByteArray body = m_audio.MicrophoneBody();
    m_recorder->Line(QStringLiteral("mic-unsolicited %1").arg(body.size()));
    return KyrResponder::Header(KyrResponder::kServiceAudio, KyrResponder::kRequestAudio,
                                static_cast<quint32>(12 + body.size())) +
           body;
}

simcommon::EmulatedUsbDevice::OutReply UsbKyr::Answer(const std::vector<uint8_t>& request)
{
    std::lock_guard<std::mutex> hold(m_lock);
    simcommon::EmulatedUsbDevice::OutReply reply;
    // The faults count RequestFrame requests only, so that audio commands
    // (which a driver may start at any time) don't move them.
    const bool frameRequest = request.size() >= static_cast<size_t>(kHeaderBytes) &&
                              LittleEndian(request, 0) == KyrResponder::kServiceVideo &&
                              LittleEndian(request, 4) == KyrResponder::kRequestFrame;
    const int index = frameRequest ? m_frameRequests++ : -1;
    if (frameRequest && index == m_options.usbShortOutAt) {
        // The device takes the first bytes only and has no whole request to
        // answer.
        const size_t taken =
            std::min(request.size(), static_cast<size_t>(m_options.usbShortOutBytes));
        reply.acceptBytes = static_cast<int>(taken);
        const QByteArray bytes(reinterpret_cast<const char*>(request.data()),
                               static_cast<int>(taken));
        m_recorder->Line(QStringLiteral("short-out ") + QString::fromLatin1(bytes.toHex()));
        return reply;
    }
    const QByteArray bytes(reinterpret_cast<const char*>(request.data()),
                           static_cast<int>(request.size()));
    m_recorder->Line(QStringLiteral("request ") + QString::fromLatin1(bytes.toHex()));
    if (request.size() < static_cast<size_t>(kHeaderBytes)) {
        // Not a request: answered with nothing, an empty IN transfer.
        reply.answers.emplace_back();
        return reply;
    }
    const quint32 service = LittleEndian(request, 0);
    const quint32 command = LittleEndian(request, 4);
    // The responder sees every request, so that the frame numbers and the
    // picture size stay those of a Kyr that merely lost some answers.
    const QByteArray normal = m_responder.Respond(service, command, bytes.mid(kHeaderBytes));
    if (frameRequest && index == m_options.usbUnplugAfterOut) {
        reply.pullAfter = true;
        QMetaObject::invokeMethod(this, &UsbKyr::Unplug, Qt::QueuedConnection);
        return reply;
    }
    if (frameRequest && index == m_options.usbUnplugDuringIn) {
        m_pullWhenInWaits = true;
        return reply;
    }
    if (m_live->Stalled() || (m_options.stallAfter >= 0 && m_answered >= m_options.stallAfter)) {
        return reply;
    }
    if (Within(index, m_options.usbTimeoutAt, m_options.usbTimeoutCount)) {
        m_recorder->Line(QStringLiteral("unanswered"));
        return reply;
    }
    if (Within(index, m_options.usbEmptyAt, m_options.usbEmptyCount)) {
        m_recorder->Line(QStringLiteral("empty"));
        reply.answers.emplace_back();
        return reply;
    }
    QByteArray answer = UnsolicitedMicrophone(service, command);
    if (answer.isNull()) {
        answer = m_live->TakeGarbage();
        if (!answer.isNull()) {
            m_recorder->Line(QStringLiteral("garbage %1").arg(answer.size()));
        }
    }
    if (answer.isNull()) {
        const QByteArray fault = KyrResponder::SharedFault(m_options, service, command, m_answered,
                                                           &m_garbageSent, &m_hugeSent);
        answer = fault.isNull() ? normal : fault;
    }
    ++m_answered;
    std::vector<uint8_t> answerBytes(answer.begin(), answer.end());
    if (frameRequest && index == m_options.usbLateAt) {
        m_recorder->Line(QStringLiteral("late %1").arg(m_options.usbLateMs));
        QMetaObject::invokeMethod(
            this,
            [this, answerBytes] {
                QTimer::singleShot(m_options.usbLateMs, this,
                                   [this, answerBytes] { m_device->QueueAnswer(answerBytes); });
            },
            Qt::QueuedConnection);
        return reply;
    }
    reply.answers.push_back(std::move(answerBytes));
    return reply;
}

} // namespace kyrsim
