// Building and taking apart virtual monitor messages: exact bytes for every
// command, and every way a message or an argument list can be wrong.

#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Tests/Support/CapturingLogStore.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueSevere;
using quorvan::EGroupValueWarning;
using namespace quorvan::velorane::virtualmonitor;

const char* kWrongArguments = "Incorrect number or incorrect type of arguments supplied";

QByteArray Hex(const char* hex)
{
    return QByteArray::fromHex(hex);
}

class MessageFormatTest : public ::testing::Test
{
protected:
    ScopedLogCapture m_log;
};

TEST_F(MessageFormatTest, SetResolutionRequestIsTheSixteenBytesOfTheExample)
{
    QByteArray message;
    IpcClient::BuildRequestMessage(&message, SetResolution, 1920, 1080, 250);
    EXPECT_EQ(message, Hex("00000010" // size 16
                           "a144"     // SetResolution
                           "00"       // request
                           "00000780" // width 1920
                           "00000438" // height 1080
                           "fa"));    // monitor tag 250
    EXPECT_EQ(message, Hex("00000010a144000000078000000438fa"));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, SuccessfulSetResolutionReplyIsElevenBytes)
{
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, SetResolution, 0);
    EXPECT_EQ(reply, Hex("0000000b"    // size 11
                         "a144"        // SetResolution
                         "01"          // reply
                         "00000000")); // result: success
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, CreateConferenceRequestCarriesWidthAndHeight)
{
    QByteArray message;
    IpcClient::BuildRequestMessage(&message, CreateConference, 1280, 720);
    EXPECT_EQ(message, Hex("0000000fa13d00"
                           "00000500"
                           "000002d0"));
}

TEST_F(MessageFormatTest, RequestsWithoutPayloadAreSevenBytes)
{
    const std::pair<Command, const char*> cases[] = {
        {CreateExtendedPresentation, "00000007a13e00"},
        {DestroyConference, "00000007a13f00"},
        {DestroyExtendedPresentation, "00000007a14000"},
        {ReservedEmpty, "00000007a14200"},
        {RequestCalibrate, "00000007a14700"},
        {QuitProcess, "00000007a14800"},
    };
    for (const auto& [command, hex] : cases) {
        QByteArray message;
        IpcClient::BuildRequestMessage(&message, command);
        EXPECT_EQ(message, Hex(hex)) << command;
    }
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, ReservedRectRequestCarriesTheRectangleInOrder)
{
    const tVmRect rect{1, -2, 0x300, 0x40000};
    QByteArray message;
    IpcClient::BuildRequestMessage(&message, ReservedRect, &rect);
    EXPECT_EQ(message, Hex("00000017a14100"
                           "00000001"
                           "fffffffe"
                           "00000300"
                           "00040000"));
}

TEST_F(MessageFormatTest, SetCursorCageRequestCarriesFlagAndWindowId)
{
    QByteArray message;
    IpcClient::BuildRequestMessage(&message, SetCursorCage, 1, 0x0102030405060708LL);
    EXPECT_EQ(message, Hex("00000010a14300"
                           "01"
                           "0102030405060708"));
}

TEST_F(MessageFormatTest, SetCursorCageEnableTwoIsWrittenAsOne)
{
    QByteArray message;
    IpcClient::BuildRequestMessage(&message, SetCursorCage, 2, 5LL);
    EXPECT_EQ(message, Hex("00000010"            // size 16
                           "a143"                // SetCursorCage
                           "00"                  // request
                           "01"                  // enable, any non-zero is true
                           "0000000000000005")); // window id
    QByteArray disabled;
    IpcClient::BuildRequestMessage(&disabled, SetCursorCage, 0, -1LL);
    EXPECT_EQ(disabled, Hex("00000010a14300"
                            "00"
                            "ffffffffffffffff"));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, SetResolutionTagIsOneByteAndTheSizeSixteen)
{
    QByteArray message;
    IpcClient::BuildRequestMessage(&message, SetResolution, 640, 480, 250);
    EXPECT_EQ(message, Hex("00000010" // size 16, not 19: the tag is one byte
                           "a144"     // SetResolution
                           "00"       // request
                           "00000280" // width 640
                           "000001e0" // height 480
                           "fa"));    // tag 250
    // The tag is narrowed to a signed byte: 506 keeps its low byte.
    QByteArray narrowed;
    IpcClient::BuildRequestMessage(&narrowed, SetResolution, 640, 480, 0x1FA);
    EXPECT_EQ(narrowed, message);
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, UnknownCommandsLeaveAnEmptyMessageAndAreLoggedUnsigned)
{
    const std::pair<uint16_t, const char*> cases[] = {
        {0xA145, "Uknown command 41285"},
        {0xA146, "Uknown command 41286"},
        {0xA13C, "Uknown command 41276"},
        {0xA149, "Uknown command 41289"},
    };
    for (const auto& [number, text] : cases) {
        m_log->Clear();
        // Whatever the array held goes: an empty array is the only sign.
        QByteArray message = Hex("0102");
        IpcClient::BuildRequestMessage(&message, static_cast<Command>(number));
        EXPECT_TRUE(message.isEmpty()) << number;
        const auto lines = m_log->Lines();
        ASSERT_EQ(lines.size(), 1u) << number;
        EXPECT_EQ(lines[0].message, text);
        EXPECT_EQ(lines[0].group, EGroupValueWarning);
    }
}

TEST_F(MessageFormatTest, NullMessagesAreRefusedWithTheirTexts)
{
    IpcClient::BuildRequestMessage(nullptr, DestroyConference);
    IpcClient::BuildReplyMessage(nullptr, DestroyConference, 0);
    EXPECT_FALSE(IpcClient::ParseReplyMessage(nullptr, nullptr));
    const auto lines = m_log->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message,
              "Incoming QByteArray parameter is NULL. Unable to build request message");
    EXPECT_EQ(lines[1].message,
              "Incoming QByteArray parameter is NULL. Unable to build reply message");
    EXPECT_EQ(lines[2].message, "QByteArray is NULL");
    for (const auto& line : lines) {
        EXPECT_EQ(line.group, EGroupValueWarning);
    }
}

TEST_F(MessageFormatTest, MissingOrWrongArgumentsAreCaughtAndReported)
{
    QByteArray tooFew;
    IpcClient::BuildRequestMessage(&tooFew, CreateConference, 1280);
    QByteArray nullRect;
    IpcClient::BuildRequestMessage(&nullRect, ReservedRect, nullptr);
    QByteArray numberForRect;
    IpcClient::BuildReplyMessage(&numberForRect, SetCursorCage, 0, 7);
    QByteArray noRectWhenFound;
    IpcClient::BuildReplyMessage(&noRectWhenFound, RequestCalibrate, 0, 1);
    EXPECT_EQ(m_log->Count(kWrongArguments), 4u);
    for (const auto& line : m_log->Lines()) {
        EXPECT_EQ(line.group, EGroupValueSevere);
    }
    // Nothing half-built is left to be sent: no header with a wrong size.
    EXPECT_TRUE(tooFew.isEmpty()) << tooFew.toHex().constData();
    EXPECT_TRUE(nullRect.isEmpty()) << nullRect.toHex().constData();
    EXPECT_TRUE(numberForRect.isEmpty()) << numberForRect.toHex().constData();
    EXPECT_TRUE(noRectWhenFound.isEmpty()) << noRectWhenFound.toHex().constData();
}

TEST_F(MessageFormatTest, RepliesWithoutPayloadAreElevenBytesWithTheResult)
{
    const Command commands[] = {CreateConference,  CreateExtendedPresentation,
                                DestroyConference, DestroyExtendedPresentation,
                                ReservedRect,      ReservedEmpty,
                                SetResolution,     QuitProcess};
    for (Command command : commands) {
        QByteArray reply;
        IpcClient::BuildReplyMessage(&reply, command, static_cast<int>(0x80000000u));
        QByteArray expected = Hex("0000000b");
        expected.append(static_cast<char>(command >> 8)).append(static_cast<char>(command & 0xFF));
        expected.append(Hex("0180000000"));
        EXPECT_EQ(reply, expected) << command;
    }
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, TheSuccessfulSetResolutionReplyOfTheExampleParses)
{
    QByteArray reply = Hex("0000000b"   // size 11
                           "a144"       // SetResolution
                           "01"         // reply
                           "00000000"); // result: success
    int result = -1;
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, SetCursorCageReplyCarriesTheRectangle)
{
    const tVmRect rect{10, 20, 1920, 1080};
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, SetCursorCage, 0, &rect);
    EXPECT_EQ(reply, Hex("0000001ba1430100000000"
                         "0000000a"
                         "00000014"
                         "00000780"
                         "00000438"));
}

TEST_F(MessageFormatTest, RequestCalibrateReplyFoundIsTwentyEightBytes)
{
    const tVmRect rect{-1280, 0, 1280, 720};
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, RequestCalibrate, 0, 1, &rect);
    EXPECT_EQ(reply, Hex("0000001ca1470100000000"
                         "01"
                         "fffffb00"
                         "00000000"
                         "00000500"
                         "000002d0"));
}

TEST_F(MessageFormatTest, RequestCalibrateReplyNotFoundIsTwelveBytesAndReadsNoRectangle)
{
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, RequestCalibrate, 0, 0);
    EXPECT_EQ(reply, Hex("0000000ca147010000000000"));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, ReplyToACommandOutsideTheTableEchoesIt)
{
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, static_cast<Command>(0xA149), 0);
    EXPECT_EQ(reply, Hex("0000000ba1490100000000"));
    QByteArray hole;
    IpcClient::BuildReplyMessage(&hole, static_cast<Command>(0xA145),
                                 static_cast<int>(0x80000000u));
    EXPECT_EQ(hole, Hex("0000000ba1450180000000"));
}

TEST_F(MessageFormatTest, ParseRefusesASixByteArrayOnTheMinimumSize)
{
    QByteArray reply = Hex("0000000ba144");
    int result = 5;
    EXPECT_FALSE(IpcClient::ParseReplyMessage(&reply, &result));
    EXPECT_EQ(result, 5);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{
                  "Reply message is malformed. Size of message 6 is less than minimum size 7"});
    EXPECT_TRUE(m_log->Contains(
        EGroupValueWarning,
        "Reply message is malformed. Size of message 6 is less than minimum size 7"));
}

TEST_F(MessageFormatTest, ParseRefusesASizeThatDiffersFromTheArray)
{
    QByteArray reply = Hex("0000000ca1440100000000");
    int result = 5;
    EXPECT_FALSE(IpcClient::ParseReplyMessage(&reply, &result));
    EXPECT_EQ(result, 5);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"Reply message is malformed. Size of message 11 isn't "
                                       "equal to size specified in message header 12"});
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning,
                                "Reply message is malformed. Size of message 11 isn't equal to "
                                "size specified in message header 12"));
}

TEST_F(MessageFormatTest, ParseRefusesARequest)
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, SetResolution, 1920, 1080, 250);
    int result = 5;
    EXPECT_FALSE(IpcClient::ParseReplyMessage(&request, &result));
    EXPECT_EQ(result, 5);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"Reply message is the wrong message type 0"});
    EXPECT_TRUE(m_log->Contains(EGroupValueWarning, "Reply message is the wrong message type 0"));
}

TEST_F(MessageFormatTest, ParseTakesAFailureReplyAndLeavesTheResultToTheCaller)
{
    QByteArray reply = Hex("0000000ba13d01fffffffb");
    int result = 0;
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result));
    EXPECT_EQ(result, -5);
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, ParseOfCalibrateNotFoundLeavesTheRectangleUntouched)
{
    QByteArray reply = Hex("0000000ca147010000000000");
    int result = -1;
    bool found = true;
    tVmRect rect{9, 9, 9, 9};
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result, &found, &rect));
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(rect, (tVmRect{9, 9, 9, 9}));
}

TEST_F(MessageFormatTest, ParseOfCalibrateFoundFillsTheRectangle)
{
    const tVmRect sent{-1280, 0, 1280, 720};
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, RequestCalibrate, 0, 1, &sent);
    int result = -1;
    bool found = false;
    tVmRect rect;
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result, &found, &rect));
    EXPECT_TRUE(found);
    EXPECT_EQ(rect, sent);
}

TEST_F(MessageFormatTest, ParseOfCursorCageFillsTheRectangle)
{
    const tVmRect sent{1, 2, 3, 4};
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, SetCursorCage, 0, &sent);
    int result = -1;
    tVmRect rect;
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result, &rect));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(rect, sent);
}

TEST_F(MessageFormatTest, ParseOfAConsistentButShortPayloadReadsZeros)
{
    // The size says 15: the header, the result and the cage's x alone.
    QByteArray reply = Hex("0000000fa1430100000000"
                           "00000007");
    int result = -1;
    tVmRect rect{9, 9, 9, 9};
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result, &rect));
    EXPECT_EQ(rect, (tVmRect{7, 0, 0, 0}));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(MessageFormatTest, ParseWithAMissingOutputReportsAndStillSaysTrue)
{
    const tVmRect sent{1, 2, 3, 4};
    QByteArray reply;
    IpcClient::BuildReplyMessage(&reply, SetCursorCage, -3, &sent);
    int result = 0;
    EXPECT_TRUE(IpcClient::ParseReplyMessage(&reply, &result));
    EXPECT_EQ(result, -3);
    EXPECT_TRUE(m_log->Contains(EGroupValueSevere, kWrongArguments));
}

TEST_F(MessageFormatTest, ParseDataNeedsSevenBytesWhateverTheyHold)
{
    IpcClient client;
    int size = -7;
    EXPECT_FALSE(client.ParseData(Hex("000000000000"), size));
    EXPECT_FALSE(client.ParseData(Hex("00000006a144"), size));
    EXPECT_FALSE(client.ParseData(Hex("ffffffffffff"), size));
    EXPECT_FALSE(client.ParseData(QByteArray(), size));
    EXPECT_EQ(size, -7);
}

TEST_F(MessageFormatTest, ParseDataWaitsForTheWholeMessage)
{
    IpcClient client;
    int size = -7;
    EXPECT_FALSE(client.ParseData(Hex("0000000fa13d00"), size));
    EXPECT_EQ(size, -7);
    EXPECT_TRUE(client.ParseData(Hex("0000000fa13d00"
                                     "00000500"
                                     "000002d0"
                                     "0102030405"),
                                 size));
    EXPECT_EQ(size, 15);
}

TEST_F(MessageFormatTest, ParseDataTakesZeroAndNegativeSizesAsWhole)
{
    IpcClient client;
    int size = -7;
    EXPECT_TRUE(client.ParseData(Hex("00000000a13d00"), size));
    EXPECT_EQ(size, 0);
    EXPECT_TRUE(client.ParseData(Hex("fffffff0a13d00"), size));
    EXPECT_EQ(size, -16);
}

} // namespace
} // namespace velorane::test
