#pragma once

// A connection of our own to the X server, for RandR 1.5 monitors: the
// queries and changes the X11 display platform needs, each a plain call
// that reports failure instead of raising an X error. xcb rather than Xlib,
// because Xlib's error handlers are global to the process (Qt's own are in
// place) and Xlib ends the process when the connection is lost; with xcb an
// error is the answer to one request, and a lost connection only makes
// every later call fail.
//
// Threads: the thread that opened it; the GUI thread in the relay.

#include "Clients/Conference/Linux/MonitorArrangement.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct xcb_connection_t;

namespace quorvan::velorane::relay {

class XcbRandrConnection
{
public:
    // Null with the reason in whyNot when the display can't be opened or
    // its server lacks RandR 1.5. displayName null means $DISPLAY.
    static std::unique_ptr<XcbRandrConnection> Open(const char* displayName, std::string* whyNot);
    ~XcbRandrConnection();
    XcbRandrConnection(const XcbRandrConnection&) = delete;
    XcbRandrConnection& operator=(const XcbRandrConnection&) = delete;

    // True once the connection has failed; it never recovers.
    bool Broken() const;
    int FileDescriptor() const;
    xcb_connection_t* Connection() const { return m_connection; }
    uint8_t RandrFirstEvent() const { return m_randrFirstEvent; }

    // Asks for screen, CRTC and output changes and for the root window's
    // ConfigureNotify, which is all the server sends when a monitor is set
    // or deleted.
    bool WatchChanges(std::string* error);

    // The active monitors in the server's order.
    bool QueryMonitors(MonitorList* monitors);
    // The name of an atom, empty when it has none.
    std::string AtomName(uint32_t atom);
    // The output's EDID property, empty when it has none.
    std::vector<uint8_t> OutputEdid(uint32_t output);

    struct ScreenSize
    {
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t widthMm = 0;
        uint32_t heightMm = 0;
        uint32_t maxWidth = 0;
        uint32_t maxHeight = 0;
    };
    bool QueryScreenSize(ScreenSize* size);
    // Keeps the screen's resolution: the physical size grows in step.
    bool SetScreenSize(const ScreenSize& now, uint32_t width, uint32_t height, std::string* error);

    // Moves every CRTC that shows one of the outputs by dx, dy.
    bool MoveOutputs(const std::vector<uint32_t>& outputs, int32_t dx, int32_t dy,
                     std::string* error);
    // The server refuses to set a monitor over one of the same name:
    // deleting comes first.
    bool DeleteMonitor(uint32_t name, std::string* error);
    // Sets an output-less monitor of this rectangle and name.
    bool SetMonitor(const tMonitor& monitor, std::string* error);

    void Flush();

private:
    explicit XcbRandrConnection(xcb_connection_t* connection, int screenNumber);

    xcb_connection_t* m_connection;
    uint32_t m_root = 0;
    uint32_t m_setupWidth = 0;
    uint32_t m_setupHeight = 0;
    uint32_t m_setupWidthMm = 0;
    uint32_t m_setupHeightMm = 0;
    uint8_t m_randrFirstEvent = 0;
    uint32_t m_edidAtom = 0;
    bool m_edidAtomLooked = false;
    std::map<uint32_t, std::string> m_atomNames;
};

} // namespace quorvan::velorane::relay
