#pragma once

// The relay's remote control for the virtual display process, the program
// that owns the virtual monitor. Each request goes on a connection of its
// own to "VIRTUAL_MONITOR_SERVER" and waits for its reply, so a missing or
// hung process costs the caller up to about 5 s to connect and 5 s for the
// reply. In standalone mode this object also starts the process and sets
// the monitor up when the process connects back to "CONFERENCE_SERVER".
//
// Threads: the main thread only. The blocking requests hold it, and with it
// the relay window, while the process answers.

#include "Common/Platform/Src/Result.h"
#include "Common/VirtualMonitor/Src/IpcServer.h"

#include <QByteArray>
#include <QObject>
#include <QString>

namespace quorvan::velorane::relay {

class ConferenceMonitor : public QObject
{
    Q_OBJECT

public:
    // The picture size that goes into SetResolution. The conference itself
    // is always made 1280 by 720.
    static constexpr int kConferenceWidth = 1280;
    static constexpr int kConferenceHeight = 720;

    ConferenceMonitor(int width, int height, QObject* parent);
    ~ConferenceMonitor() override;

    // SetResolution, then CreateConference. The window id is not used.
    RESULT Initialize(unsigned long long windowId);
    // Listens for the process, then starts it; Initialize runs at each
    // connection. The result says only whether the process started.
    RESULT InitializeStandalone(unsigned long long windowId);
    RESULT Terminate();

    RESULT SendIpcMessage(const QByteArray& request, QByteArray& reply);

    RESULT SendSetResolution();
    RESULT SendCreateConference();
    RESULT SendDestroyConference();
    RESULT SendCreateExtendedPresentation();
    RESULT SendRequestCalibrate();
    RESULT SendSetCursorCage(unsigned long long windowId);

    bool ConferenceCreated() const { return mConferenceCreated; }
    bool ServerListening() const { return mIpcServer.IsListening(); }

    // The virtual display program: beside the relay's own executable. The
    // unit tests, which run beside a real one, name a program that isn't
    // there instead.
    const QString& VirtualDisplayProgram() const { return mVirtualDisplayProgram; }
    void SetVirtualDisplayProgram(const QString& program) { mVirtualDisplayProgram = program; }

Q_SIGNALS:
    void SignalUpdateRelayWindow(int x, int y, int w, int h);

private:
    bool mConferenceCreated = false;
    int mWidth;
    int mHeight;
    QString mVirtualDisplayProgram;
    // Without a manager behind it: it listens only to hear that the process
    // is up.
    virtualmonitor::IpcServer mIpcServer;
};

} // namespace quorvan::velorane::relay
