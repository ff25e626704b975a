// Requests that this program doesn't serve, sizes it refuses, and bytes
// that make no request: each is answered as documented or dropped, and the
// program answers the next request as before.

#include "Tests/VirtualDisplay/VirtualDisplayScene.h"

#include "Tests/Support/RawLocalClient.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"

#include <gtest/gtest.h>

using namespace velorane::test;
using namespace std::chrono_literals;
using quorvan::EGroupInformation;
using quorvan::EGroupWarning;
using quorvan::velorane::virtualmonitor::IpcClient;
namespace vm = quorvan::velorane::virtualmonitor;

namespace {

std::string Hex(const QByteArray& bytes)
{
    return bytes.toHex().toStdString();
}

// The bytes of a request made by hand, for numbers the builder refuses.
QByteArray RawRequest(uint16_t command)
{
    QByteArray bytes = QByteArray::fromHex("00000007");
    bytes.append(static_cast<char>(command >> 8));
    bytes.append(static_cast<char>(command & 0xFF));
    bytes.append('\0');
    return bytes;
}

class VirtualDisplayRequestsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_scene.StartX(3200, 1080));
        ASSERT_TRUE(m_scene.ShowOutputAt1920(false));
        ASSERT_TRUE(m_scene.StartProgram());
    }

    VirtualDisplayScene m_scene;
};

} // namespace

TEST_F(VirtualDisplayRequestsTest, UnsupportedRequestsAnswerNotImplemented)
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, vm::CreateExtendedPresentation);
    EXPECT_EQ(Hex(m_scene.Exchange(request)), "0000000b"   // size 11
                                              "a13e"       // CreateExtendedPresentation
                                              "01"         // reply
                                              "8000000d"); // not implemented
    request.clear();
    IpcClient::BuildRequestMessage(&request, vm::DestroyExtendedPresentation);
    EXPECT_EQ(Hex(m_scene.Exchange(request)), "0000000ba140018000000d");

    request.clear();
    IpcClient::BuildRequestMessage(&request, vm::SetCursorCage, 1, 77LL);
    EXPECT_EQ(Hex(m_scene.Exchange(request)), "0000001b"   // size 27
                                              "a143"       // SetCursorCage
                                              "01"         // reply
                                              "8000000d"   // not implemented
                                              "00000000"   // x
                                              "00000000"   // y
                                              "00000000"   // width
                                              "00000000"); // height
    // Without a window the request isn't passed on at all.
    request.clear();
    IpcClient::BuildRequestMessage(&request, vm::SetCursorCage, 1, 0LL);
    EXPECT_EQ(Hex(m_scene.Exchange(request)),
              "0000001ba143018000000000000000000000000000000000000000");

    EXPECT_EQ(m_scene.CountLogEventually(
                  EGroupInformation, "CreateExtendedPresentation isn't supported by this program"),
              1u);
    EXPECT_EQ(m_scene.CountLogEventually(
                  EGroupInformation, "DestroyExtendedPresentation isn't supported by this program"),
              1u);
    EXPECT_EQ(m_scene.CountLogEventually(EGroupInformation,
                                         "SetCursorCage isn't supported by this program"),
              1u);
}

TEST_F(VirtualDisplayRequestsTest, UnknownCommandsAnswerTheGeneralFailure)
{
    QByteArray request;
    IpcClient::BuildRequestMessage(&request, vm::ReservedEmpty);
    EXPECT_EQ(Hex(m_scene.Exchange(request)), "0000000ba1420180000000");
    EXPECT_EQ(Hex(m_scene.Exchange(RawRequest(0xA145))), "0000000ba1450180000000");
    EXPECT_EQ(Hex(m_scene.Exchange(RawRequest(0x1234))), "0000000b12340180000000");
    EXPECT_EQ(m_scene.CountLogEventually(
                  EGroupWarning, "Skipping message: Uknown command 41285, malformed message"),
              1u);
}

TEST_F(VirtualDisplayRequestsTest, SizesOutsideWhatXCanPlaceAreRefused)
{
    EXPECT_EQ(m_scene.SetResolution(0, 720), static_cast<int>(0x80000003));
    EXPECT_EQ(m_scene.SetResolution(1280, -1), static_cast<int>(0x80000003));
    EXPECT_EQ(m_scene.SetResolution(40000, 720), static_cast<int>(0x80000003));
    EXPECT_EQ(m_scene.CountLogEventually(
                  EGroupWarning, "SetResolution: refused 0x720: each side must lie between 1 and "
                                 "32767"),
              1u);
    // Without a good SetResolution, CreateConference's own size counts.
    EXPECT_EQ(m_scene.CreateConference(0, 0), static_cast<int>(0x80000003));
    EXPECT_EQ(m_scene.CountLogEventually(EGroupWarning,
                                         "CreateConference: refused 0x0: each side must lie "
                                         "between 1 and 32767"),
              1u);
    EXPECT_FALSE(m_scene.VirtualMonitor().has_value());
}

TEST_F(VirtualDisplayRequestsTest, GarbageOnTheSocketNeverStopsTheAnswers)
{
    const std::string path = m_scene.SocketPath("VIRTUAL_MONITOR_SERVER");
    {
        // A reply where a request belongs: dropped without an answer.
        RawLocalClient client(path);
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(QByteArray::fromHex("0000000ba13f0100000000")));
        EXPECT_TRUE(client.Read(1, 500ms).isEmpty());
    }
    {
        // Bytes announcing a negative size, then zero.
        RawLocalClient client(path);
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(QByteArray::fromHex("fffffff0a13d00")));
        ASSERT_TRUE(client.Write(QByteArray::fromHex("00000000a13d00")));
    }
    {
        // A size far past anything the protocol has, then a flood.
        RawLocalClient client(path);
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(QByteArray::fromHex("7fffffffa13d00")));
        client.Write(QByteArray(100 * 1024, '\xA5'));
    }
    {
        // Half a request, then gone.
        RawLocalClient client(path);
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(QByteArray::fromHex("0000000fa1")));
    }
    {
        // A request whose payload is cut short: its fields read as zero,
        // which CreateConference refuses.
        RawLocalClient client(path);
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.Write(QByteArray::fromHex("00000007a13d00")));
        EXPECT_EQ(Hex(client.Read(11, 5s)), "0000000ba13d0180000003");
    }

    EXPECT_TRUE(m_scene.Program().Running());
    const Calibration calibration = m_scene.RequestCalibrate();
    EXPECT_TRUE(calibration.parsed);
    EXPECT_FALSE(calibration.found);
    EXPECT_EQ(m_scene.CreateConference(1280, 720), 0);
    EXPECT_TRUE(WaitFor([&] { return m_scene.VirtualMonitor().has_value(); }, 15s));
    EXPECT_EQ(m_scene.CountLogEventually(EGroupWarning,
                                         "Skipping message: Message type 1 isn't a request"),
              1u);
}

// What the program doesn't serve is told where a person looks first.
TEST(VirtualDisplayHelpTest, HelpStatesTheAnswersOfUnsupportedRequests)
{
    TempDir dir;
    ChildProcess program;
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneVirtualDisplay"), "--help"};
    options.outputFile = dir.File("help.out");
    ASSERT_TRUE(program.Start(options));
    int code = -1;
    ASSERT_TRUE(program.WaitForExit(15s, &code));
    EXPECT_EQ(code, 0);
    const std::string help = program.Output();
    EXPECT_NE(help.find("CreateExtendedPresentation, DestroyExtendedPresentation and "
                        "SetCursorCage are not\n  supported: they answer 0x8000000D (not "
                        "implemented)"),
              std::string::npos)
        << help;
    EXPECT_NE(help.find("VELORANE-2399-160-1902"), std::string::npos);
    EXPECT_NE(help.find("-c,--conference"), std::string::npos);
}

TEST(VirtualDisplayHelpTest, AnArrivalDelayTooShortForTheReplyIsRefused)
{
    TempDir dir;
    ChildProcess program;
    ChildProcess::Options options;
    options.argv = {BinaryPath("VeloraneVirtualDisplay"), "--arrival-delay", "50"};
    options.outputFile = dir.File("refused.out");
    ASSERT_TRUE(program.Start(options));
    int code = -1;
    ASSERT_TRUE(program.WaitForExit(15s, &code));
    EXPECT_NE(code, 0);
    EXPECT_NE(program.Output().find("--arrival-delay"), std::string::npos) << program.Output();
}
