// UsbUtilities and UsbCommunication on a libusb without hot-plug support.
// Linux's libusb always has it, so this executable answers
// libusb_hotplug_register_callback as such a libusb does, with
// LIBUSB_ERROR_NOT_SUPPORTED; every other libusb call is the real one,
// against the Kyr emulated with umockdev.

#include "Clients/ConferenceTransport/Src/UsbCommunication.h"
#include "Common/UsbUtilities/Src/UsbUtilities.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tools/Common/EmulatedUsbDevice.h"

#include <QDataStream>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>

extern "C" int LIBUSB_CALL libusb_hotplug_register_callback(libusb_context*, int, int, int, int,
                                                            int, libusb_hotplug_callback_fn, void*,
                                                            libusb_hotplug_callback_handle*)
{
    return LIBUSB_ERROR_NOT_SUPPORTED;
}

using namespace velorane::test;
using quorvan::velorane::UsbCommunication;
using quorvan::velorane::UsbUtilities;
using simcommon::EmulatedUsbDevice;

namespace {

const std::vector<std::pair<int, int>> kKyrIds = {{0x7A31, 0x0301}, {0x7A31, 0x0300}};

// The ids of this process's threads now.
std::set<std::string> ThreadIds()
{
    std::set<std::string> ids;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.insert(task.path().filename().string());
    }
    return ids;
}

class UsbWithoutHotplugTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!EmulatedUsbDevice::InMockEnvironment()) {
            GTEST_SKIP() << "not under umockdev's preload library";
        }
        m_device = std::make_unique<EmulatedUsbDevice>();
    }

    ScopedLogCapture m_capture;
    std::unique_ptr<EmulatedUsbDevice> m_device;
};

} // namespace

TEST_F(UsbWithoutHotplugTest, RegisterFailsStartsNoThreadAndUnregisterDoesNothing)
{
    UsbUtilities usb(kKyrIds);
    // Threads of libusb and GLib that start on their own have started.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::set<std::string> before = ThreadIds();
    int calls = 0;
    EXPECT_EQ(usb.Register([&calls](int) { ++calls; }), LIBUSB_ERROR_NOT_SUPPORTED);
    // A watch would have started its thread before Register returned.
    EXPECT_EQ(ThreadIds(), before);
    // Nobody watches: a Kyr plugged in and out goes unnoticed.
    m_device->Plug(0x7A31, 0x0301);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    m_device->Unplug();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    usb.Unregister();
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(m_capture->Messages().empty());
    EXPECT_TRUE(m_device->UnknownRequests().empty());
}

// The transport ignores the failed registration and carries commands all
// the same.
TEST_F(UsbWithoutHotplugTest, TransportWorksWithoutTheWatch)
{
    m_device->Plug(0x7A31, 0x0301);
    UsbCommunication transport;
    ASSERT_TRUE(transport.Initialize());
    QByteArray response;
    QDataStream stream(&response, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::BigEndian);
    stream << quint32(0xBBFE4599u) << quint32(0xD0F9u) << quint32(13) << quint8(9);
    m_device->QueueAnswer(std::vector<uint8_t>(response.begin(), response.end()));
    int dispatched = 0;
    QObject::connect(
        &transport, &quorvan::velorane::IConferenceTransport::DataCallback,
        [&dispatched](quorvan::velorane::RelayService, quorvan::velorane::RelayCommand,
                      QByteArray data) { dispatched += data == QByteArray("\x09", 1); });
    EXPECT_TRUE(transport.SendWithPayload(quorvan::velorane::RelayCommandData(
        quorvan::velorane::RelayServiceVideo, quorvan::velorane::RelayCommandRequestFrame)));
    EXPECT_EQ(dispatched, 1);
    EXPECT_TRUE(transport.Terminate());
    EXPECT_TRUE(m_device->UnknownRequests().empty());
}
