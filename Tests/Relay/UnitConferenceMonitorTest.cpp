// The conference monitor against a scripted virtual display server: the
// set-up dialogue, take-down, the request operations and their texts, and
// standalone mode's call back.

#include "Clients/Conference/ConferenceMonitor.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/RawLocalClient.h"
#include "Tests/Support/ScopedEnv.h"
#include "Tests/Support/ScriptedLocalServer.h"
#include "Tests/Support/TempDir.h"

#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QSignalSpy>
#include <QThread>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::CRefCountPtr;
using quorvan::GetLoggerInstance;
using quorvan::ILogger;
using quorvan::velorane::relay::ConferenceMonitor;
using namespace std::chrono_literals;

Bytes HexBytes(const char* hex)
{
    const QByteArray bytes = QByteArray::fromHex(hex);
    return Bytes(bytes.begin(), bytes.end());
}

// A reply of eleven bytes to the request's command with this result.
Bytes ReplyTo(const Bytes& request, uint32_t result)
{
    Bytes reply;
    AppendBigEndian32(reply, 11);
    reply.push_back(request.size() > 5 ? request[4] : 0);
    reply.push_back(request.size() > 5 ? request[5] : 0);
    reply.push_back(1);
    AppendBigEndian32(reply, result);
    return reply;
}

uint16_t CommandOf(const Bytes& request)
{
    return request.size() > 5 ? static_cast<uint16_t>((request[4] << 8) | request[5]) : 0;
}

const char* kSetResolution1920 = "00000010a144000000078000000438fa";
const char* kCreateConference = "0000000fa13d0000000500000002d0";
const char* kDestroyConference = "00000007a13f00";

// Successful results are logged at level 3; the tests read them.
class ConferenceMonitorTest : public ::testing::Test
{
protected:
    ConferenceMonitorTest()
    {
        UnitQtApplication();
        GetLoggerInstance(&m_logger);
        m_logger->GetLevel(&m_level);
        m_logger->SetLevel(3);
    }
    ~ConferenceMonitorTest() override { m_logger->SetLevel(m_level); }

    // A server that answers every request with the result the test chose
    // for its command (success by default).
    void Serve()
    {
        m_server = std::make_unique<ScriptedLocalServer>(
            m_dir.File("VIRTUAL_MONITOR_SERVER"), [this](int, const Bytes& request) {
                const uint16_t command = CommandOf(request);
                if (command == 0xA147 || command == 0xA143) {
                    return ScriptedReply{m_rectReply};
                }
                auto found = m_results.find(command);
                return ScriptedReply{
                    ReplyTo(request, found == m_results.end() ? 0u : found->second)};
            });
        ASSERT_TRUE(m_server->Listening());
    }

    std::vector<Bytes> Requests() const
    {
        std::vector<Bytes> requests;
        for (const auto& request : m_server->Requests()) {
            requests.push_back(request.bytes);
        }
        return requests;
    }

    TempDir m_dir;
    ScopedEnv m_tmpdir{"TMPDIR", m_dir.Path()};
    ScopedLogCapture m_log;
    CRefCountPtr<ILogger> m_logger;
    uint32_t m_level = 0;
    std::map<uint16_t, uint32_t> m_results;
    Bytes m_rectReply;
    std::unique_ptr<ScriptedLocalServer> m_server;
    ConferenceMonitor m_monitor{1920, 1080, nullptr};
};

TEST_F(ConferenceMonitorTest, TerminateBeforeInitializeSendsNothing)
{
    Serve();
    EXPECT_EQ(m_monitor.Terminate(), 0);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"RETURN Result: 0x0 - Terminate not needed"});
    EXPECT_EQ(m_server->Connections(), 0);
}

TEST_F(ConferenceMonitorTest, InitializeSendsResolutionThenConferenceEachOnItsOwnConnection)
{
    Serve();
    EXPECT_EQ(m_monitor.Initialize(0x1234), 0);
    EXPECT_TRUE(m_monitor.ConferenceCreated());
    const auto requests = m_server->Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].bytes, HexBytes(kSetResolution1920));
    EXPECT_EQ(requests[0].connection, 1);
    EXPECT_EQ(requests[1].bytes, HexBytes(kCreateConference));
    EXPECT_EQ(requests[1].connection, 2);
    EXPECT_TRUE(m_server->WaitForClosed(2, 2s));
    EXPECT_EQ(
        m_log->Messages(),
        (std::vector<std::string>{"RETURN Result: 0x0 - Set resolution succesfully",
                                  "RETURN Result: 0x0 - Success", "RETURN Result: 0x0 - Success"}));
}

TEST_F(ConferenceMonitorTest, TerminateTwiceAfterSuccessDestroysOnce)
{
    Serve();
    ASSERT_EQ(m_monitor.Initialize(0), 0);
    m_log->Clear();
    EXPECT_EQ(m_monitor.Terminate(), 0);
    EXPECT_EQ(m_monitor.Terminate(), 0);
    const auto requests = Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[2], HexBytes(kDestroyConference));
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{"RETURN Result: 0x0 - Success",
                                        "RETURN Result: 0x0 - Terminate success",
                                        "RETURN Result: 0x0 - Terminate not needed"}));
}

TEST_F(ConferenceMonitorTest, AFailedDestroyKeepsTheConferenceSoTheNextTerminateTriesAgain)
{
    Serve();
    ASSERT_EQ(m_monitor.Initialize(0), 0);
    m_results[0xA13F] = 0xFFFFFFFEu;
    m_log->Clear();
    EXPECT_EQ(m_monitor.Terminate(), -2);
    EXPECT_TRUE(m_monitor.ConferenceCreated());
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{
                  "RETURN Result: 0xfffffffe - Failed to DestroyConference",
                  "RETURN Result: 0xfffffffe - Failed to destroy Velorane Conference virtual "
                  "monitor"}));
    m_results.clear();
    EXPECT_EQ(m_monitor.Terminate(), 0);
    EXPECT_FALSE(m_monitor.ConferenceCreated());
    const auto requests = Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[2], HexBytes(kDestroyConference));
    EXPECT_EQ(requests[3], HexBytes(kDestroyConference));
}

// The logger limits each log site per thread, and the operations share the
// sites of the exchange and of the reply parser. So each operation below
// runs on a thread of its own, and all those threads live until the test
// ends, so that no two of them can share an id.
class OwnThreads
{
public:
    ~OwnThreads()
    {
        m_release.set_value();
        for (auto& thread : m_threads) {
            thread->wait();
        }
    }

    void Run(std::function<void()> work)
    {
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> finished = done->get_future();
        std::shared_future<void> released = m_released;
        m_threads.emplace_back(QThread::create([work = std::move(work), done, released] {
            work();
            done->set_value();
            released.wait();
        }));
        m_threads.back()->start();
        finished.wait();
    }

private:
    std::promise<void> m_release;
    std::shared_future<void> m_released = m_release.get_future().share();
    std::vector<std::unique_ptr<QThread>> m_threads;
};

struct Operation
{
    const char* name;
    std::function<RESULT(ConferenceMonitor&)> send;
    const char* request;
    // A refusal with the result -3, shaped as the command's reply.
    const char* refusal;
    const char* successText;
};

TEST_F(ConferenceMonitorTest, EachOperationTellsItsFailuresAndSuccessInItsOwnWords)
{
    QSignalSpy update(&m_monitor, &ConferenceMonitor::SignalUpdateRelayWindow);
    const Operation operations[] = {
        {"SetResolution", [](ConferenceMonitor& m) { return m.SendSetResolution(); },
         kSetResolution1920, "0000000ba14401fffffffd", "Set resolution succesfully"},
        {"CreateConference", [](ConferenceMonitor& m) { return m.SendCreateConference(); },
         kCreateConference, "0000000ba13d01fffffffd", "Success"},
        {"DestroyConference", [](ConferenceMonitor& m) { return m.SendDestroyConference(); },
         kDestroyConference, "0000000ba13f01fffffffd", "Success"},
        {"CreateExtendedPresentation",
         [](ConferenceMonitor& m) { return m.SendCreateExtendedPresentation(); }, "00000007a13e00",
         "0000000ba13e01fffffffd", "Success"},
        {"RequestCalibrate", [](ConferenceMonitor& m) { return m.SendRequestCalibrate(); },
         "00000007a14700", "0000000ca14701fffffffd00", "Set request calibrate success"},
        {"SetCursorCage", [](ConferenceMonitor& m) { return m.SendSetCursorCage(0x2A); },
         "00000010a14300"
         "01"
         "000000000000002a",
         "0000001ba14301fffffffd"
         "fffffb00"
         "00000000"
         "00000500"
         "000002d0",
         "Set cursor cage success"},
    };
    const std::string general = "RETURN Result: 0x80000000 - ";
    const std::string refused = "RETURN Result: 0xfffffffd - ";
    OwnThreads threads;
    for (const auto& operation : operations) {
        SCOPED_TRACE(operation.name);
        const std::string name = operation.name;
        std::vector<RESULT> results;
        std::vector<std::vector<CapturedLine>> lines;
        std::vector<std::vector<Bytes>> requests;
        const auto serve = [&](std::function<Bytes(const Bytes&)> answer) {
            // The old server takes its socket file with it.
            m_server.reset();
            m_server = std::make_unique<ScriptedLocalServer>(
                m_dir.File("VIRTUAL_MONITOR_SERVER"),
                [answer](int, const Bytes& request) { return ScriptedReply{answer(request)}; });
        };
        threads.Run([&] {
            // No display process; one that sends the request back; one that
            // refuses; one that agrees.
            m_server.reset();
            m_log->Clear();
            results.push_back(operation.send(m_monitor));
            lines.push_back(m_log->Lines());
            requests.push_back({});

            serve([](const Bytes& request) { return request; });
            m_log->Clear();
            results.push_back(operation.send(m_monitor));
            lines.push_back(m_log->Lines());
            requests.push_back(Requests());

            const Bytes refusal = HexBytes(operation.refusal);
            serve([refusal](const Bytes&) { return refusal; });
            m_log->Clear();
            results.push_back(operation.send(m_monitor));
            lines.push_back(m_log->Lines());
            requests.push_back(Requests());

            serve([](const Bytes& request) {
                if (CommandOf(request) == 0xA147) {
                    return HexBytes("0000000ca147010000000000");
                }
                if (CommandOf(request) == 0xA143) {
                    return HexBytes("0000001ba1430100000000"
                                    "00000001000000020000000300000004");
                }
                return ReplyTo(request, 0);
            });
            m_log->Clear();
            results.push_back(operation.send(m_monitor));
            lines.push_back(m_log->Lines());
            requests.push_back(Requests());
            m_server.reset();
        });

        const auto messagesOf = [](const std::vector<CapturedLine>& captured) {
            std::vector<std::pair<quorvan::ELogGroups, std::string>> messages;
            for (const auto& line : captured) {
                messages.emplace_back(line.group, line.message);
            }
            return messages;
        };
        using Lines = std::vector<std::pair<quorvan::ELogGroups, std::string>>;
        ASSERT_EQ(results.size(), 4u);
        EXPECT_EQ(results[0], static_cast<RESULT>(0x80000000u));
        EXPECT_EQ(messagesOf(lines[0]),
                  (Lines{{quorvan::EGroupValueSevere,
                          general + "IPC communication not established with server name: "
                                    "VIRTUAL_MONITOR_SERVER"},
                         {quorvan::EGroupValueSevere, general + "Failed to send " + name}}));

        EXPECT_EQ(results[1], static_cast<RESULT>(0x80000000u));
        EXPECT_EQ(messagesOf(lines[1]),
                  (Lines{{quorvan::EGroupValueWarning, "Reply message is the wrong message type 0"},
                         {quorvan::EGroupValueSevere,
                          general + "Unable to parse the reply of " + name}}));
        EXPECT_EQ(requests[1], std::vector<Bytes>{HexBytes(operation.request)});

        EXPECT_EQ(results[2], -3);
        EXPECT_EQ(messagesOf(lines[2]),
                  (Lines{{quorvan::EGroupValueSevere, refused + "Failed to " + name}}));
        EXPECT_EQ(requests[2], std::vector<Bytes>{HexBytes(operation.request)});

        // A success goes to Spew at level 3.
        EXPECT_EQ(results[3], 0);
        EXPECT_EQ(messagesOf(lines[3]),
                  (Lines{{quorvan::EGroupValueSpew,
                          std::string("RETURN Result: 0x0 - ") + operation.successText}}));
        EXPECT_EQ(requests[3], std::vector<Bytes>{HexBytes(operation.request)});
    }
    // Only the cage's success moved the window: a refusal moves nothing,
    // and the calibration found nothing.
    ASSERT_EQ(update.count(), 1);
    EXPECT_EQ(update[0], (QList<QVariant>{1, 2, 3, 4}));
}

TEST_F(ConferenceMonitorTest, WithoutAServerInitializeFailsOnTheResolution)
{
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(m_monitor.Initialize(0), static_cast<int32_t>(0x80000000u));
    EXPECT_LT(timer.elapsed(), 5500);
    EXPECT_FALSE(m_monitor.ConferenceCreated());
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{
                  "RETURN Result: 0x80000000 - IPC communication not established with server "
                  "name: VIRTUAL_MONITOR_SERVER",
                  "RETURN Result: 0x80000000 - Failed to send SetResolution",
                  "RETURN Result: 0x80000000 - Failed to initialize: set resolution"}));
    for (const auto& line : m_log->Lines()) {
        EXPECT_EQ(line.group, quorvan::EGroupValueSevere);
    }
    m_log->Clear();
    EXPECT_EQ(m_monitor.Terminate(), 0);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"RETURN Result: 0x0 - Terminate not needed"});
}

TEST_F(ConferenceMonitorTest, ARefusedResolutionFailsInitializeWithItsCodeAndNoConference)
{
    m_results[0xA144] = 0xFFFFFFF9u;
    Serve();
    EXPECT_EQ(m_monitor.Initialize(0), -7);
    EXPECT_EQ(Requests().size(), 1u);
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{
                  "RETURN Result: 0xfffffff9 - Failed to SetResolution",
                  "RETURN Result: 0xfffffff9 - Failed to initialize: set resolution"}));
}

TEST_F(ConferenceMonitorTest, ARefusedConferenceFailsInitializeAfterTheResolution)
{
    m_results[0xA13D] = 0x80000000u;
    Serve();
    EXPECT_EQ(m_monitor.Initialize(0), static_cast<int32_t>(0x80000000u));
    EXPECT_FALSE(m_monitor.ConferenceCreated());
    EXPECT_EQ(Requests().size(), 2u);
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{
                  "RETURN Result: 0x0 - Set resolution succesfully",
                  "RETURN Result: 0x80000000 - Failed to CreateConference",
                  "RETURN Result: 0x80000000 - Failed to initialize: create conference"}));
    m_log->Clear();
    EXPECT_EQ(m_monitor.Terminate(), 0);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"RETURN Result: 0x0 - Terminate not needed"});
    // Nothing went to the display process for the take-down.
    EXPECT_EQ(Requests().size(), 2u);
}

TEST_F(ConferenceMonitorTest, AnUnparsableReplyIsTheGeneralFailure)
{
    // A request coming back instead of a reply.
    m_server = std::make_unique<ScriptedLocalServer>(
        m_dir.File("VIRTUAL_MONITOR_SERVER"),
        [](int, const Bytes& request) { return ScriptedReply{request}; });
    EXPECT_EQ(m_monitor.SendSetResolution(), static_cast<int32_t>(0x80000000u));
    EXPECT_EQ(m_log->Messages(),
              (std::vector<std::string>{
                  "Reply message is the wrong message type 0",
                  "RETURN Result: 0x80000000 - Unable to parse the reply of SetResolution"}));
}

TEST_F(ConferenceMonitorTest, CalibrateMovesTheWindowOnlyForTheConferenceSize)
{
    QSignalSpy update(&m_monitor, &ConferenceMonitor::SignalUpdateRelayWindow);
    m_rectReply = HexBytes("0000001ca1470100000000"
                           "01"
                           "00000010"
                           "00000020"
                           "00000780"
                           "00000438");
    Serve();
    EXPECT_EQ(m_monitor.SendRequestCalibrate(), 0);
    EXPECT_EQ(update.count(), 0);
    EXPECT_EQ(Requests().back(), HexBytes("00000007a14700"));

    m_rectReply = HexBytes("0000001ca1470100000000"
                           "01"
                           "fffffb00"
                           "00000020"
                           "00000500"
                           "000002d0");
    EXPECT_EQ(m_monitor.SendRequestCalibrate(), 0);
    ASSERT_EQ(update.count(), 1);
    EXPECT_EQ(update[0][0].toInt(), -1280);
    EXPECT_EQ(update[0][1].toInt(), 32);
    EXPECT_EQ(update[0][2].toInt(), 1280);
    EXPECT_EQ(update[0][3].toInt(), 720);

    m_rectReply = HexBytes("0000000ca147010000000000");
    EXPECT_EQ(m_monitor.SendRequestCalibrate(), 0);
    EXPECT_EQ(update.count(), 1);
    EXPECT_EQ(m_log->Count("RETURN Result: 0x0 - Set request calibrate success"), 3u);
}

TEST_F(ConferenceMonitorTest, CursorCageMovesTheWindowToWhateverRectangleComesBack)
{
    QSignalSpy update(&m_monitor, &ConferenceMonitor::SignalUpdateRelayWindow);
    m_rectReply = HexBytes("0000001ba1430100000000"
                           "00000001"
                           "00000002"
                           "00000003"
                           "00000004");
    Serve();
    EXPECT_EQ(m_monitor.SendSetCursorCage(0x0102030405ULL), 0);
    EXPECT_EQ(Requests().back(), HexBytes("00000010a14300"
                                          "01"
                                          "0000000102030405"));
    ASSERT_EQ(update.count(), 1);
    EXPECT_EQ(update[0][0].toInt(), 1);
    EXPECT_EQ(update[0][3].toInt(), 4);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"RETURN Result: 0x0 - Set cursor cage success"});
}

TEST_F(ConferenceMonitorTest, ExtendedPresentationIsOneRequest)
{
    Serve();
    EXPECT_EQ(m_monitor.SendCreateExtendedPresentation(), 0);
    EXPECT_EQ(Requests(), std::vector<Bytes>{HexBytes("00000007a13e00")});
    m_results[0xA13E] = 0xFFFFFFFFu;
    EXPECT_EQ(m_monitor.SendCreateExtendedPresentation(), -1);
    EXPECT_EQ(m_log->Messages().back(),
              "RETURN Result: 0xffffffff - Failed to CreateExtendedPresentation");
}

TEST_F(ConferenceMonitorTest, AHungServerCostsTheReplyTimeOut)
{
    m_server = std::make_unique<ScriptedLocalServer>(m_dir.File("VIRTUAL_MONITOR_SERVER"),
                                                     [](int, const Bytes&) {
                                                         ScriptedReply reply;
                                                         reply.silent = true;
                                                         return reply;
                                                     });
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(m_monitor.SendDestroyConference(), static_cast<int32_t>(0x80000000u));
    EXPECT_GE(timer.elapsed(), 4900);
    EXPECT_LT(timer.elapsed(), 8000);
    EXPECT_EQ(
        m_log->Messages(),
        (std::vector<std::string>{"IpcClient timed out waiting for reply",
                                  "RETURN Result: 0x80000000 - Unable to send IPC command",
                                  "RETURN Result: 0x80000000 - Failed to send DestroyConference"}));
}

TEST_F(ConferenceMonitorTest, StandaloneWithoutTheProgramStillListensAndSetsUpOnEachCallBack)
{
    m_monitor.SetVirtualDisplayProgram(
        QString::fromStdString(m_dir.File("VeloraneVirtualDisplay")));
    ASSERT_FALSE(QFileInfo::exists(m_monitor.VirtualDisplayProgram()));
    Serve();
    EXPECT_EQ(m_monitor.InitializeStandalone(0), static_cast<int32_t>(0x80000000u));
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{
                  "RETURN Result: 0x80000000 - Failed to start Velorane Virtual Dislay process"});
    EXPECT_TRUE(m_monitor.ServerListening());
    EXPECT_EQ(m_server->Connections(), 0);

    // The process calling back, twice.
    for (int callBack = 1; callBack <= 2; ++callBack) {
        RawLocalClient process(m_dir.File("CONFERENCE_SERVER"));
        ASSERT_TRUE(process.Connected());
        ASSERT_TRUE(WaitUntil([&] { return Requests().size() == 2u * callBack; }, 5s));
    }
    const auto requests = Requests();
    EXPECT_EQ(requests[0], HexBytes(kSetResolution1920));
    EXPECT_EQ(requests[1], HexBytes(kCreateConference));
    EXPECT_EQ(requests[2], HexBytes(kSetResolution1920));
    EXPECT_EQ(requests[3], HexBytes(kCreateConference));
    EXPECT_TRUE(m_monitor.ConferenceCreated());
}

// A display process that starts and never calls back: no conference is
// made, and the take-down later has nothing to do.
TEST_F(ConferenceMonitorTest, StandaloneProcessThatNeverCallsBackLeavesNothingToTakeDown)
{
    const std::string program = m_dir.File("VeloraneVirtualDisplay");
    ASSERT_TRUE(std::filesystem::copy_file("/bin/true", program));
    m_monitor.SetVirtualDisplayProgram(QString::fromStdString(program));
    Serve();
    EXPECT_EQ(m_monitor.InitializeStandalone(0), 0);
    ASSERT_EQ(m_log->Messages().size(), 1u);
    EXPECT_EQ(m_log->Messages()[0].rfind("RETURN Result: 0x0 - Velorane Virtual Display process "
                                         "started: pid=[",
                                         0),
              0u)
        << m_log->Messages()[0];
    PumpEventsFor(std::chrono::milliseconds(500));
    EXPECT_FALSE(m_monitor.ConferenceCreated());

    m_log->Clear();
    EXPECT_EQ(m_monitor.Terminate(), 0);
    EXPECT_EQ(m_log->Messages(),
              std::vector<std::string>{"RETURN Result: 0x0 - Terminate not needed"});
    EXPECT_TRUE(Requests().empty());
}

TEST_F(ConferenceMonitorTest, StandaloneFailsWhenItCantListen)
{
    // A socket path longer than a socket address can hold.
    const std::string deep = m_dir.File(std::string(60, 'd') + "/" + std::string(60, 'e'));
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(deep)));
    ScopedEnv tooLong("TMPDIR", deep);
    EXPECT_EQ(m_monitor.InitializeStandalone(0), static_cast<int32_t>(0x80000000u));
    const auto messages = m_log->Messages();
    ASSERT_EQ(messages.size(), 2u) << messages[0];
    EXPECT_EQ(messages[1], "RETURN Result: 0x80000000 - Failed to intialize IPC Server");
    EXPECT_FALSE(m_monitor.ServerListening());
}

} // namespace
} // namespace velorane::test
