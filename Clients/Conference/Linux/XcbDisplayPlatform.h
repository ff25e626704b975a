#pragma once

// The display platform on X11, over RandR 1.5 monitors: each monitor is a
// display whose id is the atom of its name; bounds come from the monitor,
// main is the primary monitor, a monitor with the same rectangle as another
// mirrors it, and the identity numbers come from the EDID of the monitor's
// first output or, without outputs, from its name (DisplayIdentity.h).
// Changes are seen on a connection of our own: RandR's screen, CRTC and
// output events and the root window's ConfigureNotify (all that the server
// sends when a monitor is set or deleted) make the monitor list be read
// again and compared with the last one, and each difference becomes the
// per-display calls of the registered callbacks.
//
// Threads: the thread that made it, which must run a Qt event loop (the
// GUI thread in the relay): the connection is watched by a socket notifier
// there and every callback is made there.
//
// A lost X connection is logged once; from then on nothing is listed, so
// no virtual monitor is found, and the notifier is off, so nothing spins.

#include "Clients/Conference/IDisplayPlatform.h"
#include "Clients/Conference/Linux/DisplayIdentity.h"
#include "Clients/Conference/Linux/MonitorArrangement.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

class QObject;
class QSocketNotifier;

namespace quorvan::velorane::relay {

class XcbRandrConnection;

class XcbDisplayPlatform : public IDisplayPlatform
{
public:
    // Null with the reason in whyNot when the display can't be used;
    // displayName null means $DISPLAY.
    static std::unique_ptr<XcbDisplayPlatform> Create(const char* displayName, std::string* whyNot);
    ~XcbDisplayPlatform() override;

    int32_t GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                 uint32_t* count) override;
    tDisplayBounds DisplayBounds(uint32_t displayId) override;
    uint32_t DisplayMirrorsDisplay(uint32_t displayId) override;
    bool DisplayIsMain(uint32_t displayId) override;
    uint32_t DisplayVendorNumber(uint32_t displayId) override;
    uint32_t DisplayModelNumber(uint32_t displayId) override;
    uint32_t DisplaySerialNumber(uint32_t displayId) override;

    int32_t BeginDisplayConfiguration(DisplayConfigRef* config) override;
    int32_t ConfigureDisplayOrigin(DisplayConfig* config, uint32_t displayId, int32_t x,
                                   int32_t y) override;
    int32_t ConfigureDisplayMirrorOfDisplay(DisplayConfig* config, uint32_t displayId,
                                            uint32_t master) override;
    // Both options change the whole X session until it ends: X keeps no
    // arrangement for one program alone, and none past the server's end.
    int32_t CompleteDisplayConfiguration(DisplayConfigRef config,
                                         EDisplayConfigureOption option) override;

    int32_t RegisterReconfigurationCallback(DisplayReconfigurationCallback callback,
                                            void* userInfo) override;
    int32_t RemoveReconfigurationCallback(DisplayReconfigurationCallback callback,
                                          void* userInfo) override;

    // The monitors as last compared.
    const MonitorList& KnownMonitors() const { return m_known; }
    bool ConnectionLost() const { return m_lost; }

private:
    explicit XcbDisplayPlatform(std::unique_ptr<XcbRandrConnection> connection);

    // Reads the monitors now; false (and the loss noted) when the
    // connection is gone.
    bool Monitors(MonitorList* monitors);
    DisplayIdentity Identity(uint32_t displayId);
    // Takes every event that has come, then compares once.
    void ReadEvents();
    // Replies can bring events in with them, which the socket won't
    // announce again: they are read on the next turn of the event loop.
    void ReadQueuedEventsSoon();
    void CompareAndDeliver();
    void NoteConnectionLost();

    std::unique_ptr<XcbRandrConnection> m_connection;
    // Parent of the notifier and target of queued reads; deleted first.
    std::unique_ptr<QObject> m_eventContext;
    QSocketNotifier* m_notifier = nullptr;
    bool m_readPosted = false;
    bool m_lost = false;
    MonitorList m_known;
    std::vector<std::pair<DisplayReconfigurationCallback, void*>> m_callbacks;
};

} // namespace quorvan::velorane::relay
