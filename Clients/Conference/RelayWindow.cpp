#include "Clients/Conference/RelayWindow.h"

#include "Clients/Conference/ConferenceMonitor.h"
#include "Clients/Conference/DisplayManager.h"
#include "Common/Logger/Src/Logger.h"
#include "Common/VideoDecode/Src/VideoFrame.h"
#include "Common/VideoDecode/Src/VideoRenderer.h"

#include <QDataStream>
#include <QEvent>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMoveEvent>
#include <QResizeEvent>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

namespace quorvan::velorane::relay {

namespace {
constexpr int kMinimumFramePayload = 9;
// Frame number and length come before the bitstream.
constexpr int kFramePayloadHeader = 8;
} // namespace

int32_t& RelayWindow::PreviousFrameNumber()
{
    static int32_t previousFrameNumber = -1;
    return previousFrameNumber;
}

RelayWindow::RelayWindow(const RelayConfig& config) : RelayWindow(config, CreateDisplayPlatform) {}

RelayWindow::RelayWindow(const RelayConfig& config, DisplayPlatformFactory makePlatform)
    : QWidget(nullptr), m_config(config), m_layout(new QVBoxLayout(this)),
      m_conferenceMonitor(new ConferenceMonitor(config.windowWidth, config.windowHeight, this)),
      m_frameTimer(new QTimer(this)), m_calibrateTimer(new QTimer(this)),
      m_videoRenderer(new VideoRenderer(static_cast<unsigned>(config.windowWidth),
                                        static_cast<unsigned>(config.windowHeight), this)),
      m_makeDisplayPlatform(std::move(makePlatform))
{
    if (m_config.useMonitor) {
        setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    }
    m_layout->addWidget(m_videoRenderer);
    m_layout->setContentsMargins(0, 0, 0, 0);
    setLayout(m_layout);
    setWindowTitle(QString::fromUtf8(m_config.windowName.c_str()));
    setFixedSize(m_config.windowWidth, m_config.windowHeight);

    connect(m_conferenceMonitor, &ConferenceMonitor::SignalUpdateRelayWindow, this,
            &RelayWindow::SetDimensions);

    m_frameTimer->setTimerType(Qt::PreciseTimer);
    m_frameTimer->setInterval(kFrameIntervalMs);
    connect(m_frameTimer, &QTimer::timeout, this, &RelayWindow::RequestNewFrame);

    // Nothing starts the calibrate timer: the window's place comes from the
    // display watch. The poll stays ready and Terminate stops it.
    m_calibrateTimer->setInterval(kCalibrateIntervalMs);
    connect(
        m_calibrateTimer, &QTimer::timeout, m_conferenceMonitor,
        [this]() { m_conferenceMonitor->SendRequestCalibrate(); }, Qt::DirectConnection);
}

// The decoder member goes before the renderer, a child widget: no picture
// can arrive once the renderer is being destroyed.
RelayWindow::~RelayWindow()
{
    m_closing = true;
    if (m_monitorLocked) {
        LockVirtualMonitor(false);
    }
}

RESULT RelayWindow::Initialize()
{
    if (m_config.useMonitor) {
        // The results aren't looked at: the window goes on without a
        // virtual monitor and simply finds none later.
        const auto windowId = static_cast<unsigned long long>(winId());
        if (m_config.standalone) {
            m_conferenceMonitor->InitializeStandalone(windowId);
        } else {
            m_conferenceMonitor->Initialize(windowId);
        }
        // The display watch: its stocked list is the arrangement as it
        // stands now; the virtual monitor's arrival, or any later change,
        // comes back through the callback.
        std::unique_ptr<IDisplayPlatform> platform;
        if (m_makeDisplayPlatform) {
            platform = m_makeDisplayPlatform();
        }
        if (!platform) {
            platform = CreateDisplayPlatform();
        }
        m_displayManager.reset();
        m_displayManager = std::make_unique<DisplayManager>(std::move(platform));
        m_displayManager->SetConfigurationDoneCB(&RelayWindow::OnDisplayConfigurationDone, this);
        m_displayManager->SetHook();
    } else {
        VLOG(EGroupValueWarning, "Skipping creation of virtual monitor!");
    }
    return VLOG_RESULT(EGroupValueSevere, Success);
}

RESULT RelayWindow::Terminate()
{
    // Work the watch still had scheduled goes with it.
    if (m_displayManager) {
        m_displayManager->RemoveHook();
        m_displayManager.reset();
    }
    m_frameTimer->stop();
    if (m_videoDecoder) {
        m_videoDecoder->Stop();
        m_videoDecoder->Terminate();
    }
    m_calibrateTimer->stop();
    m_conferenceMonitor->Terminate();
    return VLOG_RESULT(EGroupValueSevere, Success);
}

void RelayWindow::SetDimensions(int x, int y, int width, int height)
{
    const QRect rect(x, y, width, height);
    if (rect == m_dimensions) {
        return;
    }
    VLOG(EGroupValueInformation, "Setting dimensions: x=[%d] y=[%d] w=[%d] h=[%d]", x, y, width,
         height);
    m_dimensions = rect;
    CalibrateWindow();
}

void RelayWindow::OnDisplayConfigurationDone(void* context, int x, int y, int w, int h)
{
    auto* window = static_cast<RelayWindow*>(context);
    VLOG(EGroupValueInformation, "DisplayManager done: x=[%d] y=[%d] w=[%d] h=[%d]", x, y, w, h);
    window->SetDimensions(x, y, w, h);
}

// A missing monitor leaves the window where it is; the next new rectangle
// tries again.
void RelayWindow::CalibrateWindow()
{
    std::lock_guard<std::recursive_mutex> lock(m_calibrateMutex);
    // Before Initialize, or with -m, there is no display watch: no monitor.
    const unsigned virtualMonitor = m_displayManager ? m_displayManager->FindVM() : 0;
    if (virtualMonitor == 0) {
        VLOG(EGroupValueWarning, "Failed to find virtual monitor");
        return;
    }
    move(m_dimensions.topLeft());
    showMaximized();
    if (!m_monitorLocked) {
        LockVirtualMonitor(true);
    }
}

// Linux has no exclusive capture of a display: finding the one screen at
// the point is checked as elsewhere, and capture and release always succeed.
void RelayWindow::LockVirtualMonitor(bool lock)
{
    if (m_lockRect.width() <= 0) {
        return;
    }
    int matches = 0;
    for (const QScreen* screen : QGuiApplication::screens()) {
        if (screen->geometry().contains(m_lockRect.topLeft())) {
            ++matches;
        }
    }
    if (matches != 1) {
        VLOG(EGroupValueWarning, "Failed to call CGGetDisplaysWithPoint ret=0x%x ", 0);
        return;
    }
    if (lock && !m_monitorLocked) {
        m_monitorLocked = true;
        return;
    }
    if (!lock && !m_monitorLocked) {
        return;
    }
    m_monitorLocked = false;
}

void RelayWindow::BeginRequestingFramesFromKyr()
{
    if (m_frameSource == FrameSourceKyr) {
        return;
    }
    VLOG(EGroupValueInformation, "New relay frame source: Kyr");
    m_frameSource = FrameSourceKyr;

    const int32_t width = m_config.windowWidth;
    const int32_t height = m_config.windowHeight;
    Q_EMIT SignalSendRelayCommand(RelayCommandData(
        RelayServiceVideo, RelayCommandStartVideo, [width, height](QDataStream& stream) {
            stream << static_cast<qint32>(8) << static_cast<qint32>(width)
                   << static_cast<qint32>(height);
        }));
    m_frameTimer->start();
}

void RelayWindow::BeginReceivingFramesFromClient()
{
    if (m_frameSource == FrameSourceClient) {
        return;
    }
    VLOG(EGroupValueInformation, "New relay frame source: Client");
    m_frameSource = FrameSourceClient;
    m_frameTimer->stop();
    Q_EMIT SignalSendRelayCommand(RelayCommandData(RelayServiceVideo, RelayCommandStopVideo));
}

// One request per tick, whether or not the last one was answered.
void RelayWindow::RequestNewFrame()
{
    Q_EMIT SignalSendRelayCommand(RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame));
}

void RelayWindow::ReceiveRelayCommandResponse(RelayService service, RelayCommand command,
                                              QByteArray data)
{
    if (service != RelayServiceVideo) {
        return;
    }
    switch (command) {
    case RelayCommandStartVideo:
    case RelayCommandStopVideo:
        return;
    case RelayCommandRequestFrame:
        ReceiveFrame(data);
        return;
    default:
        VLOG(EGroupValueWarning, "Unexpected command: [0x%08x]", static_cast<unsigned>(command));
        return;
    }
}

void RelayWindow::ReceiveFrameFromClient(QSharedPointer<QByteArray> frame)
{
    BeginReceivingFramesFromClient();
    if (frame) {
        ReceiveFrame(*frame);
    }
}

void RelayWindow::ReceiveFrame(const QByteArray& data)
{
    if (data.size() < kMinimumFramePayload) {
        return;
    }
    QDataStream stream(data);
    stream.setByteOrder(QDataStream::LittleEndian);
    qint32 frameNumber = 0;
    qint32 length = 0;
    stream >> frameNumber >> length;

    int32_t& previous = PreviousFrameNumber();
    // Out-of-order frames are reported, never dropped. Frame numbers wrap
    // around at 32 bits: the one after INT32_MAX is INT32_MIN. The step back
    // is taken in unsigned arithmetic, where the wrap is defined.
    if (previous != -1 &&
        static_cast<uint32_t>(frameNumber) - 1u != static_cast<uint32_t>(previous)) {
        VLOG(EGroupValueWarning, "Frame out of order: previous=[%d] current=[%d]", previous,
             frameNumber);
    }
    previous = frameNumber;

    stream.skipRawData(length);
    qint32 width = 0;
    qint32 height = 0;
    if (!stream.atEnd()) {
        stream >> width >> height;
    }
    if (!m_videoDecoder || width != m_frameWidth || height != m_frameHeight) {
        // The old decoder's thread ends in its destructor, on this thread.
        m_videoDecoder.Reset();
        CreateVideoDecoder(&m_videoDecoder);
        using namespace std::placeholders;
        m_videoDecoder->Initialize(
            std::bind(&RelayWindow::RenderNewFrame, this, _1, _2, _3, _4, _5, _6),
            IVideoDecoder::CodecH264, IVideoDecoder::DecoderHardware);
        m_videoDecoder->Start();
    }
    m_frameWidth = width;
    m_frameHeight = height;

    auto frame = std::make_unique<VideoFrame>();
    frame->number = frameNumber;
    frame->wireNumber = frameNumber;
    frame->size = length;
    frame->wireSize = length;
    frame->width = static_cast<uint32_t>(width);
    frame->height = static_cast<uint32_t>(height);
    // The wire's length is not checked against the payload; the copy is
    // bounded by what arrived and by the frame's room, and a frame whose
    // length is over the limit is refused by the queue as before.
    const int64_t available = static_cast<int64_t>(data.size()) - kFramePayloadHeader;
    const int64_t copied =
        std::clamp<int64_t>(std::min<int64_t>(length, available), 0, kMaxFrameSize);
    std::memcpy(frame->data, data.constData() + kFramePayloadHeader, static_cast<size_t>(copied));
    if (length >= 0 && static_cast<uint32_t>(length) <= kMaxFrameSize) {
        std::memcpy(frame->data + length, &width, sizeof(width));
        std::memcpy(frame->data + length + sizeof(width), &height, sizeof(height));
    }
    m_videoDecoder->DeliverFrame(std::move(frame));
}

void RelayWindow::RenderNewFrame(uint32_t width, uint32_t height, int* stride, uint8_t* yData,
                                 uint8_t* uData, uint8_t* vData)
{
    if (m_closing) {
        return;
    }
    // Copies the planes and asks the GUI thread for a repaint: no widget
    // call is made from the decoder thread.
    m_videoRenderer->renderFrame(width, height, stride, yData, uData, vData);
    m_videoRenderer->requestRepaint();
}

bool RelayWindow::event(QEvent* e)
{
    if (e->type() == QEvent::Close || e->type() == QEvent::Quit) {
        e->accept();
        m_closing = true;
        Q_EMIT SignalQuitApplication();
    } else if (e->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(e)->key() == Qt::Key_A) {
        Q_EMIT SignalDebugButtonPressed();
    }
    return QWidget::event(e);
}

void RelayWindow::moveEvent(QMoveEvent* e)
{
    VLOG_BYPASS(EGroupValueInformation, 0, "MOVED: [%d,%d]", e->pos().x(), e->pos().y());
}

void RelayWindow::resizeEvent(QResizeEvent* e)
{
    VLOG_BYPASS(EGroupValueInformation, 0, "SIZED: [%d,%d]", e->size().width(), e->size().height());
}

} // namespace quorvan::velorane::relay
