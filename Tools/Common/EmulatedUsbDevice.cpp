#include "Tools/Common/EmulatedUsbDevice.h"

#include "Tools/Common/UsbDeviceDescription.h"

#include <umockdev.h>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace simcommon {

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
        m_closing = true;
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
    const std::string node = UsbDeviceNode(number);
    if (std::find(m_attached.begin(), m_attached.end(), number) == m_attached.end()) {
        umockdev_testbed_attach_ioctl(m_testbed, ("/dev/" + node).c_str(), m_handler, nullptr);
        m_attached.push_back(number);
    }
    // The node first, then the device and its add event.
    const std::string path = Directory() + "/dev/" + node;
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
    auto plugging = std::make_shared<Plugging>();
    plugging->number = number;
    plugging->node.Create(path);
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_plugged[number] = plugging;
    }
    umockdev_testbed_add_from_string(
        m_testbed, UsbDeviceDescription(vendor, product, number).c_str(), nullptr);
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
            MakeReapable(client, urb.urb);
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
            MakeReapable(client, urb.urb);
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

void EmulatedUsbDevice::FailRequest(unsigned long request, int error)
{
    std::lock_guard<std::mutex> hold(m_lock);
    if (error == 0) {
        m_failures.erase(request);
    } else {
        m_failures[request] = error;
    }
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

} // namespace simcommon
