#pragma once

// The relay protocol over a USB bulk pipe to a Kyr plugged into the laptop:
// each command is one blocking exchange, an OUT transfer and the IN transfer
// after it, on the transport thread, tried up to six times. No password is
// sent, a failed exchange doesn't end the relay, and a Kyr that isn't there
// at start counts as connected (its commands then fail one by one).
//
// Threads: constructed and destroyed on the main thread, where the hot-plug
// watch starts and ends; everything else on the transport thread, except
// Terminate from the quit sequence, which runs on the main thread after the
// transport thread has ended. m_connected is atomic; the response buffer
// belongs to the transport thread. EventCallback is emitted on the hot-plug
// thread.

#include "Clients/ConferenceTransport/Src/IConferenceTransport.h"

#include <QByteArray>
#include <QSharedPointer>

#include <atomic>
#include <cstdint>
#include <memory>

namespace quorvan::velorane {

class UsbUtilities;

class UsbCommunication : public IConferenceTransport
{
    Q_OBJECT

public:
    // The largest response: 1 MiB of frame and the 12-byte header.
    static constexpr int kResponseCapacity = 0x10000C;
    static constexpr int kAttempts = 6;
    static constexpr int kSendTimeoutMs = 2000;
    static constexpr int kReceiveTimeoutMs = 5000;

    explicit UsbCommunication(QObject* parent = nullptr);
    ~UsbCommunication() override;

public Q_SLOTS:
    bool Initialize() override;
    bool Terminate() override;
    bool SendWithPayload(const RelayCommandData& commandData) override;
    void slotThreadStarted() override;
    void slotThreadFinished() override;
    void slotRemoveUsb();

Q_SIGNALS:
    // Hot-plug status: 0 plugged, 1 unplugged.
    void EventCallback(int status);

private:
    int32_t m_headerSize = 12;
    QSharedPointer<QByteArray> m_responseBuffer;
    std::atomic<bool> m_connected{false};
    std::unique_ptr<UsbUtilities> m_usb;
};

} // namespace quorvan::velorane
