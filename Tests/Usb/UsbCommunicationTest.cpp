// UsbCommunication against a Kyr emulated with umockdev: the exchange with
// its six attempts, the failure table, and a Kyr that isn't there.

#include "Clients/ConferenceTransport/Src/UsbCommunication.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tools/Common/EmulatedUsbDevice.h"

#include <QDataStream>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
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
        QObject::connect(m_transport.get(), &IConferenceTransport::SignalConnectionFailed,
                         [this] { ++m_failures; });
        QObject::connect(m_transport.get(), &IConferenceTransport::ShowErrorMessage,
                         [this](QString text) { m_messages.push_back(text.toStdString()); });
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
