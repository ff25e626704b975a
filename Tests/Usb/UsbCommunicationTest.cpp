// UsbCommunication against a Kyr emulated with umockdev: the exchange with
// its six attempts, the failure table, and a Kyr that isn't there.

#include "Clients/ConferenceTransport/Src/UsbCommunication.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tools/Common/EmulatedUsbDevice.h"

#include <QDataStream>

#include <gtest/gtest.h>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace velorane::test;
using simcommon::EmulatedUsbDevice;
using namespace quorvan::velorane;
using quorvan::EGroupValueInformation;
using quorvan::EGroupValueSevere;
using quorvan::EGroupValueWarning;

namespace {

// A response as the Kyr sends it: big-endian service, command, whole size.
std::vector<uint8_t> Response(uint32_t service, uint32_t command,
                              const std::vector<uint8_t>& payload)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::BigEndian);
    stream << service << command << static_cast<quint32>(12 + payload.size());
    std::vector<uint8_t> response(bytes.begin(), bytes.end());
    response.insert(response.end(), payload.begin(), payload.end());
    return response;
}

// RequestFrame as the relay writes it: little-endian, no payload.
const std::vector<uint8_t> kRequestFrame = {0x99, 0x45, 0xfe, 0xbb, 0xf9, 0xd0, 0, 0, 0, 0, 0, 0};

class UsbCommunicationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!EmulatedUsbDevice::InMockEnvironment()) {
            GTEST_SKIP() << "not under umockdev's preload library";
        }
        m_device = std::make_unique<EmulatedUsbDevice>();
    }

    void MakeTransport()
    {
        m_transport = std::make_unique<UsbCommunication>();
        QObject::connect(m_transport.get(), &IConferenceTransport::DataCallback,
                         [this](RelayService service, RelayCommand command, QByteArray data) {
                             m_dispatched.push_back({service, command, data});
                         });
        QObject::connect(m_transport.get(), &IConferenceTransport::SignalConnectComplete,
                         [this] { ++m_connects; });
        QObject::connect(m_transport.get(), &IConferenceTransport::SignalDisconnectComplete,
                         [this] { ++m_disconnects; });
        QObject::connect(m_transport.get(), &IConferenceTransport::SignalConnectionFailed, [this] {
            ++m_failures;
            m_events.push_back("SignalConnectionFailed");
        });
        QObject::connect(m_transport.get(), &IConferenceTransport::ShowErrorMessage,
                         [this](QString text) {
                             m_messages.push_back(text.toStdString());
                             m_events.push_back("ShowErrorMessage " + text.toStdString());
                         });
    }

    void TearDown() override
    {
        // A libusb that issues an ioctl the emulated device doesn't know
        // fails here, whatever the test.
        if (m_device) {
            EXPECT_EQ(m_device->UnknownRequests(), std::vector<std::string>());
        }
    }

    // Answers each OUT transfer with what answer(n) gives for the n-th,
    // from 0.
    void AnswerOuts(std::function<EmulatedUsbDevice::OutReply(int)> answer)
    {
        auto count = std::make_shared<int>(0);
        m_device->SetOutHandler(
            [answer, count](const std::vector<uint8_t>&) { return answer((*count)++); });
    }

    bool RequestFrame()
    {
        return m_transport->SendWithPayload(
            RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame));
    }

    struct Dispatched
    {
        RelayService service;
        RelayCommand command;
        QByteArray data;
    };

    ScopedLogCapture m_capture;
    std::unique_ptr<EmulatedUsbDevice> m_device;
    std::unique_ptr<UsbCommunication> m_transport;
    std::vector<Dispatched> m_dispatched;
    std::vector<std::string> m_messages;
    std::vector<std::string> m_events;
    int m_connects = 0;
    int m_disconnects = 0;
    int m_failures = 0;
};

} // namespace

TEST_F(UsbCommunicationTest, AnswerOnTheThirdAttemptIsDispatchedOnce)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());
    // Two empty IN transfers, then the answer.
    m_device->QueueAnswer({});
    m_device->QueueAnswer({});
    m_device->QueueAnswer(Response(0xBBFE4599u, 0xD0F9u, {1, 2, 3}));
    EXPECT_TRUE(RequestFrame());
    EXPECT_EQ(m_device->OutTransfers(),
              (std::vector<std::vector<uint8_t>>{kRequestFrame, kRequestFrame, kRequestFrame}));
    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].command, RelayCommandRequestFrame);
    EXPECT_EQ(m_dispatched[0].data, QByteArray("\x01\x02\x03", 3));
    EXPECT_EQ(m_failures, 0);
}

TEST_F(UsbCommunicationTest, SixEmptyAnswersFailTheCommandButNotTheLink)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());
    for (int i = 0; i < 6; ++i) {
        m_device->QueueAnswer({});
    }
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_device->OutTransfers().size(), 6u);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "Send failed. command=[0x0000D0F9] bytesReceived=[0]"));
    EXPECT_EQ(m_messages, std::vector<std::string>{"Failed to send USB request."});
    EXPECT_EQ(m_failures, 0);
    EXPECT_TRUE(m_dispatched.empty());
}

TEST_F(UsbCommunicationTest, ShortOutEndsTheAttemptsAndIsTooSmallAResponse)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());
    m_device->ShortenNextOut(5);
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_device->OutTransfers().size(), 1u);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "Response received was too small! bytesReceived=[5]"));
    EXPECT_TRUE(m_dispatched.empty());
}

TEST_F(UsbCommunicationTest, LargestResponseFitsAndOneMoreByteOverflows)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());
    std::vector<uint8_t> payload(UsbCommunication::kResponseCapacity - 12);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i * 13);
    }
    m_device->QueueAnswer(Response(0xBBFE4599u, 0xD0F9u, payload));
    EXPECT_TRUE(RequestFrame());
    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].data.size(), static_cast<int>(payload.size()));
    EXPECT_EQ(static_cast<uint8_t>(m_dispatched[0].data.back()), payload.back());

    payload.push_back(0);
    for (int i = 0; i < 6; ++i) {
        m_device->QueueAnswer(Response(0xBBFE4599u, 0xD0F9u, payload));
    }
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_capture->Count("FAILED: libusb_bulk_transfer: [-8] (LIBUSB_ERROR_OVERFLOW)"), 6u);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "Send failed. command=[0x0000D0F9] bytesReceived=[-8]"));
    EXPECT_EQ(m_dispatched.size(), 1u);
}

TEST_F(UsbCommunicationTest, InitializeTwiceConnectsOnce)
{
    m_device->Plug(0x7A31, 0x0300);
    MakeTransport();
    EXPECT_TRUE(m_transport->Initialize());
    EXPECT_TRUE(m_transport->Initialize());
    EXPECT_EQ(m_connects, 1);
    EXPECT_EQ(m_capture->Count("Device connected!"), 1u);
    EXPECT_TRUE(m_transport->Terminate());
    EXPECT_EQ(m_disconnects, 1);
    EXPECT_EQ(m_capture->Count("Disconnecting from vid=[0x7A31] pid=[0x0300]"), 1u);
}

TEST_F(UsbCommunicationTest, KyrAbsentAtStartCountsAsConnectedAndCommandsFail)
{
    MakeTransport();
    EXPECT_TRUE(m_transport->Initialize());
    EXPECT_EQ(m_connects, 1);
    EXPECT_EQ(m_failures, 0);
    // No device is no error: no text for the user and nothing but the
    // version line in the log.
    EXPECT_TRUE(m_messages.empty());
    const auto lines = m_capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].group, EGroupValueInformation);
    EXPECT_EQ(lines[0].message.rfind("libusb version ", 0), 0u) << lines[0].message;
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_capture->Count("invalid device or handle!"), 6u);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "Send failed. command=[0x0000D0F9] bytesReceived=[-1]"));
    // Taken down without a device: only the fields are cleared.
    EXPECT_TRUE(m_transport->Terminate());
    EXPECT_EQ(m_disconnects, 1);
    EXPECT_EQ(m_capture->Count("Disconnecting from vid=[0x7A31] pid=[0x0301]"), 0u);
}

TEST_F(UsbCommunicationTest, SendBeforeInitializeOrAfterTerminateIsRefused)
{
    MakeTransport();
    const std::string text = "Failed to send USB request because device remains uninitialized.";
    EXPECT_FALSE(RequestFrame());
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere, text));
    EXPECT_EQ(m_messages, std::vector<std::string>{text});
    ASSERT_TRUE(m_transport->Initialize());
    ASSERT_TRUE(m_transport->Terminate());
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_capture->Count(text), 2u);
}

TEST_F(UsbCommunicationTest, HotPlugIsReportedFromConstructionOn)
{
    MakeTransport();
    std::atomic<int> plugged{-1};
    QObject::connect(m_transport.get(), &UsbCommunication::EventCallback,
                     [&plugged](int status) { plugged = status; });
    m_device->Plug(0x7A31, 0x0301);
    for (int i = 0; i < 500 && plugged.load() < 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(plugged.load(), 0);
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueInformation, "Device plugged: vid=[0x7A31] pid=[0x0301]"));
}

// An attempt whose IN transfer times out counts as failed: the OUT transfer
// goes again, and the answer to that one is taken.
TEST_F(UsbCommunicationTest, TimedOutAttemptIsRepeatedAndTheNextAnswerTaken)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());
    AnswerOuts([](int n) {
        EmulatedUsbDevice::OutReply reply;
        if (n > 0) {
            reply.answers.push_back(Response(0xBBFE4599u, 0xD0F9u, {7}));
        }
        return reply;
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(RequestFrame());
    // The first IN transfer waited out its 5000 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
    EXPECT_EQ(m_device->OutTransfers(),
              (std::vector<std::vector<uint8_t>>{kRequestFrame, kRequestFrame}));
    EXPECT_EQ(m_capture->Count("FAILED: libusb_bulk_transfer: [-7] (LIBUSB_ERROR_TIMEOUT)"), 1u);
    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].data, QByteArray("\x07", 1));
    EXPECT_TRUE(m_messages.empty());
}

// An answer that comes while the IN transfer waits, inside its time-out, is
// the answer of the first attempt.
TEST_F(UsbCommunicationTest, LateAnswerWithinTheTimeOutIsTakenAtTheFirstAttempt)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());
    std::thread late([this] {
        for (int i = 0; i < 500 && m_device->InTransfersWaiting() == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        m_device->QueueAnswer(Response(0xBBFE4599u, 0xD0F9u, {1, 2}));
    });
    EXPECT_TRUE(RequestFrame());
    late.join();
    EXPECT_EQ(m_device->OutTransfers().size(), 1u);
    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].data, QByteArray("\x01\x02", 2));
    EXPECT_EQ(m_capture->Count("FAILED: libusb_bulk_transfer: [-7] (LIBUSB_ERROR_TIMEOUT)"), 0u);
}

// Whatever one IN transfer holds, it is one response: too short for a
// header, a size that promises more than came, bytes behind the message,
// a size below the header.
TEST_F(UsbCommunicationTest, WhateverTheInTransferHoldsIsOneResponse)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    ASSERT_TRUE(m_transport->Initialize());

    m_device->QueueAnswer(std::vector<uint8_t>(7, 0xA5));
    EXPECT_FALSE(RequestFrame());
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "Response received was too small! bytesReceived=[7]"));

    std::vector<uint8_t> lying = Response(0xBBFE4599u, 0xD0F9u, std::vector<uint8_t>(8, 1));
    lying[8] = 0x7F;
    lying[9] = lying[10] = lying[11] = 0xFF;
    m_device->QueueAnswer(lying);
    EXPECT_FALSE(RequestFrame());

    std::vector<uint8_t> trailing = Response(0xBBFE4599u, 0xD0F9u, {1, 2, 3, 4, 5, 6, 7, 8});
    trailing.insert(trailing.end(), 20, 0xEE);
    m_device->QueueAnswer(trailing);
    EXPECT_TRUE(RequestFrame());

    std::vector<uint8_t> small = Response(0xBBFE4599u, 0xD0F9u, {});
    small[11] = 4;
    m_device->QueueAnswer(small);
    EXPECT_TRUE(RequestFrame());

    // Each was the answer of its first attempt.
    EXPECT_EQ(m_device->OutTransfers().size(), 4u);
    ASSERT_EQ(m_dispatched.size(), 2u);
    EXPECT_EQ(m_dispatched[0].data, QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08", 8));
    EXPECT_TRUE(m_dispatched[1].data.isEmpty());
    EXPECT_EQ(m_capture->Count("Send failed. command=[0x0000D0F9] bytesReceived=[0]"), 0u);
    EXPECT_TRUE(m_messages.empty());
    EXPECT_EQ(m_failures, 0);
}

// A libusb failure while connecting ends the link: the error message, then
// the failure signal, and nothing is sent.
TEST_F(UsbCommunicationTest, LibusbErrorAtConnectFailsTheLink)
{
    m_device->Plug(0x7A31, 0x0301);
    m_device->FailRequest(USBDEVFS_CLAIMINTERFACE, EBUSY);
    MakeTransport();
    EXPECT_FALSE(m_transport->Initialize());
    EXPECT_EQ(m_events,
              (std::vector<std::string>{"ShowErrorMessage Failed to connect to Kyr over USB",
                                        "SignalConnectionFailed"}));
    EXPECT_EQ(m_connects, 0);
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "FAILED: libusb_claim_interface: [-6] (LIBUSB_ERROR_BUSY)"));
    EXPECT_EQ(m_capture->Count("Disconnecting from vid=[0x7A31] pid=[0x0301]"), 1u);
    EXPECT_FALSE(RequestFrame());
    EXPECT_TRUE(m_capture->Contains(
        EGroupValueSevere, "Failed to send USB request because device remains uninitialized."));
    EXPECT_TRUE(m_device->OutTransfers().empty());
}

// The Kyr pulled in the middle of an exchange: that command and the next
// fail with "no device", the link stays up, and a Kyr plugged in again
// changes nothing for it; only the hot-plug signal tells.
TEST_F(UsbCommunicationTest, KyrPulledMidExchangeFailsCommandsNotTheLink)
{
    m_device->Plug(0x7A31, 0x0301);
    MakeTransport();
    std::mutex lock;
    std::vector<int> statuses;
    QObject::connect(m_transport.get(), &UsbCommunication::EventCallback, [&](int status) {
        std::lock_guard<std::mutex> hold(lock);
        statuses.push_back(status);
    });
    ASSERT_TRUE(m_transport->Initialize());
    AnswerOuts([](int) {
        EmulatedUsbDevice::OutReply reply;
        reply.pullAfter = true;
        return reply;
    });
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_device->OutTransfers().size(), 1u);
    EXPECT_EQ(m_capture->Count("FAILED: libusb_bulk_transfer: [-4] (LIBUSB_ERROR_NO_DEVICE)"), 6u);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "Send failed. command=[0x0000D0F9] bytesReceived=[-4]"));
    m_device->Unplug();
    m_device->Plug(0x7A31, 0x0301);
    m_device->QueueAnswer(Response(0xBBFE4599u, 0xD0F9u, {}));
    EXPECT_FALSE(RequestFrame());
    EXPECT_EQ(m_device->OutTransfers().size(), 1u);
    EXPECT_EQ(m_messages, (std::vector<std::string>{"Failed to send USB request.",
                                                    "Failed to send USB request."}));
    EXPECT_EQ(m_failures, 0);
    EXPECT_TRUE(m_dispatched.empty());
    for (int i = 0; i < 500; ++i) {
        {
            std::lock_guard<std::mutex> hold(lock);
            if (statuses.size() >= 2) {
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    {
        std::lock_guard<std::mutex> hold(lock);
        EXPECT_EQ(statuses, (std::vector<int>{1, 0}));
    }
    EXPECT_TRUE(m_transport->Terminate());
    EXPECT_EQ(m_disconnects, 1);
    EXPECT_EQ(m_capture->Count("Disconnecting from vid=[0x7A31] pid=[0x0301]"), 1u);
}
