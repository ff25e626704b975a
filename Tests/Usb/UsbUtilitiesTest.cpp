// UsbUtilities against a Kyr emulated with umockdev: the device list,
// Connect, both SendBinary forms, hot-plug. Runs under umockdev's preload
// library (CTest sets it); without it the tests say so and skip.

#include "Common/UsbUtilities/Src/UsbUtilities.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tools/Common/EmulatedUsbDevice.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

using namespace velorane::test;
using quorvan::EGroupValueInformation;
using quorvan::EGroupValueSevere;
using quorvan::velorane::UsbUtilities;
using simcommon::EmulatedUsbDevice;

namespace {

constexpr uint16_t kVendor = 0x7A31;
const std::vector<std::pair<int, int>> kKyrIds = {{0x7A31, 0x0301}, {0x7A31, 0x0300}};

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Runs one exchange on a thread of its own and answers its result, or
// aborts the run loudly when it never returns: a libusb transfer that
// waits for a URB nobody completes blocks its thread for good.
int ExchangeOnAThread(const std::function<int()>& exchange, std::chrono::milliseconds* took)
{
    std::promise<int> result;
    std::future<int> done = result.get_future();
    const auto start = std::chrono::steady_clock::now();
    std::thread worker([&] { result.set_value(exchange()); });
    if (done.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        std::fputs("the exchange never returned: a URB was left in flight\n", stderr);
        std::abort();
    }
    *took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  start);
    worker.join();
    return done.get();
}

class UsbUtilitiesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!EmulatedUsbDevice::InMockEnvironment()) {
            GTEST_SKIP() << "not under umockdev's preload library";
        }
        // The testbed before the library's context: it points libusb at
        // the emulated sysfs.
        m_device = std::make_unique<EmulatedUsbDevice>();
    }

    void TearDown() override
    {
        // A libusb that issues an ioctl the emulated device doesn't know
        // fails here, whatever the test.
        if (m_device) {
            EXPECT_EQ(m_device->UnknownRequests(), std::vector<std::string>());
        }
    }

    std::vector<std::string> InformationAndSevere()
    {
        std::vector<std::string> lines;
        for (const auto& line : m_capture.Store().Lines()) {
            // The rate limiter's notes show only when many cases share one
            // process (CTest runs each in its own).
            if (line.message.rfind("libusb version ", 0) != 0 &&
                line.message.rfind("WARNING -- ", 0) != 0) {
                lines.push_back(line.message);
            }
        }
        return lines;
    }

    ScopedLogCapture m_capture;
    std::unique_ptr<EmulatedUsbDevice> m_device;
};

} // namespace

TEST_F(UsbUtilitiesTest, NoMatchingDeviceIsZeroAndSendingIsRefused)
{
    m_device->Plug(0x1234, 0x5678);
    UsbUtilities usb(kKyrIds);
    EXPECT_EQ(usb.Connect(), 0);
    EXPECT_FALSE(usb.IsConnected());
    unsigned char byte = 1;
    EXPECT_EQ(usb.SendBinary(&byte, 1, 100), -1);
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "invalid device or handle!"));
    ASSERT_EQ(InformationAndSevere(), std::vector<std::string>{"invalid device or handle!"});
    EXPECT_EQ(m_capture->Count("libusb version 1.0.26.11724"), 1u);
}

TEST_F(UsbUtilitiesTest, ConnectsToTheKyrOnceAndASecondConnectIsTheSame)
{
    m_device->Plug(kVendor, 0x0300);
    UsbUtilities usb(kKyrIds);
    EXPECT_EQ(usb.Connect(), 1);
    EXPECT_TRUE(usb.IsConnected());
    EXPECT_EQ(usb.Connect(), 1);
    EXPECT_EQ(
        InformationAndSevere(),
        (std::vector<std::string>{"Connecting to vid=[0x7A31] pid=[0x0300]", "Device connected!"}));
    usb.Disconnect();
    EXPECT_FALSE(usb.IsConnected());
    EXPECT_EQ(m_capture->Count("Disconnecting from vid=[0x7A31] pid=[0x0300]"), 1u);
}

TEST_F(UsbUtilitiesTest, DisconnectOnAClosedObjectOnlyClears)
{
    UsbUtilities usb(kKyrIds);
    usb.Disconnect();
    usb.Disconnect();
    EXPECT_TRUE(m_capture->Messages().empty());
}

TEST_F(UsbUtilitiesTest, RequestGoesOutAndTheAnswerComesBack)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Connect(), 1);
    m_device->QueueAnswer({9, 8, 7, 6, 5});
    unsigned char request[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    unsigned char response[64] = {};
    EXPECT_EQ(usb.SendBinary(request, 12, response, 64, 2000, 5000), 5);
    EXPECT_EQ(std::vector<uint8_t>(response, response + 5), (std::vector<uint8_t>{9, 8, 7, 6, 5}));
    ASSERT_EQ(m_device->OutTransfers().size(), 1u);
    EXPECT_EQ(m_device->OutTransfers()[0], std::vector<uint8_t>(request, request + 12));
    EXPECT_TRUE(m_device->UnknownRequests().empty());
}

TEST_F(UsbUtilitiesTest, ShortOutReturnsItsCountAndNoInIsMade)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Connect(), 1);
    m_device->ShortenNextOut(5);
    m_device->QueueAnswer({1});
    unsigned char request[12] = {};
    unsigned char response[8] = {};
    EXPECT_EQ(usb.SendBinary(request, 12, response, 8, 2000, 5000), 5);
    // The answer is still waiting: no IN transfer was made.
    m_device->QueueAnswer({2});
    EXPECT_EQ(usb.SendBinary(request, 12, response, 8, 2000, 5000), 1);
    EXPECT_EQ(response[0], 1);
}

TEST_F(UsbUtilitiesTest, SilentDeviceTimesOutWithTheLibusbError)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Connect(), 1);
    unsigned char request[4] = {};
    unsigned char response[8] = {};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(usb.SendBinary(request, 4, response, 8, 2000, 300), LIBUSB_ERROR_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(280));
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "FAILED: libusb_bulk_transfer: [-7] (LIBUSB_ERROR_TIMEOUT)"));
}

TEST_F(UsbUtilitiesTest, AnswerLongerThanTheBufferIsAnOverflow)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Connect(), 1);
    m_device->QueueAnswer(std::vector<uint8_t>(16, 0xAB));
    unsigned char request[4] = {};
    unsigned char response[8] = {};
    EXPECT_EQ(usb.SendBinary(request, 4, response, 8, 2000, 2000), LIBUSB_ERROR_OVERFLOW);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "FAILED: libusb_bulk_transfer: [-8] (LIBUSB_ERROR_OVERFLOW)"));
}

TEST_F(UsbUtilitiesTest, UnregisterWithoutRegisterDoesNothing)
{
    UsbUtilities usb(kKyrIds);
    usb.Unregister();
    EXPECT_TRUE(m_capture->Messages().empty());
}

TEST_F(UsbUtilitiesTest, PlugAndUnplugOfTheKyrReachTheCallbackOthersDont)
{
    UsbUtilities usb(kKyrIds);
    std::mutex lock;
    std::vector<int> statuses;
    ASSERT_EQ(usb.Register([&](int status) {
        std::lock_guard<std::mutex> hold(lock);
        statuses.push_back(status);
    }),
              0);
    m_device->Plug(0x1234, 0x5678, 3);
    m_device->Plug(kVendor, 0x0301, 2);
    ASSERT_TRUE(WaitUntil(
        [&] {
            std::lock_guard<std::mutex> hold(lock);
            return !statuses.empty();
        },
        std::chrono::seconds(5)));
    m_device->Unplug(2);
    ASSERT_TRUE(WaitUntil(
        [&] {
            std::lock_guard<std::mutex> hold(lock);
            return statuses.size() >= 2;
        },
        std::chrono::seconds(5)));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    usb.Unregister();
    {
        std::lock_guard<std::mutex> hold(lock);
        EXPECT_EQ(statuses,
                  (std::vector<int>{UsbUtilities::kDeviceArrived, UsbUtilities::kDeviceLeft}));
    }
    EXPECT_EQ(InformationAndSevere(),
              (std::vector<std::string>{"Device plugged: vid=[0x7A31] pid=[0x0301]",
                                        "Device unplugged: vid=[0x7A31] pid=[0x0301]"}));
}

// The device goes away right after it has taken the OUT transfer, before
// libusb has reaped it: the OUT transfer still completes (the kernel gives
// finished URBs back after a disconnect) and the IN transfer finds no
// device, at once and not after a time-out.
TEST_F(UsbUtilitiesTest, DeviceGoneBeforeTheOutIsReapedFailsTheExchangeAtOnce)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Connect(), 1);
    m_device->SetOutHandler([](const std::vector<uint8_t>&) {
        EmulatedUsbDevice::OutReply reply;
        reply.pullAfter = true;
        return reply;
    });
    unsigned char request[12] = {1, 2, 3};
    unsigned char response[64] = {};
    std::chrono::milliseconds took{};
    EXPECT_EQ(ExchangeOnAThread(
                  [&] { return usb.SendBinary(request, 12, response, 64, 2000, 5000); }, &took),
              LIBUSB_ERROR_NO_DEVICE);
    EXPECT_LT(took, std::chrono::milliseconds(1500));
    EXPECT_EQ(m_device->OutTransfers().size(), 1u);
    EXPECT_EQ(
        InformationAndSevere(),
        (std::vector<std::string>{"Connecting to vid=[0x7A31] pid=[0x0301]", "Device connected!",
                                  "FAILED: libusb_bulk_transfer: [-4] (LIBUSB_ERROR_NO_DEVICE)"}));
    // Every later transfer fails the same way, also before the remove
    // event, and the handle closes without a hang.
    EXPECT_EQ(ExchangeOnAThread(
                  [&] { return usb.SendBinary(request, 12, response, 64, 2000, 5000); }, &took),
              LIBUSB_ERROR_NO_DEVICE);
    m_device->Unplug();
    usb.Disconnect();
    EXPECT_TRUE(m_device->UnknownRequests().empty());
}

// The device goes away while libusb waits for its answer: the IN transfer
// in flight ends with "no device" then, not at its time-out, and never
// waits for good.
TEST_F(UsbUtilitiesTest, DeviceGoneWhileTheInWaitsEndsItWithNoDevice)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Connect(), 1);
    unsigned char request[12] = {};
    unsigned char response[64] = {};
    std::thread unplugger([this] {
        WaitUntil([this] { return m_device->InTransfersWaiting() == 1; }, std::chrono::seconds(5));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        m_device->Unplug();
    });
    std::chrono::milliseconds took{};
    const int result = ExchangeOnAThread(
        [&] { return usb.SendBinary(request, 12, response, 64, 2000, 5000); }, &took);
    unplugger.join();
    EXPECT_EQ(result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_LT(took, std::chrono::milliseconds(4000));
    EXPECT_EQ(m_device->InTransfersWaiting(), 0u);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "FAILED: libusb_bulk_transfer: [-4] (LIBUSB_ERROR_NO_DEVICE)"));
    // A device plugged in again is another device: this handle stays dead.
    m_device->Plug(kVendor, 0x0301);
    EXPECT_EQ(ExchangeOnAThread(
                  [&] { return usb.SendBinary(request, 12, response, 64, 2000, 5000); }, &took),
              LIBUSB_ERROR_NO_DEVICE);
    EXPECT_TRUE(m_device->OutTransfers().size() == 1u);
}

// With the Kyr open and the hot-plug watch running but nothing to send,
// libusb's event loop sleeps: the device node says it has a URB to reap
// only when it has. (A node that always looked ready made the watch's
// thread spin at about half a processor.)
TEST_F(UsbUtilitiesTest, IdleWithTheKyrOpenTakesAlmostNoCpu)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    ASSERT_EQ(usb.Register([](int) {}), 0);
    ASSERT_EQ(usb.Connect(), 1);
    // One exchange first, so that reaping has happened and is over.
    m_device->QueueAnswer({1, 2, 3});
    unsigned char request[12] = {};
    unsigned char response[8] = {};
    ASSERT_EQ(usb.SendBinary(request, 12, response, 8, 2000, 2000), 3);
    const auto cpu = [] {
        timespec now{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
    };
    const double before = cpu();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double used = cpu() - before;
    // Generous: this takes about 1 ms, a loaded sanitizer build more; with
    // a device node that always polls ready it took about 800 ms.
    EXPECT_LT(used, 200.0) << "ms of CPU in 2 s of idling";
    usb.Unregister();
}

// A refused claim or alternate setting fails Connect with libusb's code,
// logged, and closes what was opened.
TEST_F(UsbUtilitiesTest, RefusedClaimOrAlternateSettingFailsConnect)
{
    m_device->Plug(kVendor, 0x0301);
    UsbUtilities usb(kKyrIds);
    m_device->FailRequest(USBDEVFS_CLAIMINTERFACE, EBUSY);
    EXPECT_EQ(usb.Connect(), LIBUSB_ERROR_BUSY);
    EXPECT_FALSE(usb.IsConnected());
    m_device->FailRequest(USBDEVFS_CLAIMINTERFACE, 0);
    m_device->FailRequest(USBDEVFS_SETINTERFACE, EINVAL);
    // libusb reads EINVAL here as an alternate setting it can't find.
    EXPECT_EQ(usb.Connect(), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_FALSE(usb.IsConnected());
    EXPECT_EQ(InformationAndSevere(),
              (std::vector<std::string>{
                  "Connecting to vid=[0x7A31] pid=[0x0301]",
                  "FAILED: libusb_claim_interface: [-6] (LIBUSB_ERROR_BUSY)",
                  "Disconnecting from vid=[0x7A31] pid=[0x0301]",
                  "Connecting to vid=[0x7A31] pid=[0x0301]",
                  "FAILED: libusb_set_interface_alt_setting: [-5] (LIBUSB_ERROR_NOT_FOUND)",
                  "Disconnecting from vid=[0x7A31] pid=[0x0301]"}));
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "FAILED: libusb_claim_interface: [-6] (LIBUSB_ERROR_BUSY)"));
    // Refused no more: the next Connect goes through.
    m_device->FailRequest(USBDEVFS_SETINTERFACE, 0);
    EXPECT_EQ(usb.Connect(), 1);
}

// A device node that can't be opened fails Connect with libusb's code,
// logged, without a look at the interface; once it opens, Connect goes
// through.
TEST_F(UsbUtilitiesTest, DeviceNodeThatCantBeOpenedFailsConnect)
{
    m_device->Plug(kVendor, 0x0301);
    const std::string node = m_device->Directory() + "/dev/bus/usb/001/002";
    ASSERT_EQ(::rename(node.c_str(), (node + ".away").c_str()), 0);
    // A folder where the node was: opening it for reading and writing fails.
    ASSERT_EQ(::mkdir(node.c_str(), 0700), 0);
    UsbUtilities usb(kKyrIds);
    EXPECT_EQ(usb.Connect(), LIBUSB_ERROR_IO);
    EXPECT_FALSE(usb.IsConnected());
    EXPECT_EQ(InformationAndSevere(),
              (std::vector<std::string>{"Connecting to vid=[0x7A31] pid=[0x0301]",
                                        "FAILED: libusb_open: [-1] (LIBUSB_ERROR_IO)"}));
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueSevere, "FAILED: libusb_open: [-1] (LIBUSB_ERROR_IO)"));

    ASSERT_EQ(::rmdir(node.c_str()), 0);
    ASSERT_EQ(::rename((node + ".away").c_str(), node.c_str()), 0);
    EXPECT_EQ(usb.Connect(), 1);
}

// The emulated device answers only the ioctls it knows: any other fails
// with ENOTTY and is noted, so that a libusb that starts issuing a new one
// fails these tests instead of being answered at random.
TEST_F(UsbUtilitiesTest, UnknownIoctlFailsLoudly)
{
    m_device->Plug(kVendor, 0x0301);
    const int node = open("/dev/bus/usb/001/002", O_RDWR | O_CLOEXEC);
    ASSERT_GE(node, 0);
    unsigned int speed = 0;
    EXPECT_EQ(ioctl(node, USBDEVFS_GET_SPEED, &speed), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(node);
    char expected[16];
    std::snprintf(expected, sizeof(expected), "0x%08lx",
                  static_cast<unsigned long>(USBDEVFS_GET_SPEED));
    EXPECT_EQ(m_device->UnknownRequests(), std::vector<std::string>{expected});
    m_device.reset();
}
