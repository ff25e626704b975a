// The relay protocol's wire format: requests as the transports serialise
// them, and the framing of responses by the transport base.

#include "Clients/Conference/RelayConfig.h"
#include "Clients/Conference/RelayWindow.h"
#include "Clients/ConferenceTransport/Src/IConferenceTransport.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"

#include <QByteArray>
#include <QDataStream>
#include <QSharedPointer>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueSevere;
using quorvan::velorane::IConferenceTransport;
using quorvan::velorane::RelayCommandAudioStart;
using quorvan::velorane::RelayCommandRequestAudio;
using quorvan::velorane::RelayCommandRequestFrame;
using quorvan::velorane::RelayCommandStartVideo;
using quorvan::velorane::RelayCommandStopVideo;
using quorvan::velorane::RelayServiceAudio;
using quorvan::velorane::RelayServiceVideo;
using quorvan::velorane::relay::RelayConfig;
using quorvan::velorane::relay::RelayWindow;

QByteArray Bytes(std::initializer_list<uint8_t> bytes)
{
    QByteArray out;
    for (uint8_t b : bytes) {
        out.append(static_cast<char>(b));
    }
    return out;
}

// A transport that records what it is asked to send and opens the base's
// serialisation and framing to the tests.
class RecordingTransport : public IConferenceTransport
{
public:
    using IConferenceTransport::HandleResponse;
    using IConferenceTransport::SerializeCommand;

    bool Initialize() override { return true; }
    bool Terminate() override { return true; }
    bool SendWithPayload(const RelayCommandData& commandData) override
    {
        sent.push_back(commandData);
        return sendResult;
    }
    void slotThreadStarted() override {}
    void slotThreadFinished() override {}

    std::vector<RelayCommandData> sent;
    bool sendResult = true;
};

struct Dispatched
{
    RelayService service;
    RelayCommand command;
    QByteArray payload;
};

class UnitRelayProtocolTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { UnitQtApplication(); }

    UnitRelayProtocolTest()
    {
        QObject::connect(&m_transport, &IConferenceTransport::DataCallback, &m_transport,
                         [this](RelayService service, RelayCommand command, QByteArray payload) {
                             m_dispatched.push_back(Dispatched{service, command, payload});
                         });
    }

    uint32_t Handle(const QByteArray& bytes)
    {
        return m_transport.HandleResponse(static_cast<uint32_t>(bytes.size()),
                                          QSharedPointer<const QByteArray>::create(bytes));
    }

    ScopedLogCapture m_capture;
    RecordingTransport m_transport;
    std::vector<Dispatched> m_dispatched;
};

// Requests

TEST_F(UnitRelayProtocolTest, RequestFrameSerialisesToTwelveLittleEndianBytes)
{
    const QByteArray bytes =
        m_transport.SerializeCommand(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame));

    EXPECT_EQ(bytes, Bytes({
                         0x99, 0x45, 0xFE, 0xBB, // service: video, little-endian
                         0xF9, 0xD0, 0x00, 0x00, // command: request frame 0xD0F9
                         0x00, 0x00, 0x00, 0x00, // payload count: 0
                     }));
}

TEST_F(UnitRelayProtocolTest, StartVideoFromTheWindowSerialisesWithThePictureSize)
{
    RelayConfig config; // 1280 x 720
    RelayWindow window(config);
    std::vector<RelayCommandData> emitted;
    QObject::connect(&window, &RelayWindow::SignalSendRelayCommand, &window,
                     [&emitted](RelayCommandData data) { emitted.push_back(data); });

    window.BeginRequestingFramesFromKyr();

    ASSERT_EQ(emitted.size(), 1u);
    EXPECT_EQ(emitted[0].service, RelayServiceVideo);
    EXPECT_EQ(emitted[0].command, RelayCommandStartVideo);
    EXPECT_EQ(m_transport.SerializeCommand(emitted[0]),
              Bytes({
                  0x99, 0x45, 0xFE, 0xBB, // service: video, little-endian
                  0x01, 0xCD, 0x00, 0x00, // command: start video 0xCD01
                  0x08, 0x00, 0x00, 0x00, // payload count: 8
                  0x00, 0x05, 0x00, 0x00, // width: 1280
                  0xD0, 0x02, 0x00, 0x00, // height: 720
              }));
}

TEST_F(UnitRelayProtocolTest, NullPayloadRequestKeepsItsCountWord)
{
    const QByteArray bytes =
        m_transport.SerializeCommand(RelayCommandData(RelayServiceAudio, RelayCommandRequestAudio));

    ASSERT_EQ(bytes.size(), 12);
    EXPECT_EQ(bytes, Bytes({
                         0x14, 0x03, 0xBA, 0xEA, // service: audio 0xEABA0314
                         0xEB, 0x62, 0x00, 0x00, // command: request audio 0x62EB
                         0x00, 0x00, 0x00, 0x00, // payload count: 0, present all the same
                     }));
}

TEST_F(UnitRelayProtocolTest, DefaultCommandDataIsAudioStartWithNullPayload)
{
    const RelayCommandData data;

    EXPECT_EQ(data.service, RelayServiceAudio);
    EXPECT_EQ(data.command, RelayCommandAudioStart);
    using Writer = void (*)(QDataStream&);
    const Writer* writer = data.payloadFunctor.target<Writer>();
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(*writer, &RelayCommandData::NullPayloadFunctor);
    EXPECT_EQ(m_transport.SerializeCommand(data),
              Bytes({
                  0x14, 0x03, 0xBA, 0xEA, // service: audio 0xEABA0314
                  0x0A, 0x00, 0x01, 0x00, // command: audio start 0x1000A
                  0x00, 0x00, 0x00, 0x00, // payload count: 0
              }));
}

TEST_F(UnitRelayProtocolTest, NullPayloadFunctorWritesOneZeroWord)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);

    RelayCommandData::NullPayloadFunctor(stream);

    EXPECT_EQ(bytes, Bytes({0x00, 0x00, 0x00, 0x00})); // payload count: 0
}

TEST_F(UnitRelayProtocolTest, EmptyPayloadFunctorThrowsBadFunctionCall)
{
    const RelayCommandData data(RelayServiceVideo, RelayCommandRequestFrame, nullptr);

    EXPECT_THROW(m_transport.SerializeCommand(data), std::bad_function_call);
}

TEST_F(UnitRelayProtocolTest, SendGoesThroughSendWithPayloadWithANullPayload)
{
    m_transport.sendResult = true;
    EXPECT_TRUE(m_transport.Send(RelayServiceVideo, RelayCommandStopVideo));
    m_transport.sendResult = false;
    EXPECT_FALSE(m_transport.Send(RelayServiceAudio, RelayCommandRequestAudio));

    ASSERT_EQ(m_transport.sent.size(), 2u);
    EXPECT_EQ(m_transport.sent[0].service, RelayServiceVideo);
    EXPECT_EQ(m_transport.sent[0].command, RelayCommandStopVideo);
    EXPECT_EQ(m_transport.SerializeCommand(m_transport.sent[0]),
              Bytes({
                  0x99, 0x45, 0xFE, 0xBB, // service: video
                  0x34, 0xEF, 0x00, 0x00, // command: stop video 0xEF34
                  0x00, 0x00, 0x00, 0x00, // payload count: 0
              }));
    EXPECT_EQ(m_transport.sent[1].service, RelayServiceAudio);
    EXPECT_EQ(m_transport.sent[1].command, RelayCommandRequestAudio);
    using Writer = void (*)(QDataStream&);
    for (const auto& data : m_transport.sent) {
        const Writer* writer = data.payloadFunctor.target<Writer>();
        ASSERT_NE(writer, nullptr);
        EXPECT_EQ(*writer, &RelayCommandData::NullPayloadFunctor);
    }
}

// Responses

TEST_F(UnitRelayProtocolTest, HeaderOnlyResponseDispatchesAnEmptyPayload)
{
    const QByteArray response = Bytes({
        0xBB, 0xFE, 0x45, 0x99, // service: video, big-endian
        0x00, 0x00, 0xD0, 0xF9, // command: request frame
        0x00, 0x00, 0x00, 0x0C, // size: 12, header included
    });

    EXPECT_EQ(Handle(response), 12u);

    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].service, RelayServiceVideo);
    EXPECT_EQ(m_dispatched[0].command, RelayCommandRequestFrame);
    EXPECT_TRUE(m_dispatched[0].payload.isEmpty());
}

TEST_F(UnitRelayProtocolTest, ElevenBytesAreTooSmallAndLogged)
{
    const QByteArray response = Bytes({
        0xBB, 0xFE, 0x45, 0x99, // service: video
        0x00, 0x00, 0xD0, 0xF9, // command: request frame
        0x00, 0x00, 0x00,       // size: one byte short
    });

    EXPECT_EQ(Handle(response), 0u);

    EXPECT_TRUE(m_dispatched.empty());
    EXPECT_TRUE(m_capture->Contains(EGroupValueSevere,
                                    "Response received was too small! bytesReceived=[11]"));
}

TEST_F(UnitRelayProtocolTest, ThirteenByteResponseCarriesOnePayloadByte)
{
    const QByteArray response = Bytes({
        0xEA, 0xBA, 0x03, 0x14, // service: audio, big-endian
        0x00, 0x00, 0x62, 0xEB, // command: request audio
        0x00, 0x00, 0x00, 0x0D, // size: 13
        0x5A,                   // payload
    });

    EXPECT_EQ(Handle(response), 13u);

    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].service, RelayServiceAudio);
    EXPECT_EQ(m_dispatched[0].command, RelayCommandRequestAudio);
    EXPECT_EQ(m_dispatched[0].payload, Bytes({0x5A}));
}

TEST_F(UnitRelayProtocolTest, OnlyTheFirstMessageOfABufferIsParsed)
{
    const QByteArray response = Bytes({
        // First message
        0xBB, 0xFE, 0x45, 0x99, // service: video
        0x00, 0x00, 0xD0, 0xF9, // command: request frame
        0x00, 0x00, 0x00, 0x14, // size: 20
        0x01, 0x02, 0x03, 0x04, // payload
        0x05, 0x06, 0x07, 0x08, // payload
        // Second message, left alone
        0xEA, 0xBA, 0x03, 0x14, // service: audio
        0x00, 0x00, 0x62, 0xEB, // command: request audio
        0x00, 0x00, 0x00, 0x14, // size: 20
        0x11, 0x12, 0x13, 0x14, // payload
        0x15, 0x16, 0x17, 0x18, // payload
    });
    ASSERT_EQ(response.size(), 40);

    EXPECT_EQ(Handle(response), 20u);

    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].service, RelayServiceVideo);
    EXPECT_EQ(m_dispatched[0].command, RelayCommandRequestFrame);
    EXPECT_EQ(m_dispatched[0].payload, Bytes({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
}

TEST_F(UnitRelayProtocolTest, SizeBeyondTheBytesReceivedWaits)
{
    const QByteArray response = Bytes({
        0xBB, 0xFE, 0x45, 0x99, // service: video
        0x00, 0x00, 0xD0, 0xF9, // command: request frame
        0x7F, 0xFF, 0xFF, 0xFF, // size: 0x7FFFFFFF
        0x01, 0x02, 0x03, 0x04, // payload so far
        0x05, 0x06, 0x07, 0x08, // payload so far
    });

    EXPECT_EQ(Handle(response), 0u);

    EXPECT_TRUE(m_dispatched.empty());
    EXPECT_TRUE(m_capture->Messages().empty());
}

TEST_F(UnitRelayProtocolTest, SizeAboveSignedRangeCountsAsIncomplete)
{
    const QByteArray response = Bytes({
        0xBB, 0xFE, 0x45, 0x99, // service: video
        0x00, 0x00, 0xD0, 0xF9, // command: request frame
        0xFF, 0xFF, 0xFF, 0xF0, // size: 0xFFFFFFF0, negative if taken as signed
        0x01, 0x02, 0x03, 0x04, // payload so far
        0x05, 0x06, 0x07, 0x08, // payload so far
    });

    EXPECT_EQ(Handle(response), 0u);

    EXPECT_TRUE(m_dispatched.empty());
}

TEST_F(UnitRelayProtocolTest, SizeBelowTheHeaderIsDispatchedAndReturned)
{
    const QByteArray response = Bytes({
        0xBB, 0xFE, 0x45, 0x99, // service: video
        0x00, 0x00, 0xCD, 0x01, // command: start video
        0x00, 0x00, 0x00, 0x04, // size: 4, less than the header
    });

    EXPECT_EQ(Handle(response), 4u);

    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(m_dispatched[0].service, RelayServiceVideo);
    EXPECT_EQ(m_dispatched[0].command, RelayCommandStartVideo);
    EXPECT_TRUE(m_dispatched[0].payload.isEmpty());
    EXPECT_TRUE(m_capture->Messages().empty());
}

TEST_F(UnitRelayProtocolTest, HeaderFieldsAreReadBigEndian)
{
    const QByteArray response = Bytes({
        0x12, 0x34, 0x56, 0x78, // service: 0x12345678
        0x9A, 0xBC, 0xDE, 0xF0, // command: 0x9ABCDEF0
        0x00, 0x00, 0x00, 0x10, // size: 16
        0xDE, 0xAD, 0xBE, 0xEF, // payload
    });

    EXPECT_EQ(Handle(response), 16u);

    ASSERT_EQ(m_dispatched.size(), 1u);
    EXPECT_EQ(static_cast<uint32_t>(m_dispatched[0].service), 0x12345678u);
    EXPECT_EQ(static_cast<uint32_t>(m_dispatched[0].command), 0x9ABCDEF0u);
    EXPECT_EQ(m_dispatched[0].payload, Bytes({0xDE, 0xAD, 0xBE, 0xEF}));
}

} // namespace
} // namespace velorane::test
