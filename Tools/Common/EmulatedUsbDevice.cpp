#include "Tools/Common/EmulatedUsbDevice.h"

#include <umockdev.h>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace simcommon {

namespace {

std::string HexByte(unsigned value)
{
    char text[3];
    std::snprintf(text, sizeof(text), "%02x", value & 0xFFu);
    return text;
}

// Device, configuration, interface and the two bulk endpoints, with no
// string descriptors (so nothing asks for them).
std::string Descriptors(uint16_t vendor, uint16_t product)
{
    // Device: USB 2.0, packet size 64, the ids, release 1.00, no strings,
    // one configuration.
    std::string hex = "1201000200000040";
    hex += HexByte(vendor) + HexByte(vendor >> 8u) + HexByte(product) + HexByte(product >> 8u);
    hex += "0001000000"
           "01";
    // Configuration 1 of 32 bytes in all, one interface, bus powered.
    hex += "090220000101008032";
    // Interface 0, alternate 0, two endpoints, vendor class.
    hex += "09040000"
           "02ff000000";
    // Bulk OUT 0x02 and bulk IN 0x81, 512 bytes.
    hex += "07050202000200";
    hex += "07058102000200";
    return hex;
}

void Complete(UMockdevIoctlClient* client, long result, int error)
{
    umockdev_ioctl_client_complete(client, result, error);
}

} // namespace

EmulatedUsbDevice::EmulatedUsbDevice()
{
    m_testbed = umockdev_testbed_new();
    m_handler = umockdev_ioctl_base_new();
    g_signal_connect(m_handler, "handle-ioctl", G_CALLBACK(&EmulatedUsbDevice::OnIoctl), this);
}

EmulatedUsbDevice::~EmulatedUsbDevice()
{
    {
        std::lock_guard<std::mutex> hold(m_lock);
        for (UMockdevIoctlData* data : m_reapable) {
            umockdev_ioctl_data_unref(data);
        }
        for (UMockdevIoctlData* data : m_waitingIn) {
            umockdev_ioctl_data_unref(data);
        }
        m_reapable.clear();
        m_waitingIn.clear();
    }
    g_clear_object(&m_handler);
    g_clear_object(&m_testbed);
}

bool EmulatedUsbDevice::InMockEnvironment()
{
    const char* preload = std::getenv("LD_PRELOAD");
    return preload && std::strstr(preload, "libumockdev-preload") != nullptr;
}

void EmulatedUsbDevice::Plug(uint16_t vendor, uint16_t product, int number)
{
    char node[64];
    std::snprintf(node, sizeof(node), "/dev/bus/usb/001/%03d", number);
    if (std::find(m_attached.begin(), m_attached.end(), number) == m_attached.end()) {
        umockdev_testbed_attach_ioctl(m_testbed, node, m_handler, nullptr);
        m_attached.push_back(number);
    }
    char description[2048];
    std::snprintf(description, sizeof(description),
                  "P: /devices/usb1/1-%d\n"
                  "N: bus/usb/001/%03d\n"
                  "E: SUBSYSTEM=usb\n"
                  "E: DEVTYPE=usb_device\n"
                  "E: DEVNAME=/dev/bus/usb/001/%03d\n"
                  "E: BUSNUM=001\n"
                  "E: DEVNUM=%03d\n"
                  "A: dev=189:%d\\n\n"
                  "A: busnum=1\\n\n"
                  "A: devnum=%d\\n\n"
                  "A: speed=480\\n\n"
                  "A: bConfigurationValue=1\\n\n"
                  "H: descriptors=%s\n",
                  number, number, number, number, number, number,
                  Descriptors(vendor, product).c_str());
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_unplugged = false;
    }
    umockdev_testbed_add_from_string(m_testbed, description, nullptr);
}

void EmulatedUsbDevice::Unplug(int number)
{
    char path[64];
    std::snprintf(path, sizeof(path), "/sys/devices/usb1/1-%d", number);
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_unplugged = true;
    }
    umockdev_testbed_uevent(m_testbed, path, "remove");
    umockdev_testbed_remove_device(m_testbed, path);
}

void EmulatedUsbDevice::QueueAnswer(std::vector<uint8_t> answer)
{
    std::lock_guard<std::mutex> hold(m_lock);
    m_answers.push_back(std::move(answer));
}

void EmulatedUsbDevice::ShortenNextOut(int bytes)
{
    std::lock_guard<std::mutex> hold(m_lock);
    m_shortOut = bytes;
}

void EmulatedUsbDevice::SetOutHandler(OutHandler handler)
{
    std::lock_guard<std::mutex> hold(m_lock);
    m_outHandler = std::move(handler);
}

void EmulatedUsbDevice::KeepOutTransfers(bool keep)
{
    std::lock_guard<std::mutex> hold(m_lock);
    m_keepOuts = keep;
}

std::vector<std::vector<uint8_t>> EmulatedUsbDevice::OutTransfers() const
{
    std::lock_guard<std::mutex> hold(m_lock);
    return m_outs;
}

std::vector<std::string> EmulatedUsbDevice::UnknownRequests() const
{
    std::lock_guard<std::mutex> hold(m_lock);
    return m_unknown;
}

int EmulatedUsbDevice::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    return static_cast<EmulatedUsbDevice*>(self)->HandleIoctl(client) ? TRUE : FALSE;
}

bool EmulatedUsbDevice::HandleIoctl(UMockdevIoctlClient* client)
{
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* argument = umockdev_ioctl_client_get_arg(client);
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_unplugged) {
        Complete(client, -1, ENODEV);
        return true;
    }
    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
        // With scatter-gather libusb submits each transfer as one URB, as it
        // does on today's kernels; without it, it would cut large ones into
        // 16 KiB URBs.
        UMockdevIoctlData* data =
            umockdev_ioctl_data_resolve(argument, 0, sizeof(guint32), nullptr);
        *reinterpret_cast<guint32*>(data->data) =
            USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_BULK_CONTINUATION |
            USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT |
            USBDEVFS_CAP_ZERO_PACKET;
        umockdev_ioctl_data_unref(data);
        Complete(client, 0, 0);
        return true;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESET:
    case USBDEVFS_RESETEP:
        Complete(client, 0, 0);
        return true;
    case USBDEVFS_GETDRIVER:
        Complete(client, -1, ENODATA);
        return true;
    case USBDEVFS_SUBMITURB: {
        UMockdevIoctlData* urbData =
            umockdev_ioctl_data_resolve(argument, 0, sizeof(usbdevfs_urb), nullptr);
        auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData->data);
        UMockdevIoctlData* buffer =
            umockdev_ioctl_data_resolve(urbData, offsetof(usbdevfs_urb, buffer),
                                        static_cast<gsize>(urb->buffer_length), nullptr);
        if (urb->endpoint & 0x80) {
            if (!m_answers.empty()) {
                const std::vector<uint8_t> answer = std::move(m_answers.front());
                m_answers.pop_front();
                const size_t fits =
                    std::min(answer.size(), static_cast<size_t>(urb->buffer_length));
                if (fits > 0) {
                    std::memcpy(buffer->data, answer.data(), fits);
                }
                urb->actual_length = static_cast<int>(fits);
                urb->status = answer.size() > fits ? -EOVERFLOW : 0;
                m_reapable.push_back(urbData);
            } else {
                m_waitingIn.push_back(urbData);
            }
        } else {
            const int length =
                m_shortOut >= 0 ? std::min(m_shortOut, urb->buffer_length) : urb->buffer_length;
            m_shortOut = -1;
            const auto* bytes = static_cast<const uint8_t*>(buffer->data);
            std::vector<uint8_t> out(bytes, bytes + length);
            if (m_outHandler) {
                for (auto& answer : m_outHandler(out)) {
                    m_answers.push_back(std::move(answer));
                }
            }
            if (m_keepOuts) {
                m_outs.push_back(std::move(out));
            }
            urb->actual_length = length;
            urb->status = 0;
            m_reapable.push_back(urbData);
        }
        umockdev_ioctl_data_unref(buffer);
        Complete(client, 0, 0);
        return true;
    }
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY: {
        if (m_reapable.empty()) {
            Complete(client, -1, EAGAIN);
            return true;
        }
        UMockdevIoctlData* urbData = m_reapable.front();
        m_reapable.pop_front();
        UMockdevIoctlData* pointer =
            umockdev_ioctl_data_resolve(argument, 0, sizeof(gpointer), nullptr);
        umockdev_ioctl_data_set_ptr(pointer, 0, urbData);
        umockdev_ioctl_data_unref(pointer);
        umockdev_ioctl_data_unref(urbData);
        Complete(client, 0, 0);
        return true;
    }
    case USBDEVFS_DISCARDURB: {
        const gulong address = reinterpret_cast<gulong>(*reinterpret_cast<void**>(argument->data));
        auto waiting = std::find_if(
            m_waitingIn.begin(), m_waitingIn.end(),
            [address](UMockdevIoctlData* data) { return data->client_addr == address; });
        if (waiting == m_waitingIn.end()) {
            Complete(client, -1, EINVAL);
            return true;
        }
        // Given up on by libusb after its time-out: reaped as cancelled.
        reinterpret_cast<usbdevfs_urb*>((*waiting)->data)->status = -ENOENT;
        m_reapable.push_back(*waiting);
        m_waitingIn.erase(waiting);
        Complete(client, 0, 0);
        return true;
    }
    default:
        m_unknown.push_back(std::to_string(request));
        return false;
    }
}

} // namespace simcommon
