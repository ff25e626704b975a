// The usbfs side of EmulatedUsbDevice: the ioctl handler on the testbed's
// worker thread and the book-keeping of each open file's URBs.

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

constexpr unsigned char kEndpointOut = 0x02;
constexpr unsigned char kEndpointIn = 0x81;

void Complete(UMockdevIoctlClient* client, long result, int error)
{
    umockdev_ioctl_client_complete(client, result, error);
}

// The device number of a node such as /dev/bus/usb/001/002.
int NumberOf(const char* devnode)
{
    const char* slash = devnode ? std::strrchr(devnode, '/') : nullptr;
    return slash ? std::atoi(slash + 1) : -1;
}

} // namespace

usbdevfs_urb* EmulatedUsbDevice::UrbOf(UMockdevIoctlData* data)
{
    return reinterpret_cast<usbdevfs_urb*>(data->data);
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
    const std::shared_ptr<Plugging> plugging = client.plugging;
    m_clients.erase(known);
    g_object_unref(ioctlClient);
    UpdateReady(*plugging);
}

void EmulatedUsbDevice::MakeReapable(Client& client, UMockdevIoctlData* urb)
{
    client.reapable.push_back(urb);
    UpdateReady(*client.plugging);
}

void EmulatedUsbDevice::UpdateReady(Plugging& plugging)
{
    bool ready = false;
    for (const auto& [ioctlClient, client] : m_clients) {
        ready = ready || (client.plugging.get() == &plugging && !client.reapable.empty());
    }
    plugging.node.SetReady(ready);
}

bool EmulatedUsbDevice::HandleIoctl(UMockdevIoctlClient* ioctlClient)
{
    const unsigned long request = umockdev_ioctl_client_get_request(ioctlClient);
    UMockdevIoctlData* argument = umockdev_ioctl_client_get_arg(ioctlClient);
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_closing) {
        Complete(ioctlClient, -1, ENODEV);
        return true;
    }
    Client& client = ClientFor(ioctlClient);
    const bool pulled = client.plugging->pulled;
    const auto failure = m_failures.find(request);
    if (failure != m_failures.end()) {
        Complete(ioctlClient, -1, failure->second);
        return true;
    }
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
            MakeReapable(client, urbData);
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
    MakeReapable(client, urbData);
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
        UpdateReady(*client.plugging);
        Complete(ioctlClient, -1, client.plugging->pulled ? ENODEV : EAGAIN);
        return;
    }
    UMockdevIoctlData* urbData = client.reapable.front();
    client.reapable.pop_front();
    UpdateReady(*client.plugging);
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
    MakeReapable(client, waiting->urb);
    if (waiting->buffer) {
        umockdev_ioctl_data_unref(waiting->buffer);
    }
    client.waitingIn.erase(waiting);
    Complete(ioctlClient, 0, 0);
}

} // namespace simcommon
