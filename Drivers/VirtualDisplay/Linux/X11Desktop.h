#pragma once

// The desktop of an X11 server through XRandR 1.5: its RandR monitors, the
// screen's size and the sizes the server allows it.
//
// One connection stays open for the program's life: an X server started
// without -noreset drops every monitor when its last client leaves, and the
// virtual monitor must last as long as the program does. A connection that
// breaks (the server ended or was killed) is told once, through
// SignalConnectionLost from the event loop; every call fails after that.
//
// Threads: the main thread only. Xlib's error handlers are process-wide, so
// one instance may exist at a time.

#include "Drivers/VirtualDisplay/IDesktop.h"

#include <QObject>

#include <functional>
#include <memory>
#include <string>

class QSocketNotifier;
struct _XDisplay;

namespace quorvan::velorane::virtualdisplay {

class X11Desktop : public QObject, public IDesktop
{
    Q_OBJECT

public:
    // Opens the display that $DISPLAY names. Null, with the reason in
    // error, when there is none or it has no RandR 1.5.
    static std::unique_ptr<X11Desktop> Open(std::string* error);
    ~X11Desktop() override;
    X11Desktop(const X11Desktop&) = delete;
    X11Desktop& operator=(const X11Desktop&) = delete;

    const std::string& DisplayName() const { return mDisplayName; }
    bool IsConnected() const { return !mLost; }

    bool ListMonitors(std::vector<tMonitorRect>* monitors) override;
    bool GetScreen(tScreenGeometry* screen) override;
    bool SetScreenSize(int width, int height, int mmWidth, int mmHeight) override;
    bool SetMonitor(const tMonitorRect& monitor) override;
    bool DeleteMonitor(const std::string& name) override;
    std::string LastError() const override { return mLastError; }

Q_SIGNALS:
    void SignalConnectionLost();

private:
    explicit X11Desktop(_XDisplay* display);

    // Xlib calls this from inside whichever call found the connection
    // broken; it only takes note, the loop reports it.
    static void OnConnectionBroken(_XDisplay* display, void* self);
    void ReportConnectionLost();
    // Reads what the server sent, keeping Xlib's idea of the screen size
    // current.
    void DrainEvents();
    // Runs requests and waits for the server's verdict; false with
    // LastError set when it refused one or the connection broke.
    bool Request(const char* what, const std::function<void()>& requests);
    bool Connected();

    _XDisplay* mDisplay;
    unsigned long mRoot;
    std::string mDisplayName;
    QSocketNotifier* mNotifier = nullptr; // child of this object
    bool mLost = false;
    bool mLossReported = false;
    std::string mLastError;
};

} // namespace quorvan::velorane::virtualdisplay
