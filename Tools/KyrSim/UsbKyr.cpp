#include "UsbKyr.h"

#include "Console.h"
#include "Tools/Common/Recorder.h"

#include <QTimer>

namespace kyrsim {

namespace {

constexpr uint16_t kVendor = 0x7A31;
constexpr uint16_t kProduct = 0x0301;
constexpr int kHeaderBytes = 12;

quint32 LittleEndian(const std::vector<uint8_t>& bytes, size_t at)
{
    return quint32(bytes[at]) | (quint32(bytes[at + 1]) << 8) | (quint32(bytes[at + 2]) << 16) |
           (quint32(bytes[at + 3]) << 24);
}

} // namespace

UsbKyr::UsbKyr(const KyrOptions& options, simcommon::Recorder* recorder,
               simcommon::WavWriter* speakerWav, QObject* parent)
    : QObject(parent), m_options(options), m_recorder(recorder),
      m_audio(options, recorder, speakerWav), m_responder(options, &m_audio),
      m_device(std::make_unique<simcommon::EmulatedUsbDevice>())
{
    m_device->KeepOutTransfers(false);
    m_device->SetOutHandler(
        [this](const std::vector<uint8_t>& request) { return Answer(request); });
}

UsbKyr::~UsbKyr() = default;

QString UsbKyr::TestbedDirectory() const
{
    return QString::fromLocal8Bit(qgetenv("UMOCKDEV_DIR"));
}

void UsbKyr::Start()
{
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

void UsbKyr::Plug()
{
    m_device->Plug(kVendor, kProduct);
    std::lock_guard<std::mutex> hold(m_lock);
    m_recorder->Line(QStringLiteral("plugged"));
}

void UsbKyr::Unplug()
{
    m_device->Unplug();
    std::lock_guard<std::mutex> hold(m_lock);
    m_recorder->Line(QStringLiteral("unplugged"));
}

std::vector<std::vector<uint8_t>> UsbKyr::Answer(const std::vector<uint8_t>& request)
{
    std::lock_guard<std::mutex> hold(m_lock);
    const QByteArray bytes(reinterpret_cast<const char*>(request.data()),
                           static_cast<int>(request.size()));
    m_recorder->Line(QStringLiteral("request ") + QString::fromLatin1(bytes.toHex()));
    if (request.size() < static_cast<size_t>(kHeaderBytes)) {
        // Not a request: answered with nothing, an empty IN transfer.
        return {std::vector<uint8_t>()};
    }
    const quint32 service = LittleEndian(request, 0);
    const quint32 command = LittleEndian(request, 4);
    ++m_answered;
    if (m_options.stallAfter >= 0 && m_answered > m_options.stallAfter) {
        // No answer: the relay's IN transfer waits out its time.
        return {};
    }
    const QByteArray answer = m_responder.Respond(service, command, bytes.mid(kHeaderBytes));
    return {std::vector<uint8_t>(answer.begin(), answer.end())};
}

} // namespace kyrsim
