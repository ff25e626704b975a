#pragma once

#include "KyrAudio.h"
#include "KyrOptions.h"
#include "KyrResponder.h"

#include "Tools/Common/EmulatedUsbDevice.h"

#include <QObject>
#include <QString>

#include <memory>
#include <mutex>

namespace simcommon {
class Recorder;
class WavWriter;
} // namespace simcommon

namespace kyrsim {

// The Kyr plugged in over USB: an umockdev testbed holding a device with
// the Kyr's ids (vendor 0x7A31, product 0x0301), whose bulk OUT transfers
// are requests (little-endian header, payload) and whose next IN transfer
// carries the answer, as over TLS but with no password and one answer per
// exchange. The relay reaches it by running under umockdev's preload
// library with UMOCKDEV_DIR set to TestbedDirectory().
//
// Threads: requests are answered on the testbed's worker thread; plugging
// and unplugging run on the main thread's timers. m_lock guards the
// responder and the record between them.
class UsbKyr : public QObject
{
    Q_OBJECT

public:
    UsbKyr(const KyrOptions& options, simcommon::Recorder* recorder,
           simcommon::WavWriter* speakerWav, QObject* parent = nullptr);
    ~UsbKyr() override;

    // Must run before anything else of libusb's in this process would.
    QString TestbedDirectory() const;
    // Plugs the device now or after --usb-plug-after, and schedules the
    // unplug and replug the options ask for.
    void Start();

private:
    std::vector<std::vector<uint8_t>> Answer(const std::vector<uint8_t>& request);
    void Plug();
    void Unplug();

    KyrOptions m_options;
    simcommon::Recorder* m_recorder;
    std::mutex m_lock;
    KyrAudio m_audio;
    KyrResponder m_responder;
    std::unique_ptr<simcommon::EmulatedUsbDevice> m_device;
    int m_answered = 0;
};

} // namespace kyrsim
