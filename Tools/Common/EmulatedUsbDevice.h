#pragma once

// A USB bulk device emulated with umockdev in this process: a testbed with
// one device of the given ids (interface 0, bulk OUT 0x02, bulk IN 0x81),
// answering the usbfs ioctls libusb issues. OUT transfers are recorded; IN
// transfers take the queued answers in order and, with none queued, wait
// until libusb gives up on them. The program must run under umockdev's
// preload library, and the testbed must exist before libusb_init.
//
// Threads: the ioctl handler runs on the testbed's worker thread; the test
// thread queues answers and reads records; m_lock guards what they share.

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace simcommon {

class EmulatedUsbDevice
{
public:
    EmulatedUsbDevice();
    ~EmulatedUsbDevice();
    EmulatedUsbDevice(const EmulatedUsbDevice&) = delete;
    EmulatedUsbDevice& operator=(const EmulatedUsbDevice&) = delete;

    // True when the preload library is in place (else nothing is faked).
    static bool InMockEnvironment();

    // Plugs a device with these ids in as bus 1, device number; sends the
    // add event.
    void Plug(uint16_t vendor, uint16_t product, int number = 2);
    // Sends the remove event and takes the device away; later ioctls fail
    // with ENODEV.
    void Unplug(int number = 2);

    void QueueAnswer(std::vector<uint8_t> answer);
    // Called on the testbed's thread with each OUT transfer; what it returns
    // is queued as the answers to come. The lock is held: it must not call
    // back into this object.
    using OutHandler =
        std::function<std::vector<std::vector<uint8_t>>(const std::vector<uint8_t>&)>;
    void SetOutHandler(OutHandler handler);
    // Whether OUT transfers are kept for OutTransfers (on by default; a long
    // stream turns it off).
    void KeepOutTransfers(bool keep);
    // Makes the next OUT transfer take only this many bytes.
    void ShortenNextOut(int bytes);
    std::vector<std::vector<uint8_t>> OutTransfers() const;
    std::vector<std::string> UnknownRequests() const;

private:
    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    bool HandleIoctl(UMockdevIoctlClient* client);

    UMockdevTestbed* m_testbed = nullptr;
    UMockdevIoctlBase* m_handler = nullptr;
    mutable std::mutex m_lock;
    std::deque<std::vector<uint8_t>> m_answers;
    std::vector<std::vector<uint8_t>> m_outs;
    std::deque<UMockdevIoctlData*> m_reapable;
    std::vector<UMockdevIoctlData*> m_waitingIn;
    std::vector<std::string> m_unknown;
    OutHandler m_outHandler;
    bool m_keepOuts = true;
    int m_shortOut = -1;
    // Device numbers whose node has the handler already: umockdev takes one
    // handler per node for the testbed's life.
    std::vector<int> m_attached;
    bool m_unplugged = false;
};

} // namespace simcommon
