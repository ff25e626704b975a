// How the relay cuts the client's byte stream into messages: one message
// per arrival, partial messages kept, short buffers read as zeros.

#include "Tests/Relay/IpcClientFixture.h"

#include <QCoreApplication>
#include <QMetaObject>

namespace velorane::test {
namespace {

using quorvan::EGroupValueWarning;

class IpcClientFramingTest : public IpcClientFixture
{
};

TEST_F(IpcClientFramingTest, MessageSplitAtEveryByteIsHandledOnceComplete)
{
    const QByteArray message = Hex("00000008 0000FE48"); // ConnectUsb
    for (int split = 1; split < message.size(); ++split) {
        SCOPED_TRACE(split);
        StartConnectedClient();
        m_connectUsbs = 0;

        SendToRelay(message.left(split));
        EXPECT_EQ(m_connectUsbs, 0);
        SendToRelay(message.mid(split));
        EXPECT_EQ(m_connectUsbs, 1);

        StopClient();
    }
}

TEST_F(IpcClientFramingTest, DesktopPixelsSplitAtEveryByteIsHandledOnceComplete)
{
    const QByteArray message = Hex("00000010"   // size: 16
                                   "0000FE52"   // DesktopPixels
                                   "00000004"   // byte count of the data
                                   "DEADBEEF"); // the data
    for (int split = 1; split < message.size(); ++split) {
        SCOPED_TRACE(split);
        StartConnectedClient();
        m_pixels.clear();

        SendToRelay(message.left(split));
        EXPECT_TRUE(m_pixels.empty());
        SendToRelay(message.mid(split));
        ASSERT_EQ(m_pixels.size(), 1u);
        EXPECT_EQ(*m_pixels[0], Hex("DEADBEEF"));

        StopClient();
    }
}

TEST_F(IpcClientFramingTest, ThreeBytesWarnReadAsZeroAndStay)
{
    StartConnectedClient();
    SendToRelay(Hex("000000"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "IPC Command received that's too short. m_buffer.size()=[3]"));
    // The size read as 0, so the parse went on and read the command as 0.
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unknown command: 0"));
    EXPECT_EQ(m_quits + m_connectUsbs + m_startScrapes, 0);

    // The three bytes stayed: with the rest they make one ConnectUsb.
    SendToRelay(Hex("08 0000FE48"));
    EXPECT_EQ(m_connectUsbs, 1);
    EXPECT_EQ(m_capture->Count("IPC Command received that's too short. m_buffer.size()=[3]"), 1u);
    EXPECT_EQ(m_capture->Count("Unknown command: 0"), 1u);
}

TEST_F(IpcClientFramingTest, ShortBuffersGrowUntilTheSizeFieldIsWhole)
{
    StartConnectedClient();
    SendToRelay(Hex("00"));
    SendToRelay(Hex("00"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "IPC Command received that's too short. m_buffer.size()=[1]"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning,
                                    "IPC Command received that's too short. m_buffer.size()=[2]"));
    EXPECT_EQ(m_capture->Count("Unknown command: 0"), 2u);

    SendToRelay(Hex("0008 0000FE51"));
    EXPECT_EQ(m_startScrapes, 1);
}

TEST_F(IpcClientFramingTest, TwoMessagesInOneWriteOnlyTheFirstIsHandled)
{
    StartConnectedClient();
    SendToRelay(Header(8, 0xFE48) + Header(8, 0xFE51));
    EXPECT_EQ(m_connectUsbs, 1);
    EXPECT_EQ(m_startScrapes, 0);

    // The next arrival handles the message that waited, and the new one
    // waits in turn.
    SendToRelay(Header(8, 0xFE47));
    EXPECT_EQ(m_startScrapes, 1);
    EXPECT_EQ(m_quits, 0);

    SendToRelay(Hex("00"));
    EXPECT_EQ(m_quits, 1);
    EXPECT_EQ(m_connectUsbs, 1);
    EXPECT_EQ(m_startScrapes, 1);
}

TEST_F(IpcClientFramingTest, ReadyReadWithNothingToReadLogsNoDataReceived)
{
    StartConnectedClient();
    m_capture->Clear();
    QMetaObject::invokeMethod(
        m_client.get(), [this] { m_client->IpcReadyRead(); }, Qt::BlockingQueuedConnection);
    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "No data received"));
    EXPECT_EQ(m_capture->Messages().size(), 1u);
}

} // namespace
} // namespace velorane::test
