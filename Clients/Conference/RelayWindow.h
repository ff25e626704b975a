#pragma once

// The relay's one top-level window. It decides where frames come from
// (pulled from the Kyr every 66 ms, or pushed by the client application),
// parses the frame payload, and will show the video on the virtual monitor.
//
// Threads: everything runs on the GUI thread.
//
// Not here yet, each with its seam below: the video path (decoder and
// renderer), the virtual monitor (ConferenceMonitor, DisplayManager). Until
// they land a parsed frame goes no further than ReceiveFrame.

#include "Clients/Conference/RelayConfig.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Common/Platform/Src/Result.h"

#include <QByteArray>
#include <QRect>
#include <QSharedPointer>
#include <QWidget>

class QTimer;
class QVBoxLayout;

namespace quorvan::velorane::relay {

class RelayWindow : public QWidget
{
    Q_OBJECT

public:
    enum FrameSource : int32_t
    {
        FrameSourceNone = 0,
        FrameSourceClient = 1,
        FrameSourceKyr = 2,
    };

    static constexpr int kFrameIntervalMs = 66;
    static constexpr int kCalibrateIntervalMs = 2000;

    explicit RelayWindow(const RelayConfig& config);
    ~RelayWindow() override;

    RESULT Initialize();
    RESULT Terminate();

    int32_t FrameSource() const { return m_frameSource; }
    bool Closing() const { return m_closing; }
    int32_t FrameWidth() const { return m_frameWidth; }
    int32_t FrameHeight() const { return m_frameHeight; }

    // The number of the last frame seen, shared by both frame sources; -1
    // before the first.
    static int32_t& PreviousFrameNumber();

Q_SIGNALS:
    void SignalQuitApplication();
    void SignalDebugButtonPressed();
    void SignalSendRelayCommand(RelayCommandData commandData);

public Q_SLOTS:
    void ReceiveRelayCommandResponse(RelayService service, RelayCommand command, QByteArray data);
    void ReceiveFrameFromClient(QSharedPointer<QByteArray> frame);
    void BeginRequestingFramesFromKyr();
    void BeginReceivingFramesFromClient();

private Q_SLOTS:
    void RequestNewFrame();

protected:
    bool event(QEvent* e) override;
    void moveEvent(QMoveEvent* e) override;
    void resizeEvent(QResizeEvent* e) override;

private:
    void ReceiveFrame(const QByteArray& data);

    RelayConfig m_config;
    QRect m_dimensions;
    QVBoxLayout* m_layout;
    QTimer* m_frameTimer;
    QTimer* m_calibrateTimer;
    int32_t m_frameWidth = 0;
    int32_t m_frameHeight = 0;
    bool m_closing = false;
    int32_t m_frameSource = FrameSourceNone;
};

} // namespace quorvan::velorane::relay
