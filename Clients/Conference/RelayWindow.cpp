#include "Clients/Conference/RelayWindow.h"

#include "Common/Logger/Src/Logger.h"

#include <QDataStream>
#include <QEvent>
#include <QKeyEvent>
#include <QMoveEvent>
#include <QResizeEvent>
#include <QTimer>
#include <QVBoxLayout>

namespace quorvan::velorane::relay {

namespace {
constexpr int kMinimumFramePayload = 9;
}

int32_t& RelayWindow::PreviousFrameNumber()
{
    static int32_t previousFrameNumber = -1;
    return previousFrameNumber;
}

RelayWindow::RelayWindow(const RelayConfig& config)
    : QWidget(nullptr), m_config(config), m_layout(new QVBoxLayout(this)),
      m_frameTimer(new QTimer(this)), m_calibrateTimer(new QTimer(this))
{
    if (m_config.useMonitor) {
        setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    }
    m_layout->setContentsMargins(0, 0, 0, 0);
    setLayout(m_layout);
    setWindowTitle(QString::fromUtf8(m_config.windowName.c_str()));
    setFixedSize(m_config.windowWidth, m_config.windowHeight);

    m_frameTimer->setTimerType(Qt::PreciseTimer);
    m_frameTimer->setInterval(kFrameIntervalMs);
    connect(m_frameTimer, &QTimer::timeout, this, &RelayWindow::RequestNewFrame);

    // Nothing starts the calibrate timer; it is kept for the virtual
    // monitor's calibration request and stopped by Terminate.
    m_calibrateTimer->setInterval(kCalibrateIntervalMs);
}

RelayWindow::~RelayWindow() { m_closing = true; }

RESULT RelayWindow::Initialize()
{
    if (m_config.useMonitor) {
        // The virtual monitor joins here: ConferenceMonitor::Initialize (or
        // InitializeStandalone) with winId(), then the DisplayManager.
    } else {
        VLOG(EGroupValueWarning, "Skipping creation of virtual monitor!");
    }
    return VLOG_RESULT(EGroupValueSevere, Success);
}

RESULT RelayWindow::Terminate()
{
    m_frameTimer->stop();
    // The video decoder is stopped here once the video path lands.
    m_calibrateTimer->stop();
    return VLOG_RESULT(EGroupValueSevere, Success);
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
    // Out-of-order frames are reported, never dropped.
    if (previous != -1 && static_cast<int64_t>(frameNumber) - 1 != previous) {
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
    // The decoder is rebuilt here on a size change, and the bitstream is
    // handed to it, once the video path lands.
    m_frameWidth = width;
    m_frameHeight = height;
}

bool RelayWindow::event(QEvent* e)
{
    if (e->type() == QEvent::Close || e->type() == QEvent::Quit) {
        e->accept();
        m_closing = true;
        Q_EMIT SignalQuitApplication();
    } else if (e->type() == QEvent::KeyPress &&
               static_cast<QKeyEvent*>(e)->key() == Qt::Key_A) {
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
    VLOG_BYPASS(EGroupValueInformation, 0, "SIZED: [%d,%d]", e->size().width(),
                e->size().height());
}

} // namespace quorvan::velorane::relay
