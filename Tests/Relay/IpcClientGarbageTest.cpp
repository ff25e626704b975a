// Malformed input from the client application: the relay keeps its odd
// but fixed reading of it and never reads outside what it holds.

#include "Tests/Relay/IpcClientFixture.h"

#include <QDataStream>

#include <random>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueWarning;

class IpcClientGarbageTest : public IpcClientFixture
{
protected:
    void SetUp() override
    {
        StartConnectedClient();
        m_capture->Clear();
    }
};

TEST_F(IpcClientGarbageTest, NegativeSizeConsumesNothingAndIsParsedAgain)
{
    SendToRelay(Hex("FFFFFFFB"    // size: -5
                    "0000FE48")); // ConnectUsb
    EXPECT_EQ(m_connectUsbs, 1);
    // The same bytes are read again at the next arrival.
    SendToRelay(Hex("00"));
    EXPECT_EQ(m_connectUsbs, 2);
    EXPECT_EQ(m_capture->Count("Received ConnectUsb"), 2u);
}

TEST_F(IpcClientGarbageTest, MostNegativeSizeIsHandledLikeAnyNegative)
{
    SendToRelay(Hex("80000000 0000FE51"));
    EXPECT_EQ(m_startScrapes, 1);
    SendToRelay(Hex("00"));
    EXPECT_EQ(m_startScrapes, 2);
}

TEST_F(IpcClientGarbageTest, ZeroSizeConsumesNothing)
{
    SendToRelay(Hex("00000000 0000FE47"));
    EXPECT_EQ(m_quits, 1);
    SendToRelay(Hex("00"));
    EXPECT_EQ(m_quits, 2);
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "Received KillApplication"));
}

TEST_F(IpcClientGarbageTest, SizeSmallerThanTheHeaderConsumesThatMany)
{
    SendToRelay(Hex("00000005" // size: 5
                    "00"));    // one byte of a command
    // The command reads past the end as 0.
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 0"));
    // All five went: the next message starts clean.
    SendToRelay(Header(8, 0xFE48));
    EXPECT_EQ(m_connectUsbs, 1);
    EXPECT_EQ(m_capture->Count("Unknown command: 0"), 1u);
}

TEST_F(IpcClientGarbageTest, HugeSizeFieldWaitsForMoreBytes)
{
    SendToRelay(Hex("7FFFFFFF 0000FE48"));
    SendToRelay(QByteArray(64 * 1024, '\x5A'));
    EXPECT_EQ(m_connectUsbs, 0);
    EXPECT_EQ(m_capture->Messages(), std::vector<std::string>());
    // Still alive and listening.
    EXPECT_TRUE(m_client->SendIPC(0xFE47));
    EXPECT_EQ(ReceiveFromRelay(8), Hex("00000008 0000FE47"));
}

TEST_F(IpcClientGarbageTest, DesktopPixelsCountBeyondTheBufferGivesEmptyPixels)
{
    SendToRelay(Hex("00000010"    // size: 16
                    "0000FE52"    // DesktopPixels
                    "7FFFFFF0"    // byte count far beyond what came
                    "01020304")); // four bytes
    ASSERT_EQ(m_pixels.size(), 1u);
    EXPECT_TRUE(m_pixels[0]->isEmpty());
    // The size field's sixteen bytes were consumed.
    SendToRelay(Header(8, 0xFE48));
    EXPECT_EQ(m_connectUsbs, 1);
}

TEST_F(IpcClientGarbageTest, DesktopPixelsNullCountGivesNullPixels)
{
    SendToRelay(Hex("0000000C 0000FE52 FFFFFFFF"));
    ASSERT_EQ(m_pixels.size(), 1u);
    EXPECT_TRUE(m_pixels[0]->isNull());
}

TEST_F(IpcClientGarbageTest, DesktopPixelsTakesItsDataFromTheStreamNotTheSizeField)
{
    SendToRelay(Hex("00000008"  // size: 8, not counting the data
                    "0000FE52"  // DesktopPixels
                    "00000003"  // byte count of the data
                    "616263")); // "abc"
    ASSERT_EQ(m_pixels.size(), 1u);
    EXPECT_EQ(*m_pixels[0], QByteArray("abc"));
}

TEST_F(IpcClientGarbageTest, RandomBytesNeverEndTheRelay)
{
    std::mt19937 random(20240611u);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(1, 40);
    for (int write = 0; write < 300; ++write) {
        QByteArray chunk;
        const int n = length(random);
        for (int i = 0; i < n; ++i) {
            chunk.append(static_cast<char>(byte(random)));
        }
        // Now and then a size field that fits, so that parses go on.
        if (write % 3 == 0) {
            QDataStream(&chunk, QIODevice::WriteOnly) << static_cast<int32_t>(n);
        }
        SendToRelay(chunk);
    }
    EXPECT_TRUE(m_client->SendIPC(0xFE47));
    EXPECT_EQ(ReceiveFromRelay(8), Hex("00000008 0000FE47"));
}

} // namespace
} // namespace velorane::test
