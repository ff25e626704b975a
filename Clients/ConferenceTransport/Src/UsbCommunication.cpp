#include "Clients/ConferenceTransport/Src/UsbCommunication.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/UsbUtilities/Src/UsbUtilities.h"

namespace quorvan::velorane {

namespace {
const char* const kUninitialized =
    "Failed to send USB request because device remains uninitialized.";
} // namespace

UsbCommunication::UsbCommunication(QObject* parent)
    : IConferenceTransport(parent), m_responseBuffer(new QByteArray(kResponseCapacity, '\0')),
      m_usb(std::make_unique<UsbUtilities>(
          std::vector<std::pair<int, int>>{{0x7A31, 0x0301}, {0x7A31, 0x0300}}))
{
    (void)m_headerSize;
    // The watch runs from here on, also when TCP carries the link: plugging
    // and pulling the device is logged, and nothing else reacts to it.
    m_usb->Register([this](int status) { Q_EMIT EventCallback(status); });
}

UsbCommunication::~UsbCommunication()
{
    m_usb->Unregister();
}

void UsbCommunication::slotThreadStarted()
{
    Initialize();
}

void UsbCommunication::slotThreadFinished()
{
    Terminate();
}

void UsbCommunication::slotRemoveUsb()
{
    Terminate();
}

bool UsbCommunication::Initialize()
{
    if (m_connected.load()) {
        return true;
    }
    // No device is not a failure: the link counts as up, and each command
    // fails on its own until a device is there.
    if (m_usb->Connect() < 0) {
        Q_EMIT ShowErrorMessage("Failed to connect to Kyr over USB");
        Q_EMIT SignalConnectionFailed();
        return false;
    }
    Q_EMIT SignalConnectComplete();
    m_connected.store(true);
    return true;
}

bool UsbCommunication::Terminate()
{
    if (!m_connected.load()) {
        return true;
    }
    m_usb->Disconnect();
    m_connected.store(false);
    Q_EMIT SignalDisconnectComplete();
    return true;
}

bool UsbCommunication::SendWithPayload(const RelayCommandData& commandData)
{
    if (!m_connected.load()) {
        VLOG(EGroupValueSevere, "%s", kUninitialized);
        Q_EMIT ShowErrorMessage(kUninitialized);
        return false;
    }
    QByteArray request = SerializeCommand(commandData);
    int received = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        received =
            m_usb->SendBinary(reinterpret_cast<unsigned char*>(request.data()), request.size(),
                              reinterpret_cast<unsigned char*>(m_responseBuffer->data()),
                              m_responseBuffer->size(), kSendTimeoutMs, kReceiveTimeoutMs);
        if (received >= 1) {
            break;
        }
    }
    if (received < 1) {
        VLOG(EGroupValueWarning, "Send failed. command=[0x%.8X] bytesReceived=[%d]",
             static_cast<unsigned>(commandData.command), received);
        Q_EMIT ShowErrorMessage("Failed to send USB request.");
        return false;
    }
    return HandleResponse(static_cast<uint32_t>(received), m_responseBuffer) != 0;
}

} // namespace quorvan::velorane
