#pragma once

// A thin layer over libusb-1.0: finds one device out of a list of vendor and
// product ids, opens it, and does bulk transfers on its fixed endpoints
// (interface 0, OUT 0x02, IN 0x81). Hot-plug events of listed devices reach
// a callback from a thread of its own. Knows nothing of the relay protocol.
//
// Threads: the event thread runs EventHandler and LocalCallback; the
// caller's thread runs the rest (the transport thread for Connect,
// Disconnect and SendBinary; the main thread for construction, Register,
// Unregister and destruction). m_devices and m_callback are set before the
// event thread starts and only read while it runs.

#include <libusb.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace quorvan::velorane {

class UsbUtilities
{
public:
    // Hot-plug status given to the callback.
    static constexpr int kDeviceArrived = 0;
    static constexpr int kDeviceLeft = 1;

    explicit UsbUtilities(std::vector<std::pair<int, int>> devices);
    ~UsbUtilities();
    UsbUtilities(const UsbUtilities&) = delete;
    UsbUtilities& operator=(const UsbUtilities&) = delete;

    // 1 when a device is connected, 0 when none of the list is present, a
    // negative libusb error otherwise. Idempotent once connected.
    int Connect();
    void Disconnect();
    bool VendorProductMatch(int vendorId, int productId);
    // One bulk OUT: the count transferred, or a negative code.
    int SendBinary(unsigned char* data, int length, int timeoutMs);
    // One bulk OUT, then one bulk IN: the count received, a short OUT's
    // count, or a negative code.
    int SendBinary(unsigned char* request, int requestLength, unsigned char* response,
                   int responseCapacity, int sendTimeoutMs, int receiveTimeoutMs);
    // Watches arrivals and departures of listed devices; 0, or libusb's
    // error when hot-plug can't be had (then no thread runs).
    int Register(std::function<void(int)> callback);
    void Unregister();

    void EventHandler();
    void LocalCallback(libusb_hotplug_event event, int vendorId, int productId);

    bool IsConnected() const { return m_handle != nullptr && m_device != nullptr; }

private:
    libusb_context* m_context = nullptr;
    libusb_device_handle* m_handle = nullptr;
    libusb_device* m_device = nullptr;
    uint16_t m_vendorId = 0;
    uint16_t m_productId = 0;
    std::thread m_eventThread;
    std::atomic<bool> m_stopEvents{false};
    libusb_hotplug_callback_handle m_hotplugHandle = 0;
    std::function<void(int)> m_callback;
    std::vector<std::pair<int, int>> m_devices;
};

int LIBUSB_CALL CallbackWrapper(libusb_context* context, libusb_device* device,
                                libusb_hotplug_event event, void* userData);

} // namespace quorvan::velorane
