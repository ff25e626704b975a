#pragma once

// A USB bulk device emulated with umockdev in this process: a testbed with
// devices of the given ids (interface 0, bulk OUT 0x02, bulk IN 0x81),
// answering the usbfs ioctls libusb issues. OUT transfers are recorded; IN
// transfers take the queued answers in order and, with none queued, wait
// for one (QueueAnswer) until libusb gives up on them. The program that
// talks to the device must run under umockdev's preload library, and the
// testbed must exist before its libusb_init.
//
// The device node is a FIFO that polls ready only while a URB waits to be
// reaped, as a usbfs node does, so that libusb's event loop sleeps while
// nothing happens.
//
// Unplugging behaves as the kernel's usbfs does: URBs in flight complete
// with -ESHUTDOWN and can still be reaped, and every other ioctl on a file
// opened before the unplug fails with ENODEV, also once the device is
// plugged in again (a new plug is a new device).
//
// Threads: the ioctl handler runs on the testbed's worker thread; the
// owner's threads plug, unplug, queue answers and read records; m_lock
// guards what they share.

#include "Tools/Common/UsbNodeFifo.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;
struct usbdevfs_urb;

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
    // LD_PRELOAD for a program to run under the preload library: this
    // process's AddressSanitizer runtime first when it has one, which must
    // come first, then the preload library, then what LD_PRELOAD held.
    static std::string PreloadValue();
    // The testbed's folder: UMOCKDEV_DIR for the programs that use it.
    std::string Directory() const;

    // Plugs a device with these ids in as bus 1, device number, and sends
    // the add event. Nothing happens while that number is plugged.
    void Plug(uint16_t vendor, uint16_t product, int number = 2);
    // Pulls the device (see Pull), then sends the remove event and takes it
    // out of the testbed.
    void Unplug(int number = 2);
    // The usbfs side of an unplug alone, as the kernel sees it at once:
    // URBs in flight complete with -ESHUTDOWN, later ioctls fail with
    // ENODEV. The remove event waits for Unplug.
    void Pull(int number = 2);

    // Answers the next IN transfer: one waiting now, or the next to come.
    void QueueAnswer(std::vector<uint8_t> answer);

    // What the device does with one OUT transfer.
    struct OutReply
    {
        // Queued as the answers to the IN transfers to come.
        std::vector<std::vector<uint8_t>> answers;
        // The OUT transfer takes only this many bytes (-1: all of them).
        int acceptBytes = -1;
        // The device is pulled (Pull) right after this OUT transfer has
        // completed, before libusb reaps it.
        bool pullAfter = false;
    };
    // Called on the testbed's thread with each OUT transfer's bytes. The
    // lock is held: it must not call back into this object.
    using OutHandler = std::function<OutReply(const std::vector<uint8_t>&)>;
    void SetOutHandler(OutHandler handler);
    // Called on the testbed's thread, lock held, when an IN transfer starts
    // to wait because no answer is queued.
    using InWaitingHandler = std::function<void()>;
    void SetInWaitingHandler(InWaitingHandler handler);

    // Makes every later ioctl with this request fail with this errno, as a
    // device or kernel that refuses it would (0 takes that back).
    void FailRequest(unsigned long request, int error);

    // Whether OUT transfers are kept for OutTransfers (on by default; a long
    // stream turns it off).
    void KeepOutTransfers(bool keep);
    // Makes the next OUT transfer take only this many bytes.
    void ShortenNextOut(int bytes);
    std::vector<std::vector<uint8_t>> OutTransfers() const;
    // IN transfers submitted and waiting for an answer.
    size_t InTransfersWaiting() const;
    // ioctl requests the device doesn't know, as "0x" and eight hex digits;
    // each also failed with ENOTTY and was reported on standard error.
    std::vector<std::string> UnknownRequests() const;

private:
    struct Urb
    {
        UMockdevIoctlData* urb = nullptr;
        UMockdevIoctlData* buffer = nullptr; // null for an empty buffer
    };
    // One plug of a device number: the files opened while it was plugged
    // belong to it for good.
    struct Plugging
    {
        int number = 0;
        bool pulled = false;
        // The device node: ready to poll while a file of this plugging has
        // a URB to reap.
        UsbNodeFifo node;
    };
    // One open file of the device, a client of the ioctl handler.
    struct Client
    {
        UMockdevIoctlClient* client = nullptr;
        unsigned long notifyId = 0;
        std::shared_ptr<Plugging> plugging;
        std::deque<Urb> waitingIn;
        std::deque<UMockdevIoctlData*> reapable;
    };

    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    static void OnClientNotify(void* client, void* property, void* self);
    bool HandleIoctl(UMockdevIoctlClient* ioctlClient);
    void SubmitUrb(Client& client, UMockdevIoctlClient* ioctlClient, UMockdevIoctlData* argument);
    void Reap(Client& client, UMockdevIoctlClient* ioctlClient, UMockdevIoctlData* argument);
    void Discard(Client& client, UMockdevIoctlClient* ioctlClient, UMockdevIoctlData* argument);
    Client& ClientFor(UMockdevIoctlClient* ioctlClient);
    void ForgetClient(UMockdevIoctlClient* ioctlClient);
    void PullLocked(int number);
    void MakeReapable(Client& client, UMockdevIoctlData* urb);
    void UpdateReady(Plugging& plugging);
    static usbdevfs_urb* UrbOf(UMockdevIoctlData* data);
    static void FillIn(const Urb& urb, const std::vector<uint8_t>& answer);
    static void Release(Urb& urb);

    UMockdevTestbed* m_testbed = nullptr;
    UMockdevIoctlBase* m_handler = nullptr;
    mutable std::mutex m_lock;
    std::deque<std::vector<uint8_t>> m_answers;
    std::vector<std::vector<uint8_t>> m_outs;
    std::vector<std::string> m_unknown;
    OutHandler m_outHandler;
    InWaitingHandler m_inWaitingHandler;
    bool m_keepOuts = true;
    int m_shortOut = -1;
    // The plugging of each device number now in the testbed.
    std::map<int, std::shared_ptr<Plugging>> m_plugged;
    std::map<UMockdevIoctlClient*, Client> m_clients;
    std::map<unsigned long, int> m_failures;
    // Set by the destructor: a call already on its way finds nothing to do.
    bool m_closing = false;
    // Device numbers whose node has the handler already: umockdev takes one
    // handler per node for the testbed's life.
    std::vector<int> m_attached;
};

} // namespace simcommon
