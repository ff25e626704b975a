// The relay window under the offscreen platform: where frames come from,
// what it makes of relay responses and frame payloads, what it hands to its
// decoder and, given a display, to its renderer, and its events.

#include "Clients/Conference/RelayConfig.h"
#include "Clients/Conference/RelayWindow.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Common/VideoDecode/Src/FrameQueue.h"
#include "Common/VideoDecode/Src/HardwareProbe.h"
#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Common/VideoDecode/Src/VideoFrame.h"
#include "Common/VideoDecode/Src/VideoRenderer.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"
#include "Tests/VideoDecode/VideoRendererTestSupport.h"

#include <QByteArray>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDataStream>
#include <QElapsedTimer>
#include <QImage>
#include <QKeyEvent>
#include <QMoveEvent>
#include <QResizeEvent>
#include <QSharedPointer>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::EGroupValueWarning;
using quorvan::FrameQueue;
using quorvan::FrameQueueEmpty;
using quorvan::FrameQueueOk;
using quorvan::HardwareProbe;
using quorvan::VideoDecoder;
using quorvan::VideoFrame;
using quorvan::VideoRenderer;
using quorvan::velorane::RelayCommandRequestAudio;
using quorvan::velorane::RelayCommandRequestFrame;
using quorvan::velorane::RelayCommandStartVideo;
using quorvan::velorane::RelayCommandStopVideo;
using quorvan::velorane::RelayServiceAudio;
using quorvan::velorane::RelayServiceVideo;
using quorvan::velorane::relay::RelayConfig;
using quorvan::velorane::relay::RelayWindow;
using namespace std::chrono_literals;
using Access = quorvan::VideoDecoderTestAccess;

const std::string kTryHardware = "VideoDecoder: trying to initialize hardware decoder";
const std::string kEnter = "VideoDecoder: enter decoding thread";
const std::string kExit = "VideoDecoder: exit decoding thread";

// A frame payload: number and length, little-endian, the bitstream, and the
// picture size when withSize is set.
QByteArray FramePayload(int32_t number, const QByteArray& bitstream, bool withSize = false,
                        int32_t width = 0, int32_t height = 0)
{
    QByteArray payload;
    QDataStream stream(&payload, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << static_cast<qint32>(number) << static_cast<qint32>(bitstream.size());
    stream.writeRawData(bitstream.constData(), bitstream.size());
    if (withSize) {
        stream << static_cast<qint32>(width) << static_cast<qint32>(height);
    }
    return payload;
}

const QByteArray kBitstream("\x00\x00\x00\x01\x67\x42", 6);

class UnitRelayWindowTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { UnitQtApplication(); }

    void SetUp() override { RelayWindow::PreviousFrameNumber() = -1; }

    // Builds the window and records every command it emits.
    void MakeWindow(const RelayConfig& config = RelayConfig())
    {
        m_window = std::make_unique<RelayWindow>(config);
        QObject::connect(m_window.get(), &RelayWindow::SignalSendRelayCommand, m_window.get(),
                         [this](RelayCommandData data) { m_commands.push_back(data); });
    }

    size_t CountCommands(RelayCommand command) const
    {
        size_t count = 0;
        for (const auto& data : m_commands) {
            count += (data.service == RelayServiceVideo && data.command == command) ? 1 : 0;
        }
        return count;
    }

    void Deliver(const QByteArray& payload)
    {
        m_window->ReceiveRelayCommandResponse(RelayServiceVideo, RelayCommandRequestFrame, payload);
    }

    // What the window itself logged, without the lines of the video
    // decoder that the frames bring up.
    std::vector<std::string> WindowMessages()
    {
        std::vector<std::string> messages;
        for (const auto& line : m_capture->Lines()) {
            if (line.file == "Clients/Conference/RelayWindow") {
                messages.push_back(line.message);
            }
        }
        return messages;
    }

    // Index of the n-th captured message equal to text (n from 0), or -1.
    long IndexOfMessage(const std::string& text, int n = 0)
    {
        const std::vector<std::string> messages = m_capture->Messages();
        for (size_t i = 0; i < messages.size(); ++i) {
            if (messages[i] == text && n-- == 0) {
                return static_cast<long>(i);
            }
        }
        return -1;
    }

    // Each test logs into a fresh logger, made before the capture joins it,
    // so that the rate limits of the GUI thread's sites (every decoder the
    // window makes logs from the same ones) start over.
    struct FreshLogger
    {
        FreshLogger() { quorvan::ReleaseLoggerInstance(); }
    } m_freshLogger;
    ScopedLogCapture m_capture;
    std::unique_ptr<RelayWindow> m_window;
    std::vector<RelayCommandData> m_commands;
};

// Frame sources

TEST_F(UnitRelayWindowTest, KyrSourceSendsStartVideoOnceAndPullsEvery66Ms)
{
    MakeWindow();
    EXPECT_EQ(m_window->FrameSource(), RelayWindow::FrameSourceNone);

    m_window->BeginRequestingFramesFromKyr();

    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "New relay frame source: Kyr"));
    EXPECT_EQ(m_window->FrameSource(), RelayWindow::FrameSourceKyr);
    ASSERT_EQ(m_commands.size(), 1u);
    EXPECT_EQ(m_commands[0].service, RelayServiceVideo);
    EXPECT_EQ(m_commands[0].command, RelayCommandStartVideo);

    // About 15 requests in a second, one per tick, none answered.
    PumpEventsFor(1000ms);
    const size_t requests = CountCommands(RelayCommandRequestFrame);
    EXPECT_GE(requests, 8u);
    EXPECT_LE(requests, 25u);
    EXPECT_EQ(CountCommands(RelayCommandStartVideo), 1u);
    EXPECT_EQ(m_commands.size(), requests + 1);
}

TEST_F(UnitRelayWindowTest, SecondKyrRequestDoesNothing)
{
    MakeWindow();
    m_window->BeginRequestingFramesFromKyr();
    const size_t before = m_commands.size();

    m_window->BeginRequestingFramesFromKyr();

    EXPECT_EQ(m_commands.size(), before);
    EXPECT_EQ(CountCommands(RelayCommandStartVideo), 1u);
    EXPECT_EQ(m_capture->Count("New relay frame source: Kyr"), 1u);
    EXPECT_EQ(m_window->FrameSource(), RelayWindow::FrameSourceKyr);
}

TEST_F(UnitRelayWindowTest, ClientFrameDuringPullStopsTheTimerAndSendsStopOnce)
{
    MakeWindow();
    m_window->BeginRequestingFramesFromKyr();
    ASSERT_TRUE(WaitUntil([this] { return CountCommands(RelayCommandRequestFrame) >= 1; }, 5s));

    m_commands.clear();
    m_window->ReceiveFrameFromClient(
        QSharedPointer<QByteArray>::create(FramePayload(1, kBitstream)));

    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "New relay frame source: Client"));
    EXPECT_EQ(m_window->FrameSource(), RelayWindow::FrameSourceClient);
    ASSERT_EQ(m_commands.size(), 1u);
    EXPECT_EQ(m_commands[0].service, RelayServiceVideo);
    EXPECT_EQ(m_commands[0].command, RelayCommandStopVideo);
    // The frame itself was taken.
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 1);

    // The pull has ended: five intervals without a request.
    PumpEventsFor(std::chrono::milliseconds(5 * RelayWindow::kFrameIntervalMs));
    EXPECT_EQ(CountCommands(RelayCommandRequestFrame), 0u);

    // A second client frame emits nothing more.
    m_window->ReceiveFrameFromClient(
        QSharedPointer<QByteArray>::create(FramePayload(2, kBitstream)));
    EXPECT_EQ(m_commands.size(), 1u);
    EXPECT_EQ(m_capture->Count("New relay frame source: Client"), 1u);
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 2);
}

TEST_F(UnitRelayWindowTest, BackToKyrAfterClientStartsAgain)
{
    MakeWindow();
    m_window->BeginReceivingFramesFromClient();
    ASSERT_EQ(m_commands.size(), 1u);
    EXPECT_EQ(m_commands[0].command, RelayCommandStopVideo);
    m_window->BeginReceivingFramesFromClient();
    EXPECT_EQ(m_commands.size(), 1u);

    m_window->BeginRequestingFramesFromKyr();

    EXPECT_EQ(m_window->FrameSource(), RelayWindow::FrameSourceKyr);
    EXPECT_EQ(CountCommands(RelayCommandStartVideo), 1u);
    EXPECT_TRUE(WaitUntil([this] { return CountCommands(RelayCommandRequestFrame) >= 1; }, 5s));
}

// Relay responses

TEST_F(UnitRelayWindowTest, AudioResponsesAreIgnoredSilently)
{
    MakeWindow();

    m_window->ReceiveRelayCommandResponse(RelayServiceAudio, RelayCommandRequestFrame,
                                          FramePayload(5, kBitstream, true, 640, 360));
    m_window->ReceiveRelayCommandResponse(RelayServiceAudio, RelayCommandRequestAudio,
                                          QByteArray(16, '\x01'));

    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), -1);
    EXPECT_EQ(m_window->FrameWidth(), 0);
    EXPECT_EQ(WindowMessages(), std::vector<std::string>());
    EXPECT_TRUE(m_commands.empty());
}

TEST_F(UnitRelayWindowTest, StartAndStopResponsesAreIgnoredSilently)
{
    MakeWindow();

    m_window->ReceiveRelayCommandResponse(RelayServiceVideo, RelayCommandStartVideo,
                                          FramePayload(5, kBitstream, true, 640, 360));
    m_window->ReceiveRelayCommandResponse(RelayServiceVideo, RelayCommandStopVideo,
                                          FramePayload(6, kBitstream, true, 640, 360));

    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), -1);
    EXPECT_EQ(m_window->FrameWidth(), 0);
    EXPECT_EQ(WindowMessages(), std::vector<std::string>());
    EXPECT_TRUE(m_commands.empty());
}

TEST_F(UnitRelayWindowTest, UnknownVideoCommandIsLogged)
{
    MakeWindow();

    m_window->ReceiveRelayCommandResponse(RelayServiceVideo, static_cast<RelayCommand>(0xabcd),
                                          FramePayload(5, kBitstream));

    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Unexpected command: [0x0000abcd]"));
    EXPECT_EQ(WindowMessages().size(), 1u);
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), -1);
}

// Frames

TEST_F(UnitRelayWindowTest, FirstFrameLogsNothingWhateverItsNumber)
{
    MakeWindow();

    Deliver(FramePayload(1234, kBitstream));

    EXPECT_EQ(WindowMessages(), std::vector<std::string>());
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 1234);
}

// Takes every frame out of a stopped decoder's queue and gives the tokens back.
void DrainQueue(FrameQueue& queue)
{
    std::unique_ptr<VideoFrame> frame;
    while (queue.PopFrame(frame) == FrameQueueOk) {
        queue.ReleaseFrame(std::move(frame));
    }
}

// The queue of a stopped decoder holds exactly one frame, the one the
// window built from this payload: header values, the bitstream, and the
// picture size behind it.
void ExpectOnlyQueuedFrame(FrameQueue& queue, int32_t number, const QByteArray& bitstream,
                           int32_t width, int32_t height)
{
    std::unique_ptr<VideoFrame> frame;
    ASSERT_EQ(queue.PopFrame(frame), FrameQueueOk);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->number, number);
    EXPECT_EQ(frame->wireNumber, number);
    EXPECT_EQ(frame->size, bitstream.size());
    EXPECT_EQ(frame->wireSize, bitstream.size());
    EXPECT_EQ(frame->width, static_cast<uint32_t>(width));
    EXPECT_EQ(frame->height, static_cast<uint32_t>(height));
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(frame->data), bitstream.size()), bitstream);
    int32_t trailing[2] = {-1, -1};
    std::memcpy(trailing, frame->data + bitstream.size(), sizeof(trailing));
    EXPECT_EQ(trailing[0], width);
    EXPECT_EQ(trailing[1], height);
    queue.ReleaseFrame(std::move(frame));

    std::unique_ptr<VideoFrame> none;
    EXPECT_EQ(queue.PopFrame(none), FrameQueueEmpty);
}

TEST_F(UnitRelayWindowTest, FrameNumberGapLogsOnceAndTheFrameIsTaken)
{
    MakeWindow();
    Deliver(FramePayload(7, kBitstream, true, 800, 600));
    ASSERT_EQ(WindowMessages(), std::vector<std::string>());

    // With the decoder's thread stopped, what the window hands over stays in
    // the decoder's queue to be looked at.
    auto* decoder = dynamic_cast<VideoDecoder*>(m_window->Decoder());
    ASSERT_NE(decoder, nullptr);
    decoder->Stop();
    FrameQueue& queue = Access::Queue(*decoder);
    DrainQueue(queue); // frame 7, unless the thread took it first

    Deliver(FramePayload(9, kBitstream, true, 800, 600));

    ASSERT_EQ(WindowMessages().size(), 1u);
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueWarning, "Frame out of order: previous=[7] current=[9]"));
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 9);
    EXPECT_EQ(m_window->FrameWidth(), 800);
    EXPECT_EQ(m_window->FrameHeight(), 600);
    // The frame went to the same decoder, whole.
    ASSERT_EQ(m_window->Decoder(), decoder);
    ExpectOnlyQueuedFrame(queue, 9, kBitstream, 800, 600);

    // The next in sequence logs nothing more and is handed over as well.
    const QByteArray next("\x00\x00\x00\x01\x65\x88\x84\x21", 8);
    Deliver(FramePayload(10, next, true, 800, 600));
    EXPECT_EQ(WindowMessages().size(), 1u);
    ASSERT_EQ(m_window->Decoder(), decoder);
    ExpectOnlyQueuedFrame(queue, 10, next, 800, 600);
}

TEST_F(UnitRelayWindowTest, SkippedFrameNumberLogsOnce)
{
    MakeWindow();
    Deliver(FramePayload(7, kBitstream));

    Deliver(FramePayload(9, kBitstream));

    EXPECT_EQ(WindowMessages(),
              std::vector<std::string>{"Frame out of order: previous=[7] current=[9]"});
    EXPECT_TRUE(
        m_capture->Contains(EGroupValueWarning, "Frame out of order: previous=[7] current=[9]"));
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 9);
}

TEST_F(UnitRelayWindowTest, FrameNumbersWrapAroundAt32Bits)
{
    constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
    constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
    MakeWindow();
    Deliver(FramePayload(kMax, kBitstream));

    // INT32_MIN follows INT32_MAX.
    Deliver(FramePayload(kMin, kBitstream));
    Deliver(FramePayload(kMin + 1, kBitstream));

    EXPECT_EQ(WindowMessages(), std::vector<std::string>());
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), kMin + 1);

    // The other way round is a jump back.
    Deliver(FramePayload(kMax, kBitstream));
    EXPECT_EQ(WindowMessages(),
              std::vector<std::string>{
                  "Frame out of order: previous=[-2147483647] current=[2147483647]"});
}

TEST_F(UnitRelayWindowTest, PayloadBelowNineBytesIsIgnored)
{
    MakeWindow();
    Deliver(FramePayload(5, kBitstream, true, 640, 360));

    QByteArray shortPayload = FramePayload(100, QByteArray());
    ASSERT_EQ(shortPayload.size(), 8);
    Deliver(shortPayload);

    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 5);
    EXPECT_EQ(m_window->FrameWidth(), 640);
    EXPECT_EQ(m_window->FrameHeight(), 360);
    EXPECT_EQ(WindowMessages(), std::vector<std::string>());

    // Nine bytes are a frame.
    const QByteArray nine = FramePayload(6, QByteArray(1, '\x65'));
    ASSERT_EQ(nine.size(), 9);
    Deliver(nine);
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 6);
    EXPECT_EQ(m_window->FrameWidth(), 0);
    EXPECT_EQ(WindowMessages(), std::vector<std::string>());
}

TEST_F(UnitRelayWindowTest, TrailingSizeSetsThePictureSize)
{
    MakeWindow();

    Deliver(FramePayload(1, kBitstream, true, 1920, 1080));

    EXPECT_EQ(m_window->FrameWidth(), 1920);
    EXPECT_EQ(m_window->FrameHeight(), 1080);
}

TEST_F(UnitRelayWindowTest, FrameWithoutTrailingSizeLeavesZero)
{
    MakeWindow();
    ASSERT_EQ(m_window->Decoder(), nullptr);

    Deliver(FramePayload(1, kBitstream));

    // The first frame ever brings the decoder up, though it carries no size.
    EXPECT_NE(m_window->Decoder(), nullptr);
    EXPECT_EQ(m_capture->Count(kTryHardware), 1u);
    EXPECT_TRUE(m_capture->WaitFor(kEnter, 5s));
    EXPECT_EQ(m_window->FrameWidth(), 0);
    EXPECT_EQ(m_window->FrameHeight(), 0);

    // After a sized frame, one without a size counts as 0 by 0 again.
    Deliver(FramePayload(2, kBitstream, true, 1280, 720));
    Deliver(FramePayload(3, kBitstream));
    EXPECT_EQ(m_window->FrameWidth(), 0);
    EXPECT_EQ(m_window->FrameHeight(), 0);
    EXPECT_NE(m_window->Decoder(), nullptr);
}

TEST_F(UnitRelayWindowTest, FrameOfAnotherSizeReplacesTheDecoder)
{
    MakeWindow();
    Deliver(FramePayload(1, kBitstream, true, 640, 360));
    auto* first = dynamic_cast<VideoDecoder*>(m_window->Decoder());
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(m_capture->WaitFor(kEnter, 5s));
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, kTryHardware));
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, kEnter));

    // From here on the first decoder counts its walks over the device types:
    // initialised again, it would walk them again.
    int firstDecoderWalks = 0;
    HardwareProbe countingProbe;
    countingProbe.iterateTypes = [&firstDecoderWalks](AVHWDeviceType previous) {
        ++firstDecoderWalks;
        return av_hwdevice_iterate_types(previous);
    };
    Access::SetProbe(*first, countingProbe);

    // The same size keeps the decoder.
    Deliver(FramePayload(2, kBitstream, true, 640, 360));
    EXPECT_EQ(m_window->Decoder(), first);
    EXPECT_EQ(m_capture->Count(kTryHardware), 1u);
    EXPECT_EQ(m_capture->Count(kExit), 0u);

    Deliver(FramePayload(3, kBitstream, true, 1280, 720));

    EXPECT_EQ(m_window->FrameWidth(), 1280);
    EXPECT_EQ(m_window->FrameHeight(), 720);
    ASSERT_NE(m_window->Decoder(), nullptr);
    // A new decoder probed the hardware; the first one was not used again.
    EXPECT_EQ(m_capture->Count(kTryHardware), 2u);
    EXPECT_EQ(firstDecoderWalks, 0);
    // The first decoder's thread ended before the new decoder was set up.
    EXPECT_EQ(m_capture->Count(kExit), 1u);
    const long firstEnter = IndexOfMessage(kEnter);
    const long firstExit = IndexOfMessage(kExit);
    const long secondTry = IndexOfMessage(kTryHardware, 1);
    ASSERT_GE(firstEnter, 0);
    ASSERT_GE(firstExit, 0);
    ASSERT_GE(secondTry, 0);
    EXPECT_LT(IndexOfMessage(kTryHardware, 0), firstEnter);
    EXPECT_LT(firstEnter, firstExit);
    EXPECT_LT(firstExit, secondTry);
    // And the new decoder's thread runs.
    EXPECT_TRUE(WaitUntil([this] { return m_capture->Count(kEnter) == 2; }, 5s));
    EXPECT_EQ(m_capture->Count(kExit), 1u);
}

TEST_F(UnitRelayWindowTest, LengthBeyondThePayloadLeavesSizeZero)
{
    MakeWindow();
    QByteArray payload;
    QDataStream stream(&payload, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << qint32(4) << qint32(1000);                  // number 4, length 1000
    stream << qint32(1920) << qint32(1080) << qint32(77); // 12 bytes only
    ASSERT_EQ(payload.size(), 20);

    Deliver(payload);

    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 4);
    EXPECT_EQ(m_window->FrameWidth(), 0);
    EXPECT_EQ(m_window->FrameHeight(), 0);
    EXPECT_EQ(WindowMessages(), std::vector<std::string>());
}

TEST_F(UnitRelayWindowTest, ClientFramesShareTheFrameNumberWithKyrFrames)
{
    MakeWindow();
    Deliver(FramePayload(20, kBitstream));

    m_window->ReceiveFrameFromClient(
        QSharedPointer<QByteArray>::create(FramePayload(3, kBitstream)));

    EXPECT_TRUE(
        m_capture->Contains(EGroupValueWarning, "Frame out of order: previous=[20] current=[3]"));
    EXPECT_EQ(RelayWindow::PreviousFrameNumber(), 3);
}

// Events

TEST_F(UnitRelayWindowTest, CloseSetsClosingBeforeTheQuitSignal)
{
    MakeWindow();
    int quits = 0;
    bool closingAtSignal = false;
    QObject::connect(m_window.get(), &RelayWindow::SignalQuitApplication, m_window.get(), [&] {
        ++quits;
        closingAtSignal = m_window->Closing();
    });
    ASSERT_FALSE(m_window->Closing());

    QCloseEvent close;
    QCoreApplication::sendEvent(m_window.get(), &close);

    EXPECT_EQ(quits, 1);
    EXPECT_TRUE(closingAtSignal);
    EXPECT_TRUE(m_window->Closing());
    EXPECT_TRUE(close.isAccepted());
}

TEST_F(UnitRelayWindowTest, QuitEventAlsoClosesTheRelay)
{
    MakeWindow();
    int quits = 0;
    QObject::connect(m_window.get(), &RelayWindow::SignalQuitApplication, m_window.get(),
                     [&] { ++quits; });

    QEvent quit(QEvent::Quit);
    QCoreApplication::sendEvent(m_window.get(), &quit);

    EXPECT_EQ(quits, 1);
    EXPECT_TRUE(m_window->Closing());
}

// Counts the queued calls an object receives, such as the renderer's
// repaint requests.
class QueuedCallCounter : public QObject
{
public:
    std::atomic<int> calls{0};

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::MetaCall) {
            ++calls;
        }
        return QObject::eventFilter(watched, event);
    }
};

// Calls RenderNewFrame with the picture on a thread of its own, as the
// decoder does.
void RenderFromAnotherThread(RelayWindow& window, TestPicture& picture)
{
    std::thread decoderThread([&] {
        window.RenderNewFrame(picture.width, picture.height, picture.stride, picture.y.data(),
                              picture.u.data(), picture.V());
    });
    decoderThread.join();
}

TEST_F(UnitRelayWindowTest, PictureAfterTheCloseRequestLeavesTheRendererAlone)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        GTEST_SKIP() << "painting the renderer needs an X display with OpenGL";
    }
    RelayConfig config;
    config.windowWidth = 64;
    config.windowHeight = 48;
    MakeWindow(config);
    m_window->show();
    VideoRenderer* renderer = m_window->Renderer();
    ASSERT_NE(renderer, nullptr);
    ASSERT_TRUE(WaitUntil([renderer] { return renderer->isValid(); }));
    QueuedCallCounter repaints;
    renderer->installEventFilter(&repaints);
    const std::vector<QPoint> points = {QPoint(2, 2), QPoint(61, 2), QPoint(32, 24), QPoint(2, 45),
                                        QPoint(61, 45)};

    // Before the request a picture is copied and a repaint asked for.
    TestPicture red = MakeUniformPicture(64, 48, false, kRed);
    RenderFromAnotherThread(*m_window, red);
    ASSERT_TRUE(WaitUntil([&repaints] { return repaints.calls.load() >= 1; }));
    const QImage before = renderer->grabFramebuffer();
    ASSERT_FALSE(before.isNull());
    for (const QPoint& point : points) {
        ASSERT_TRUE(ColorNear(before.pixelColor(point), ExpectedColor(kRed)))
            << point.x() << "," << point.y();
    }

    QCloseEvent close;
    QCoreApplication::sendEvent(m_window.get(), &close);
    ASSERT_TRUE(m_window->Closing());
    PumpEventsFor(50ms);
    repaints.calls = 0;

    // After it, a picture is neither copied nor followed by a repaint.
    TestPicture blue = MakeUniformPicture(64, 48, false, kBlue);
    RenderFromAnotherThread(*m_window, blue);
    PumpEventsFor(200ms);
    EXPECT_EQ(repaints.calls.load(), 0);
    // A paint takes the newest copied picture, which is still the red one.
    const QImage after = renderer->grabFramebuffer();
    ASSERT_FALSE(after.isNull());
    for (const QPoint& point : points) {
        EXPECT_TRUE(ColorNear(after.pixelColor(point), ExpectedColor(kRed)))
            << point.x() << "," << point.y();
    }
    renderer->removeEventFilter(&repaints);
}

TEST_F(UnitRelayWindowTest, KeyAEmitsTheDebugSignalOnly)
{
    MakeWindow();
    int debugs = 0;
    int quits = 0;
    QObject::connect(m_window.get(), &RelayWindow::SignalDebugButtonPressed, m_window.get(),
                     [&] { ++debugs; });
    QObject::connect(m_window.get(), &RelayWindow::SignalQuitApplication, m_window.get(),
                     [&] { ++quits; });

    QKeyEvent keyA(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier, "a");
    QCoreApplication::sendEvent(m_window.get(), &keyA);
    EXPECT_EQ(debugs, 1);

    QKeyEvent keyB(QEvent::KeyPress, Qt::Key_B, Qt::NoModifier, "b");
    QCoreApplication::sendEvent(m_window.get(), &keyB);
    QKeyEvent releaseA(QEvent::KeyRelease, Qt::Key_A, Qt::NoModifier, "a");
    QCoreApplication::sendEvent(m_window.get(), &releaseA);

    EXPECT_EQ(debugs, 1);
    EXPECT_EQ(quits, 0);
    EXPECT_FALSE(m_window->Closing());
    EXPECT_TRUE(m_commands.empty());
}

TEST_F(UnitRelayWindowTest, MoveAndResizeAreLogged)
{
    MakeWindow();

    QMoveEvent move(QPoint(37, -12), QPoint(0, 0));
    QCoreApplication::sendEvent(m_window.get(), &move);
    QResizeEvent resize(QSize(640, 480), QSize(1280, 720));
    QCoreApplication::sendEvent(m_window.get(), &resize);

    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "MOVED: [37,-12]"));
    EXPECT_TRUE(m_capture->Contains(EGroupValueInformation, "SIZED: [640,480]"));
    EXPECT_EQ(m_capture->Count("MOVED: [37,-12]"), 1u);
    EXPECT_EQ(m_capture->Count("SIZED: [640,480]"), 1u);
}

TEST_F(UnitRelayWindowTest, MoveLinesAreNotRateLimited)
{
    MakeWindow();

    for (int i = 0; i < 12; ++i) {
        QMoveEvent move(QPoint(i, 2 * i), QPoint(0, 0));
        QCoreApplication::sendEvent(m_window.get(), &move);
    }

    EXPECT_EQ(WindowMessages().size(), 12u);
    EXPECT_EQ(m_capture->Count("MOVED: [11,22]"), 1u);
}

// Set-up

TEST_F(UnitRelayWindowTest, InitializeWithoutMonitorLogsTheSkip)
{
    RelayConfig config;
    config.useMonitor = false;
    MakeWindow(config);

    EXPECT_EQ(m_window->Initialize(), 0);

    EXPECT_TRUE(m_capture->Contains(EGroupValueWarning, "Skipping creation of virtual monitor!"));
}

TEST_F(UnitRelayWindowTest, MonitorWindowIsFramelessAndStaysOnTop)
{
    MakeWindow();

    const Qt::WindowFlags flags = m_window->windowFlags();
    EXPECT_TRUE(flags.testFlag(Qt::FramelessWindowHint));
    EXPECT_TRUE(flags.testFlag(Qt::WindowStaysOnTopHint));
}

TEST_F(UnitRelayWindowTest, WindowWithoutMonitorKeepsDefaultFlags)
{
    RelayConfig config;
    config.useMonitor = false;
    MakeWindow(config);

    const Qt::WindowFlags flags = m_window->windowFlags();
    EXPECT_FALSE(flags.testFlag(Qt::FramelessWindowHint));
    EXPECT_FALSE(flags.testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_EQ(flags, QWidget().windowFlags());
}

TEST_F(UnitRelayWindowTest, TitleAndFixedSizeComeFromTheConfiguration)
{
    RelayConfig config;
    config.windowName = "Salle Zürich";
    config.windowWidth = 1024;
    config.windowHeight = 576;
    MakeWindow(config);

    EXPECT_EQ(m_window->windowTitle(), QString::fromUtf8("Salle Zürich"));
    EXPECT_EQ(m_window->minimumSize(), QSize(1024, 576));
    EXPECT_EQ(m_window->maximumSize(), QSize(1024, 576));
    EXPECT_EQ(m_window->size(), QSize(1024, 576));
}

TEST_F(UnitRelayWindowTest, TerminateStopsThePull)
{
    MakeWindow();
    m_window->BeginRequestingFramesFromKyr();
    ASSERT_TRUE(WaitUntil([this] { return CountCommands(RelayCommandRequestFrame) >= 1; }, 5s));

    EXPECT_EQ(m_window->Terminate(), 0);
    m_commands.clear();

    PumpEventsFor(std::chrono::milliseconds(5 * RelayWindow::kFrameIntervalMs));
    EXPECT_TRUE(m_commands.empty());
}

} // namespace
} // namespace velorane::test
