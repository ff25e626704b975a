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
#include <fstream>

namespace simcommon {

namespace {

constexpr unsigned char kEndpointOut = 0x02;
constexpr unsigned char kEndpointIn = 0x81;

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

usbdevfs_urb* UrbOf(UMockdevIoctlData* data)
{
    return reinterpret_cast<usbdevfs_urb*>(data->data);
}

// The device number of a node such as /dev/bus/usb/001/002.
int NumberOf(const char* devnode)
{
    const char* slash = devnode ? std::strrchr(devnode, '/') : nullptr;
    return slash ? std::atoi(slash + 1) : -1;
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
    // No call may reach this object any more, then what it holds goes.
    g_signal_handlers_disconnect_by_data(m_handler, this);
    {
        std::lock_guard<std::mutex> hold(m_lock);
        for (auto& [ioctlClient, client] : m_clients) {
            g_signal_handler_disconnect(ioctlClient, client.notifyId);
            for (Urb& urb : client.waitingIn) {
                Release(urb);
            }
            for (UMockdevIoctlData* data : client.reapable) {
                umockdev_ioctl_data_unref(data);
            }
            g_object_unref(ioctlClient);
        }
        m_clients.clear();
    }
    g_clear_object(&m_handler);
    g_clear_object(&m_testbed);
}

bool EmulatedUsbDevice::InMockEnvironment()
{
    const char* preload = std::getenv("LD_PRELOAD");
    return preload && std::strstr(preload, "libumockdev-preload") != nullptr;
}

std::string EmulatedUsbDevice::PreloadValue()
{
    std::string value;
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (value.empty() && std::getline(maps, line)) {
        const size_t at = line.find('/');
        if (at != std::string::npos && line.find("/libasan.so") != std::string::npos) {
            value = line.substr(at) + ":";
        }
    }
    value += "libumockdev-preload.so.0";
    const char* before = std::getenv("LD_PRELOAD");
    if (before && *before) {
        value += std::string(":") + before;
    }
    return value;
}

std::string EmulatedUsbDevice::Directory() const
{
    gchar* root = umockdev_testbed_get_root_dir(m_testbed);
    std::string directory = root ? root : "";
    g_free(root);
    return directory;
}

void EmulatedUsbDevice::Plug(uint16_t vendor, uint16_t product, int number)
{
    {
        std::lock_guard<std::mutex> hold(m_lock);
        if (m_plugged.count(number) != 0) {
            return;
        }
    }
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
        auto plugging = std::make_shared<Plugging>();
        plugging->number = number;
        m_plugged[number] = plugging;
    }
    umockdev_testbed_add_from_string(m_testbed, description, nullptr);
}

void EmulatedUsbDevice::Unplug(int number)
{
    {
        std::lock_guard<std::mutex> hold(m_lock);
        if (m_plugged.count(number) == 0) {
            return;
        }
        PullLocked(number);
    }
    char path[64];
    std::snprintf(path, sizeof(path), "/sys/devices/usb1/1-%d", number);
    umockdev_testbed_uevent(m_testbed, path, "remove");
    umockdev_testbed_remove_device(m_testbed, path);
    std::lock_guard<std::mutex> hold(m_lock);
    m_plugged.erase(number);
}

void EmulatedUsbDevice::Pull(int number)
{
    std::lock_guard<std::mutex> hold(m_lock);
    PullLocked(number);
}

void EmulatedUsbDevice::PullLocked(int number)
{
    const auto plugged = m_plugged.find(number);
    if (plugged == m_plugged.end() || plugged->second->pulled) {
        return;
    }
    plugged->second->pulled = true;
    // What the device still had to send is gone with it. URBs in flight are
    // given back as the kernel does at a disconnect: with -ESHUTDOWN, still
    // to be reaped (libusb waits for that, and the node gives no poll error).
    m_answers.clear();
    m_shortOut = -1;
    for (auto& [ioctlClient, client] : m_clients) {
        if (client.plugging != plugged->second) {
            continue;
        }
        for (Urb& urb : client.waitingIn) {
            UrbOf(urb.urb)->status = -ESHUTDOWN;
            UrbOf(urb.urb)->actual_length = 0;
            client.reapable.push_back(urb.urb);
            if (urb.buffer) {
                umockdev_ioctl_data_unref(urb.buffer);
            }
        }
        client.waitingIn.clear();
    }
}

void EmulatedUsbDevice::QueueAnswer(std::vector<uint8_t> answer)
{
    std::lock_guard<std::mutex> hold(m_lock);
    for (auto& [ioctlClient, client] : m_clients) {
        if (!client.waitingIn.empty() && !client.plugging->pulled) {
            Urb urb = client.waitingIn.front();
            client.waitingIn.pop_front();
            FillIn(urb, answer);
            client.reapable.push_back(urb.urb);
            if (urb.buffer) {
                umockdev_ioctl_data_unref(urb.buffer);
            }
            return;
        }
    }
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

void EmulatedUsbDevice::SetInWaitingHandler(InWaitingHandler handler)
{
    std::lock_guard<std::mutex> hold(m_lock);
    m_inWaitingHandler = std::move(handler);
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

size_t EmulatedUsbDevice::InTransfersWaiting() const
{
    std::lock_guard<std::mutex> hold(m_lock);
    size_t waiting = 0;
    for (const auto& [ioctlClient, client] : m_clients) {
        waiting += client.waitingIn.size();
    }
    return waiting;
}

std::vector<std::string> EmulatedUsbDevice::UnknownRequests() const
{
    std::lock_guard<std::mutex> hold(m_lock);
    return m_unknown;
}

void EmulatedUsbDevice::FillIn(const Urb& urb, const std::vector<uint8_t>& answer)
{
    usbdevfs_urb* fields = UrbOf(urb.urb);
    const size_t room = urb.buffer ? std::min(static_cast<size_t>(fields->buffer_length),
                                              static_cast<size_t>(urb.buffer->data_len))
                                   : 0;
    const size_t fits = std::min(answer.size(), room);
    if (fits > 0) {
        std::memcpy(urb.buffer->data, answer.data(), fits);
    }
    fields->actual_length = static_cast<int>(fits);
    // More than the transfer holds: the host controller reports babble.
    fields->status = answer.size() > static_cast<size_t>(fields->buffer_length) ? -EOVERFLOW : 0;
}

void EmulatedUsbDevice::Release(Urb& urb)
{
    if (urb.buffer) {
        umockdev_ioctl_data_unref(urb.buffer);
    }
    umockdev_ioctl_data_unref(urb.urb);
    urb = Urb();
}

int EmulatedUsbDevice::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    return static_cast<EmulatedUsbDevice*>(self)->HandleIoctl(client) ? TRUE : FALSE;
}

void EmulatedUsbDevice::OnClientNotify(void* client, void*, void* self)
{
    auto* ioctlClient = static_cast<UMockdevIoctlClient*>(client);
    if (!umockdev_ioctl_client_get_connected(ioctlClient)) {
        static_cast<EmulatedUsbDevice*>(self)->ForgetClient(ioctlClient);
    }
}

EmulatedUsbDevice::Client& EmulatedUsbDevice::ClientFor(UMockdevIoctlClient* ioctlClient)
{
    const auto known = m_clients.find(ioctlClient);
    if (known != m_clients.end()) {
        return known->second;
    }
    Client& client = m_clients[ioctlClient];
    client.client = ioctlClient;
    g_object_ref(ioctlClient);
    // The file closed (its program may have ended): what it left goes.
    // umockdev 0.17 never emits client-vanished, but notifies this.
    client.notifyId = g_signal_connect(ioctlClient, "notify::connected",
                                       G_CALLBACK(&EmulatedUsbDevice::OnClientNotify), this);
    const auto plugged = m_plugged.find(NumberOf(umockdev_ioctl_client_get_devnode(ioctlClient)));
    if (plugged != m_plugged.end()) {
        client.plugging = plugged->second;
    } else {
        client.plugging = std::make_shared<Plugging>();
        client.plugging->pulled = true;
    }
    return client;
}

void EmulatedUsbDevice::ForgetClient(UMockdevIoctlClient* ioctlClient)
{
    std::lock_guard<std::mutex> hold(m_lock);
    const auto known = m_clients.find(ioctlClient);
    if (known == m_clients.end()) {
        return;
    }
    Client& client = known->second;
    g_signal_handler_disconnect(ioctlClient, client.notifyId);
    for (Urb& urb : client.waitingIn) {
        Release(urb);
    }
    for (UMockdevIoctlData* data : client.reapable) {
        umockdev_ioctl_data_unref(data);
    }
    m_clients.erase(known);
    g_object_unref(ioctlClient);
}

bool EmulatedUsbDevice::HandleIoctl(UMockdevIoctlClient* ioctlClient)
{
    const unsigned long request = umockdev_ioctl_client_get_request(ioctlClient);
    UMockdevIoctlData* argument = umockdev_ioctl_client_get_arg(ioctlClient);
    std::lock_guard<std::mutex> hold(m_lock);
    Client& client = ClientFor(ioctlClient);
    const bool pulled = client.plugging->pulled;
    switch (request) {
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY:
        // Allowed after a disconnect, as USBDEVFS_CAP_REAP_AFTER_DISCONNECT
        // promises.
        Reap(client, ioctlClient, argument);
        return true;
    case USBDEVFS_GET_CAPABILITIES: {
        if (pulled) {
            Complete(ioctlClient, -1, ENODEV);
            return true;
        }
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
        Complete(ioctlClient, 0, 0);
        return true;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESET:
    case USBDEVFS_RESETEP:
        Complete(ioctlClient, pulled ? -1 : 0, pulled ? ENODEV : 0);
        return true;
    case USBDEVFS_GETDRIVER:
        Complete(ioctlClient, -1, pulled ? ENODEV : ENODATA);
        return true;
    case USBDEVFS_SUBMITURB:
        if (pulled) {
            Complete(ioctlClient, -1, ENODEV);
        } else {
            SubmitUrb(client, ioctlClient, argument);
        }
        return true;
    case USBDEVFS_DISCARDURB:
        if (pulled) {
            // The kernel gave every URB back at the disconnect: libusb then
            // takes the URB for reapable, and it is.
            Complete(ioctlClient, -1, ENODEV);
        } else {
            Discard(client, ioctlClient, argument);
        }
        return true;
    default: {
        // A libusb that issues an ioctl this device doesn't know must fail
        // loudly, not be answered at random.
        char text[32];
        std::snprintf(text, sizeof(text), "0x%08lx", request);
        m_unknown.push_back(text);
        std::fprintf(stderr, "emulated USB device: unknown ioctl %s, failed with ENOTTY\n", text);
        Complete(ioctlClient, -1, ENOTTY);
        return true;
    }
    }
}

void EmulatedUsbDevice::SubmitUrb(Client& client, UMockdevIoctlClient* ioctlClient,
                                  UMockdevIoctlData* argument)
{
    UMockdevIoctlData* urbData =
        umockdev_ioctl_data_resolve(argument, 0, sizeof(usbdevfs_urb), nullptr);
    usbdevfs_urb* urb = UrbOf(urbData);
    if (urb->type != USBDEVFS_URB_TYPE_BULK ||
        (urb->endpoint != kEndpointOut && urb->endpoint != kEndpointIn) || urb->buffer_length < 0) {
        // No such endpoint on this device.
        umockdev_ioctl_data_unref(urbData);
        Complete(ioctlClient, -1, ENOENT);
        return;
    }
    const size_t length = static_cast<size_t>(urb->buffer_length);
    if (urb->endpoint == kEndpointIn) {
        Urb in;
        in.urb = urbData;
        if (!m_answers.empty()) {
            const std::vector<uint8_t> answer = std::move(m_answers.front());
            m_answers.pop_front();
            // Only what the answer fills is read from the program and
            // written back.
            const size_t touched = std::min(answer.size(), length);
            in.buffer = touched > 0 ? umockdev_ioctl_data_resolve(
                                          urbData, offsetof(usbdevfs_urb, buffer), touched, nullptr)
                                    : nullptr;
            FillIn(in, answer);
            client.reapable.push_back(urbData);
            if (in.buffer) {
                umockdev_ioctl_data_unref(in.buffer);
            }
        } else {
            // Kept whole for an answer that comes later.
            in.buffer = length > 0 ? umockdev_ioctl_data_resolve(
                                         urbData, offsetof(usbdevfs_urb, buffer), length, nullptr)
                                   : nullptr;
            client.waitingIn.push_back(in);
            if (m_inWaitingHandler) {
                m_inWaitingHandler();
            }
        }
        Complete(ioctlClient, 0, 0);
        return;
    }

    UMockdevIoctlData* buffer =
        length > 0
            ? umockdev_ioctl_data_resolve(urbData, offsetof(usbdevfs_urb, buffer), length, nullptr)
            : nullptr;
    const auto* bytes = buffer ? static_cast<const uint8_t*>(buffer->data) : nullptr;
    const std::vector<uint8_t> out(bytes, bytes + (bytes ? length : 0));
    OutReply reply;
    if (m_outHandler) {
        reply = m_outHandler(out);
    }
    size_t taken = length;
    if (m_shortOut >= 0) {
        taken = std::min(taken, static_cast<size_t>(m_shortOut));
        m_shortOut = -1;
    }
    if (reply.acceptBytes >= 0) {
        taken = std::min(taken, static_cast<size_t>(reply.acceptBytes));
    }
    for (auto& answer : reply.answers) {
        m_answers.push_back(std::move(answer));
    }
    if (m_keepOuts) {
        m_outs.emplace_back(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(taken));
    }
    urb->actual_length = static_cast<int>(taken);
    urb->status = 0;
    client.reapable.push_back(urbData);
    if (buffer) {
        umockdev_ioctl_data_unref(buffer);
    }
    Complete(ioctlClient, 0, 0);
    if (reply.pullAfter) {
        PullLocked(client.plugging->number);
    }
}

void EmulatedUsbDevice::Reap(Client& client, UMockdevIoctlClient* ioctlClient,
                             UMockdevIoctlData* argument)
{
    if (client.reapable.empty()) {
        Complete(ioctlClient, -1, client.plugging->pulled ? ENODEV : EAGAIN);
        return;
    }
    UMockdevIoctlData* urbData = client.reapable.front();
    client.reapable.pop_front();
    UMockdevIoctlData* pointer =
        umockdev_ioctl_data_resolve(argument, 0, sizeof(gpointer), nullptr);
    umockdev_ioctl_data_set_ptr(pointer, 0, urbData);
    umockdev_ioctl_data_unref(pointer);
    umockdev_ioctl_data_unref(urbData);
    Complete(ioctlClient, 0, 0);
}

void EmulatedUsbDevice::Discard(Client& client, UMockdevIoctlClient* ioctlClient,
                                UMockdevIoctlData* argument)
{
    const gulong address = reinterpret_cast<gulong>(*reinterpret_cast<void**>(argument->data));
    const auto waiting =
        std::find_if(client.waitingIn.begin(), client.waitingIn.end(),
                     [address](const Urb& urb) { return urb.urb->client_addr == address; });
    if (waiting == client.waitingIn.end()) {
        // Completed already: libusb reaps it as it is.
        Complete(ioctlClient, -1, EINVAL);
        return;
    }
    // Given up on by libusb after its time-out: reaped as cancelled.
    UrbOf(waiting->urb)->status = -ENOENT;
    UrbOf(waiting->urb)->actual_length = 0;
    client.reapable.push_back(waiting->urb);
    if (waiting->buffer) {
        umockdev_ioctl_data_unref(waiting->buffer);
    }
    client.waitingIn.erase(waiting);
    Complete(ioctlClient, 0, 0);
}

} // namespace simcommon
