#pragma once

// The relay's one top-level window. It decides where frames come from
// (pulled from the Kyr every 66 ms, or pushed by the client application),
// parses the frame payload, and will show the video on the virtual monitor.
//
// Threads: everything runs on the GUI thread but RenderNewFrame, which the
// decoder thread calls directly for each picture; it touches only the
// renderer's thread-safe entry points and the atomic m_closing.
//
// The window is placed on the virtual monitor that the ConferenceMonitor
// brings up: the DisplayManager, made by Initialize, watches the displays
// and calls back with that monitor's rectangle, and CalibrateWindow moves
// the window there once the monitor is found.

#include "Clients/Conference/IDisplayPlatform.h"
#include "Clients/Conference/RelayConfig.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Result.h"
#include "Common/VideoDecode/Src/IVideoDecoder.h"

#include <QByteArray>
#include <QRect>
#include <QSharedPointer>
#include <QWidget>

#include <atomic>
#include <memory>
#include <mutex>

class QTimer;
class QVBoxLayout;

namespace quorvan {
class VideoRenderer;
}

namespace quorvan::velorane::relay {

class ConferenceMonitor;
class DisplayManager;

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
    // The display platform of Initialize's DisplayManager comes from
    // makePlatform (the tests give a scripted one).
    RelayWindow(const RelayConfig& config, DisplayPlatformFactory makePlatform);
    ~RelayWindow() override;

    RESULT Initialize();
    RESULT Terminate();

    int32_t FrameSource() const { return m_frameSource; }
    ConferenceMonitor* Monitor() const { return m_conferenceMonitor; }
    QTimer* CalibrateTimer() const { return m_calibrateTimer; }
    const QRect& Dimensions() const { return m_dimensions; }
    bool MonitorLocked() const { return m_monitorLocked; }
    // Null until Initialize, and again after Terminate.
    DisplayManager* Displays() const { return m_displayManager.get(); }
    bool Closing() const { return m_closing.load(); }
    // The decoder in use, or null before the first frame.
    IVideoDecoder* Decoder() const { return m_videoDecoder.Get(); }
    VideoRenderer* Renderer() const { return m_videoRenderer; }
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
    // Called by the decoder thread for each picture.
    void RenderNewFrame(uint32_t width, uint32_t height, int* stride, uint8_t* yData,
                        uint8_t* uData, uint8_t* vData);
    void SetDimensions(int x, int y, int width, int height);
    void ReceiveRelayCommandResponse(RelayService service, RelayCommand command, QByteArray data);
    void ReceiveFrameFromClient(QSharedPointer<QByteArray> frame);
    void BeginRequestingFramesFromKyr();
    void BeginReceivingFramesFromClient();
    void CalibrateWindow();

private Q_SLOTS:
    void RequestNewFrame();

protected:
    bool event(QEvent* e) override;
    void moveEvent(QMoveEvent* e) override;
    void resizeEvent(QResizeEvent* e) override;

private:
    void ReceiveFrame(const QByteArray& data);
    // Takes the virtual display for this window alone, or gives it back.
    // Nothing sets m_lockRect, so this returns at its first test.
    void LockVirtualMonitor(bool lock);
    // The DisplayManager's configuration-done callback; context is the
    // window.
    static void OnDisplayConfigurationDone(void* context, int x, int y, int w, int h);

    RelayConfig m_config;
    QRect m_dimensions;
    QVBoxLayout* m_layout;
    ConferenceMonitor* m_conferenceMonitor;
    QTimer* m_frameTimer;
    QTimer* m_calibrateTimer;
    VideoRenderer* m_videoRenderer;
    CRefCountPtr<IVideoDecoder> m_videoDecoder;
    int32_t m_frameWidth = 0;
    int32_t m_frameHeight = 0;
    std::atomic<bool> m_closing{false};
    int32_t m_frameSource = FrameSourceNone;
    bool m_monitorLocked = false;
    std::recursive_mutex m_calibrateMutex;
    std::unique_ptr<DisplayManager> m_displayManager;
    QRect m_lockRect;
    DisplayPlatformFactory m_makeDisplayPlatform;
};

} // namespace quorvan::velorane::relay
