// What each command from the client application does to the relay.

#include "Tests/Relay/IpcClientFixture.h"

#include <QDataStream>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueWarning;

class IpcClientCommandsTest : public IpcClientFixture
{
protected:
    void SetUp() override
    {
        StartConnectedClient();
        m_capture->Clear();
    }
};

// A DesktopPixels message as the client writes it.
QByteArray PixelsMessage(const QByteArray& payload)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << static_cast<int32_t>(payload.size() + 12) << static_cast<int32_t>(0xFE52) << payload;
    return bytes;
}

TEST_F(IpcClientCommandsTest, KillApplicationIsLoggedAndAsksToQuit)
{
    SendToRelay(Hex("00000008" // size: the whole message
                    "0000FE47" // KillApplication
                    ));
    EXPECT_EQ(m_quits, 1);
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "Received KillApplication"));
    EXPECT_EQ(m_capture->Messages().size(), 1u);

    // Consumed: the next message is handled as itself.
    SendToRelay(Header(8, 0xFE48));
    EXPECT_EQ(m_quits, 1);
    EXPECT_EQ(m_connectUsbs, 1);
}

TEST_F(IpcClientCommandsTest, SecondKillApplicationIsHandledLikeTheFirst)
{
    SendToRelay(Hex("00000008 0000FE49"));
    EXPECT_EQ(m_quits, 1);
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "Received KillApplication"));
    EXPECT_EQ(m_capture->Messages().size(), 1u);
}

TEST_F(IpcClientCommandsTest, ConnectUsbIsLoggedAndEmitted)
{
    SendToRelay(Hex("00000008 0000FE48"));
    EXPECT_EQ(m_connectUsbs, 1);
    EXPECT_EQ(m_quits, 0);
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "Received ConnectUsb"));
    EXPECT_EQ(m_capture->Messages().size(), 1u);
}

TEST_F(IpcClientCommandsTest, StartScrapeIsEmittedWithoutLogging)
{
    SendToRelay(Hex("00000008 0000FE51"));
    EXPECT_EQ(m_startScrapes, 1);
    EXPECT_EQ(m_capture->Messages(), std::vector<std::string>());
}

TEST_F(IpcClientCommandsTest, DesktopPixelsPayloadIsDeliveredIntact)
{
    QByteArray payload;
    for (int i = 0; i < 1000; ++i) {
        payload.append(static_cast<char>(i * 7));
    }
    const QByteArray message = PixelsMessage(payload);
    ASSERT_EQ(message.left(12), Hex("000003F4"    // size: 12 + 1000
                                    "0000FE52"    // DesktopPixels
                                    "000003E8")); // byte count of the data
    SendToRelay(message);
    ASSERT_EQ(m_pixels.size(), 1u);
    EXPECT_EQ(*m_pixels[0], payload);
    EXPECT_EQ(m_capture->Messages(), std::vector<std::string>());
}

TEST_F(IpcClientCommandsTest, LargeDesktopPixelsArrivingInPiecesIsDeliveredOnce)
{
    QByteArray payload(3 * 1024 * 1024 + 17, '\0');
    for (int i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>((i * 31) ^ (i >> 9));
    }
    ASSERT_EQ(m_peer->write(PixelsMessage(payload)), payload.size() + 12);
    ASSERT_TRUE(WaitUntil([&] { return !m_pixels.empty(); }, std::chrono::seconds(20)));
    EXPECT_GT(m_readyReads->load(), 1) << "the message was meant to come in pieces";
    ASSERT_EQ(m_pixels.size(), 1u);
    EXPECT_EQ(*m_pixels[0], payload);
    EXPECT_EQ(m_capture->Messages(), std::vector<std::string>());

    // Nothing of it was left behind.
    SendToRelay(Header(8, 0xFE48));
    EXPECT_EQ(m_connectUsbs, 1);
    EXPECT_EQ(m_pixels.size(), 1u);
}

TEST_F(IpcClientCommandsTest, ErrorCommandSentToRelayIsUnknown)
{
    SendToRelay(Hex("00000008 0000FE50"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 65104"));
    EXPECT_EQ(m_quits + m_connectUsbs + m_startScrapes, 0);
    EXPECT_TRUE(m_pixels.empty());
}

TEST_F(IpcClientCommandsTest, CommandsBetweenAndAroundTheNamedOnesAreUnknown)
{
    SendToRelay(Header(8, 0xFE4A));
    SendToRelay(Header(8, 0xFE4F));
    SendToRelay(Header(8, 0xFE46));
    SendToRelay(Header(8, 0xFE53));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 65098"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 65103"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 65094"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 65107"));
    EXPECT_EQ(m_quits + m_connectUsbs + m_startScrapes, 0);
}

TEST_F(IpcClientCommandsTest, UnknownCommandWithSizeEightIsLoggedAndConsumed)
{
    SendToRelay(Hex("00000008 00001234"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 4660"));

    // Consumed: the next message is read from its own first byte.
    SendToRelay(Header(8, 0xFE51));
    EXPECT_EQ(m_startScrapes, 1);
    EXPECT_EQ(m_capture->Count("Unknown command: 4660"), 1u);
}

TEST_F(IpcClientCommandsTest, NegativeCommandIsLoggedAsSigned)
{
    SendToRelay(Hex("00000008 FFFFFFFE"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: -2"));
}

} // namespace
} // namespace velorane::test
