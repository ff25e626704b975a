#include "Common/UsbUtilities/Src/UsbUtilities.h"

#include "Common/Logger/Src/Logger.h"

namespace quorvan::velorane {

namespace {

constexpr int kInterface = 0;
constexpr int kAlternateSetting = 0;
constexpr unsigned char kEndpointOut = 0x02;
constexpr unsigned char kEndpointIn = 0x81;
constexpr long kEventPollMicroseconds = 100000;

} // namespace

UsbUtilities::UsbUtilities(std::vector<std::pair<int, int>> devices) : m_devices(std::move(devices))
{
    // Not checked: a context that failed shows in the first enumeration.
    libusb_init(&m_context);
}

UsbUtilities::~UsbUtilities()
{
    // A watch still running would call into a destroyed object.
    Unregister();
    Disconnect();
    if (m_context) {
        libusb_exit(m_context);
    }
}

int UsbUtilities::Connect()
{
    const libusb_version* version = libusb_get_version();
    VLOG(EGroupValueInformation, "libusb version %d.%d.%d.%d", version->major, version->minor,
         version->micro, version->nano);
    if (m_handle && m_device) {
        return 1;
    }

    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(m_context, &list);
    libusb_device* found = nullptr;
    for (ssize_t i = 0; i < count && !found; ++i) {
        libusb_device_descriptor descriptor;
        const int rc = libusb_get_device_descriptor(list[i], &descriptor);
        if (rc < 0) {
            VLOG(EGroupValueSevere, "FAILED: libusb_get_device_descriptor: [%d] (%s)", rc,
                 libusb_error_name(rc));
            libusb_free_device_list(list, 1);
            return rc;
        }
        if (VendorProductMatch(descriptor.idVendor, descriptor.idProduct)) {
            found = list[i];
            m_vendorId = descriptor.idVendor;
            m_productId = descriptor.idProduct;
        }
    }
    if (!found) {
        if (list) {
            libusb_free_device_list(list, 1);
        }
        return 0;
    }

    VLOG(EGroupValueInformation, "Connecting to vid=[0x%04X] pid=[0x%04X]", m_vendorId,
         m_productId);
    // The list is freed on every way out: the open handle keeps its own
    // reference to the device.
    int rc = libusb_open(found, &m_handle);
    libusb_free_device_list(list, 1);
    if (rc < 0) {
        VLOG(EGroupValueSevere, "FAILED: libusb_open: [%d] (%s)", rc, libusb_error_name(rc));
        m_handle = nullptr;
        return rc;
    }
    m_device = libusb_get_device(m_handle);
    if (!m_device) {
        VLOG(EGroupValueSevere, "FAILED: libusb_get_device: [%d] (%s)", rc, libusb_error_name(rc));
        Disconnect();
        return rc;
    }
    rc = libusb_claim_interface(m_handle, kInterface);
    if (rc < 0) {
        VLOG(EGroupValueSevere, "FAILED: libusb_claim_interface: [%d] (%s)", rc,
             libusb_error_name(rc));
        Disconnect();
        return rc;
    }
    rc = libusb_set_interface_alt_setting(m_handle, kInterface, kAlternateSetting);
    if (rc < 0) {
        VLOG(EGroupValueSevere, "FAILED: libusb_set_interface_alt_setting: [%d] (%s)", rc,
             libusb_error_name(rc));
        Disconnect();
        return rc;
    }
    VLOG(EGroupValueInformation, "Device connected!");
    return 1;
}

void UsbUtilities::Disconnect()
{
    if (m_handle) {
        VLOG(EGroupValueInformation, "Disconnecting from vid=[0x%04X] pid=[0x%04X]", m_vendorId,
             m_productId);
        libusb_close(m_handle);
    }
    m_handle = nullptr;
    m_device = nullptr;
    m_vendorId = 0;
    m_productId = 0;
}

bool UsbUtilities::VendorProductMatch(int vendorId, int productId)
{
    for (const auto& [vendor, product] : m_devices) {
        if (vendor == vendorId && product == productId) {
            return true;
        }
    }
    return false;
}

int UsbUtilities::SendBinary(unsigned char* data, int length, int timeoutMs)
{
    if (!m_device || !m_handle) {
        VLOG(EGroupValueInformation, "invalid device or handle!");
        return -1;
    }
    int transferred = 0;
    const int rc = libusb_bulk_transfer(m_handle, kEndpointOut, data, length, &transferred,
                                        static_cast<unsigned>(timeoutMs));
    if (rc >= 0) {
        return transferred;
    }
    VLOG(EGroupValueSevere, "FAILED: libusb_bulk_transfer: [%d] (%s)", rc, libusb_error_name(rc));
    return rc;
}

int UsbUtilities::SendBinary(unsigned char* request, int requestLength, unsigned char* response,
                             int responseCapacity, int sendTimeoutMs, int receiveTimeoutMs)
{
    if (!m_device || !m_handle) {
        VLOG(EGroupValueInformation, "invalid device or handle!");
        return -1;
    }
    const int sent = SendBinary(request, requestLength, sendTimeoutMs);
    if (sent != requestLength) {
        return sent;
    }
    int transferred = 0;
    const int rc = libusb_bulk_transfer(m_handle, kEndpointIn, response, responseCapacity,
                                        &transferred, static_cast<unsigned>(receiveTimeoutMs));
    if (rc >= 0) {
        return transferred;
    }
    VLOG(EGroupValueSevere, "FAILED: libusb_bulk_transfer: [%d] (%s)", rc, libusb_error_name(rc));
    return rc;
}

int UsbUtilities::Register(std::function<void(int)> callback)
{
    // The hot-plug calls take this object's context: in this libusb a null
    // one is the default context, which never sees this context's devices.
    const int rc = libusb_hotplug_register_callback(
        m_context,
        static_cast<libusb_hotplug_event>(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED |
                                          LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT),
        static_cast<libusb_hotplug_flag>(0), LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
        LIBUSB_HOTPLUG_MATCH_ANY, &CallbackWrapper, this, &m_hotplugHandle);
    m_callback = nullptr;
    if (rc != LIBUSB_SUCCESS) {
        return rc;
    }
    m_callback = std::move(callback);
    m_stopEvents.store(false);
    m_eventThread = std::thread(&UsbUtilities::EventHandler, this);
    return 0;
}

void UsbUtilities::EventHandler()
{
    while (!m_stopEvents.load()) {
        timeval wait{0, kEventPollMicroseconds};
        libusb_handle_events_timeout(m_context, &wait);
    }
}

void UsbUtilities::LocalCallback(libusb_hotplug_event event, int vendorId, int productId)
{
    if (!VendorProductMatch(vendorId, productId)) {
        return;
    }
    if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED) {
        VLOG(EGroupValueInformation, "Device plugged: vid=[0x%04X] pid=[0x%04X]", vendorId,
             productId);
        m_callback(kDeviceArrived);
    } else if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT) {
        VLOG(EGroupValueInformation, "Device unplugged: vid=[0x%04X] pid=[0x%04X]", vendorId,
             productId);
        m_callback(kDeviceLeft);
    }
}

void UsbUtilities::Unregister()
{
    if (!m_callback || !m_eventThread.joinable()) {
        return;
    }
    m_stopEvents.store(true);
    m_eventThread.join();
    libusb_hotplug_deregister_callback(m_context, m_hotplugHandle);
}

int LIBUSB_CALL CallbackWrapper(libusb_context*, libusb_device* device, libusb_hotplug_event event,
                                void* userData)
{
    libusb_device_descriptor descriptor;
    const int rc = libusb_get_device_descriptor(device, &descriptor);
    if (rc < 0) {
        VLOG(EGroupValueInformation, "FAILED: libusb_get_device_descriptor: [%d] (%s)", rc,
             libusb_error_name(rc));
        return 0;
    }
    static_cast<UsbUtilities*>(userData)->LocalCallback(event, descriptor.idVendor,
                                                        descriptor.idProduct);
    return 0;
}

} // namespace quorvan::velorane
