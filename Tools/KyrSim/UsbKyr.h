#pragma once

#include "KyrAudio.h"
#include "KyrOptions.h"
#include "KyrResponder.h"

#include "Tools/Common/EmulatedUsbDevice.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

namespace simcommon {
class Recorder;
class WavWriter;
} // namespace simcommon

namespace kyrsim {

class LiveFaults;

// The Kyr plugged in over USB: an umockdev testbed holding a device with
// the Kyr's ids (vendor 0x7A31, product 0x0301), whose bulk OUT transfers
// are requests (little-endian header, payload) and whose next IN transfer
// carries the answer, as over TLS but with no password and one answer per
// exchange. The relay reaches it by running under umockdev's preload
// library with UMOCKDEV_DIR set to TestbedDirectory(); kyr-sim runs under
// it too, or the testbed's plug events would reach no one.
//
// Threads: requests are answered on the testbed's worker thread; plugging,
// unplugging and late answers run on the main thread, which the worker
// thread posts to. m_lock guards the responder, the counters and the
// record between them.
class UsbKyr : public QObject
{
    Q_OBJECT

public:
    // live holds the faults the control pipe switches, and outlives this.
    UsbKyr(const KyrOptions& options, simcommon::Recorder* recorder,
           simcommon::WavWriter* speakerWav, LiveFaults* live, QObject* parent = nullptr);
    ~UsbKyr() override;

    // Must run before anything else of libusb's in this process would.
    QString TestbedDirectory() const;
    // Plugs the device now or after --usb-plug-after, and schedules the
    // unplug and replug the options ask for.
    void Start();
    // On the main thread: plug the device in (a new device each time) or
    // pull it, recording "plugged" or "unplugged".
    void Plug();
    void Unplug();
    // Records one line, in order with the worker thread's.
    void Record(const QString& line);

private:
    simcommon::EmulatedUsbDevice::OutReply Answer(const std::vector<uint8_t>& request);
    // The microphone answer that takes the place of the answer to request,
    // once, when --mic-unsolicited asks for it; else a null array.
    QByteArray UnsolicitedMicrophone(quint32 service, quint32 command);
    void OnInWaiting();

    KyrOptions m_options;
    simcommon::Recorder* m_recorder;
    LiveFaults* m_live;
    QElapsedTimer m_clock; // from Start
    bool m_micUnsolicitedSent = false;
    std::mutex m_lock;
    KyrAudio m_audio;
    KyrResponder m_responder;
    int m_frameRequests = 0;
    int m_answered = 0;
    bool m_garbageSent = false;
    bool m_hugeSent = false;
    std::atomic<bool> m_pullWhenInWaits{false};
    // Last: the device goes first, so that no request arrives any more.
    std::unique_ptr<simcommon::EmulatedUsbDevice> m_device;
};

} // namespace kyrsim
