#include "Drivers/VirtualDisplay/Linux/X11Desktop.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/StringUtil.h"

#include <QMetaObject>
#include <QSocketNotifier>

// Xlib last: its macros (Success, None, Bool, Status) would rewrite names
// in the headers above.
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

namespace quorvan::velorane::virtualdisplay {

namespace {

// The first error the server sent for the requests of one Request call.
// Xlib's error handler is process-wide and called on the thread that reads
// the reply, which is the main thread here.
struct ErrorTrap
{
    bool active = false;
    int errorCode = 0;
    int requestCode = 0;
    int minorCode = 0;
};
ErrorTrap g_trap;

int OnXError(Display*, XErrorEvent* event)
{
    if (g_trap.active) {
        if (g_trap.errorCode == 0) {
            g_trap.errorCode = event->error_code;
            g_trap.requestCode = event->request_code;
            g_trap.minorCode = event->minor_code;
        }
        return 0;
    }
    // Xlib's own handler would end the process.
    VLOG(EGroupValueWarning, "X error %d for request %d.%d", event->error_code, event->request_code,
         event->minor_code);
    return 0;
}

// Xlib's default ends the process; returning lets the exit handler decide.
int OnXIOError(Display*)
{
    return 0;
}

void IgnoreBrokenConnection(Display*, void*) {}

constexpr int kRandrMajor = 1;
constexpr int kRandrMinor = 5;

} // namespace

std::unique_ptr<X11Desktop> X11Desktop::Open(std::string* error)
{
    const char* name = XDisplayName(nullptr);
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        *error = utf8::format("unable to open the X display \"%s\"", name ? name : "");
        return nullptr;
    }
    int eventBase = 0;
    int errorBase = 0;
    int major = 0;
    int minor = 0;
    if (!XRRQueryExtension(display, &eventBase, &errorBase) ||
        !XRRQueryVersion(display, &major, &minor) ||
        major * 100 + minor < kRandrMajor * 100 + kRandrMinor) {
        *error = utf8::format("the X display \"%s\" has RandR %d.%d, and monitors need %d.%d",
                              DisplayString(display), major, minor, kRandrMajor, kRandrMinor);
        XCloseDisplay(display);
        return nullptr;
    }
    return std::unique_ptr<X11Desktop>(new X11Desktop(display));
}

X11Desktop::X11Desktop(Display* display)
    : mDisplay(display), mRoot(DefaultRootWindow(display)), mDisplayName(DisplayString(display))
{
    XSetErrorHandler(OnXError);
    XSetIOErrorHandler(OnXIOError);
    XSetIOErrorExitHandler(mDisplay, &X11Desktop::OnConnectionBroken, this);
    // Screen changes keep Xlib's screen size and millimetres current.
    XRRSelectInput(mDisplay, mRoot, RRScreenChangeNotifyMask);
    XSelectInput(mDisplay, mRoot, StructureNotifyMask);
    XFlush(mDisplay);

    mNotifier = new QSocketNotifier(ConnectionNumber(mDisplay), QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &X11Desktop::DrainEvents);
}

X11Desktop::~X11Desktop()
{
    delete mNotifier;
    mNotifier = nullptr;
    // A broken connection closes without a word: nothing is left to tell.
    XSetIOErrorExitHandler(mDisplay, IgnoreBrokenConnection, nullptr);
    XCloseDisplay(mDisplay);
    XSetErrorHandler(nullptr);
    XSetIOErrorHandler(nullptr);
}

void X11Desktop::OnConnectionBroken(Display*, void* self)
{
    auto* desktop = static_cast<X11Desktop*>(self);
    desktop->mLost = true;
    QMetaObject::invokeMethod(
        desktop, [desktop] { desktop->ReportConnectionLost(); }, Qt::QueuedConnection);
}

void X11Desktop::ReportConnectionLost()
{
    if (mLossReported) {
        return;
    }
    mLossReported = true;
    // The socket stays readable at its end: watching it further would spin.
    if (mNotifier) {
        mNotifier->setEnabled(false);
    }
    VLOG(EGroupValueSevere, "Lost the connection to the X display %s", mDisplayName.c_str());
    Q_EMIT SignalConnectionLost();
}

void X11Desktop::DrainEvents()
{
    while (!mLost && XPending(mDisplay) > 0) {
        XEvent event;
        XNextEvent(mDisplay, &event);
        XRRUpdateConfiguration(&event);
    }
    if (mLost && mNotifier) {
        mNotifier->setEnabled(false);
    }
}

bool X11Desktop::Connected()
{
    if (mLost) {
        mLastError = "the connection to the X display is gone";
        return false;
    }
    return true;
}

bool X11Desktop::Request(const char* what, const std::function<void()>& requests)
{
    if (!Connected()) {
        return false;
    }
    g_trap = ErrorTrap{};
    g_trap.active = true;
    requests();
    XSync(mDisplay, False);
    g_trap.active = false;
    if (!Connected()) {
        return false;
    }
    if (g_trap.errorCode != 0) {
        char text[160] = {};
        XGetErrorText(mDisplay, g_trap.errorCode, text, sizeof(text) - 1);
        mLastError = utf8::format("the X server refused %s: %s (error %d, request %d.%d)", what,
                                  text, g_trap.errorCode, g_trap.requestCode, g_trap.minorCode);
        return false;
    }
    return true;
}

bool X11Desktop::ListMonitors(std::vector<tMonitorRect>* monitors)
{
    monitors->clear();
    XRRMonitorInfo* list = nullptr;
    int count = 0;
    if (!Request("the monitor list",
                 [&] { list = XRRGetMonitors(mDisplay, mRoot, True, &count); })) {
        if (list) {
            XRRFreeMonitors(list);
        }
        return false;
    }
    for (int i = 0; list && i < count; ++i) {
        tMonitorRect monitor;
        if (char* name = XGetAtomName(mDisplay, list[i].name)) {
            monitor.name = name;
            XFree(name);
        }
        monitor.x = list[i].x;
        monitor.y = list[i].y;
        monitor.width = list[i].width;
        monitor.height = list[i].height;
        monitor.mmWidth = list[i].mwidth;
        monitor.mmHeight = list[i].mheight;
        monitor.outputs = list[i].noutput;
        monitors->push_back(monitor);
    }
    if (list) {
        XRRFreeMonitors(list);
    }
    // An atom name asked for a monitor that went meanwhile reads as empty.
    return Connected();
}

bool X11Desktop::GetScreen(tScreenGeometry* screen)
{
    Status status = 0;
    if (!Request("the screen size range", [&] {
            status = XRRGetScreenSizeRange(mDisplay, mRoot, &screen->minWidth, &screen->minHeight,
                                           &screen->maxWidth, &screen->maxHeight);
        })) {
        return false;
    }
    if (!status) {
        mLastError = "the X server gave no screen size range";
        return false;
    }
    // The round trip above brought every screen change made before it.
    DrainEvents();
    if (!Connected()) {
        return false;
    }
    const int number = DefaultScreen(mDisplay);
    screen->width = DisplayWidth(mDisplay, number);
    screen->height = DisplayHeight(mDisplay, number);
    screen->mmWidth = DisplayWidthMM(mDisplay, number);
    screen->mmHeight = DisplayHeightMM(mDisplay, number);
    return true;
}

bool X11Desktop::SetScreenSize(int width, int height, int mmWidth, int mmHeight)
{
    if (!Request("the screen size",
                 [&] { XRRSetScreenSize(mDisplay, mRoot, width, height, mmWidth, mmHeight); })) {
        return false;
    }
    DrainEvents();
    return Connected();
}

bool X11Desktop::SetMonitor(const tMonitorRect& monitor)
{
    std::vector<tMonitorRect> monitors;
    if (!ListMonitors(&monitors)) {
        return false;
    }
    for (const tMonitorRect& existing : monitors) {
        // Set over an existing one of its name the server answers BadValue.
        if (existing.name == monitor.name && !DeleteMonitor(monitor.name)) {
            return false;
        }
    }
    XRRMonitorInfo* info = XRRAllocateMonitor(mDisplay, 0);
    if (!info) {
        mLastError = "out of memory";
        return false;
    }
    const bool done = Request("the monitor", [&] {
        info->name = XInternAtom(mDisplay, monitor.name.c_str(), False);
        info->primary = False;
        info->automatic = False;
        info->noutput = 0;
        info->x = monitor.x;
        info->y = monitor.y;
        info->width = monitor.width;
        info->height = monitor.height;
        info->mwidth = monitor.mmWidth;
        info->mheight = monitor.mmHeight;
        XRRSetMonitor(mDisplay, mRoot, info);
    });
    XRRFreeMonitors(info);
    return done;
}

bool X11Desktop::DeleteMonitor(const std::string& name)
{
    return Request("deleting the monitor", [&] {
        const Atom atom = XInternAtom(mDisplay, name.c_str(), False);
        XRRDeleteMonitor(mDisplay, mRoot, atom);
    });
}

} // namespace quorvan::velorane::virtualdisplay
