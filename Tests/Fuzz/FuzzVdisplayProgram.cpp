// Requests to the virtual display program (Drivers/VirtualDisplay): its
// program object, VirtualDisplayApp, started afresh for each input, serves
// VIRTUAL_MONITOR_SERVER with the relay's IpcServer in front of its real
// VirtualMonitorManager on the X11 desktop and its
// UnsupportedExtendedPresentation. A peer on a real local socket writes the
// request stream in pieces at points the fuzzer chooses; between pieces
// the event loop turns, so the server reads and answers and a monitor due
// to arrive arrives. The first byte picks when the monitor arrives after
// CreateConference: at the next turn of the loop, or not within the input.
//
// The X server is a private Xvfb started once per process: one output of
// 1920x1080 filling a screen of that size, in a frame buffer of 8192x2160
// that the screen may grow into (Xvfb can't grow past the size it starts
// with). It ends with the process, also when a run ends on a crash.
//
// Checked: every reply parses with the relay's parser and carries a result
// the program gives for its command; a monitor that RequestCalibrate finds
// lies right of the output at y = 0, within the largest screen; and once
// the program object is gone the X server is as it was before the input:
// no virtual monitor, the screen at 1920x1080.

#include "Drivers/VirtualDisplay/VirtualDisplayApp.h"
#include "Drivers/VirtualDisplay/VirtualDisplayOptions.h"
#include "Tests/Fuzz/FuzzSupport.h"
#include "Tests/Fuzz/VmonitorFuzzSupport.h"
#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/XDisplayTools.h"

#include "Common/Platform/Linux/Src/LocalSocketPath.h"
#include "Common/Platform/Src/Result.h"
#include "Common/VirtualMonitor/Src/Command.h"
#include "Common/VirtualMonitor/Src/ServerNames.h"

#include <QCoreApplication>
#include <QEvent>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <vector>

// Xlib last: its macros (Success, None, Bool) would rewrite names above.
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
// The result codes below are named Success too.
#undef Success

using namespace quorvan::velorane::virtualmonitor;
using quorvan::velorane::virtualdisplay::VirtualDisplayApp;
using quorvan::velorane::virtualdisplay::VirtualDisplayOptions;

namespace {

constexpr int kOutputWidth = 1920;
constexpr int kOutputHeight = 1080;
constexpr int kLargestWidth = 8192;
constexpr int kLargestHeight = 2160;
// "Not within the input": far longer than any input runs.
constexpr int kArrivalNever = 3600 * 1000;
// Turns of the event loop after each piece: the server reads and answers
// in the first, its reply leaves in the next, a monitor due arrives.
constexpr int kTurns = 4;

struct tMonitor
{
    std::string name;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    bool operator==(const tMonitor& other) const
    {
        return name == other.name && x == other.x && y == other.y && width == other.width &&
               height == other.height;
    }
};

struct tXState
{
    int width = 0;
    int height = 0;
    std::vector<tMonitor> monitors;

    bool operator==(const tXState& other) const
    {
        return width == other.width && height == other.height && monitors == other.monitors;
    }
};

// The target's own connection to the private X server, to see what the
// program left there; it never sends a request that can fail.
Display* g_x = nullptr;
tXState g_before;
std::string g_serverPath;

tXState ReadXState()
{
    tXState state;
    const Window root = DefaultRootWindow(g_x);
    Window ignoredRoot = 0;
    int x = 0;
    int y = 0;
    unsigned width = 0;
    unsigned height = 0;
    unsigned border = 0;
    unsigned depth = 0;
    XGetGeometry(g_x, root, &ignoredRoot, &x, &y, &width, &height, &border, &depth);
    state.width = static_cast<int>(width);
    state.height = static_cast<int>(height);
    int count = 0;
    XRRMonitorInfo* list = XRRGetMonitors(g_x, root, True, &count);
    for (int i = 0; list && i < count; ++i) {
        tMonitor monitor;
        if (char* name = XGetAtomName(g_x, list[i].name)) {
            monitor.name = name;
            XFree(name);
        }
        monitor.x = list[i].x;
        monitor.y = list[i].y;
        monitor.width = list[i].width;
        monitor.height = list[i].height;
        state.monitors.push_back(monitor);
    }
    if (list) {
        XRRFreeMonitors(list);
    }
    return state;
}

// The run's folder: the server's output and the program's socket.
char g_folder[] = "/tmp/velorane-fuzz-vdisplay-XXXXXX";

void RemoveFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(g_folder, ignored);
}

void StartXServer()
{
    char* folder = mkdtemp(g_folder);
    if (!folder) {
        std::perror("fuzz_vdisplay_program: mkdtemp");
        std::abort();
    }
    // A run that ends on a finding keeps it, with the server's output.
    std::atexit(RemoveFolder);
    // The program's socket lives here too, apart from any other run's.
    setenv("XDG_RUNTIME_DIR", folder, 1);
    static velorane::test::PrivateXServer* server = new velorane::test::PrivateXServer();
    velorane::test::PrivateXServer::Options options;
    options.width = kLargestWidth;
    options.height = kLargestHeight;
    options.outputWidth = kOutputWidth;
    options.outputHeight = kOutputHeight;
    options.folder = folder;
    options.endWithParent = true;
    if (!server->Start(options) ||
        !velorane::test::XDisplayTools(server->Name()).SetScreenSize(kOutputWidth, kOutputHeight)) {
        std::fprintf(stderr, "fuzz_vdisplay_program: no private Xvfb (output in %s)\n", folder);
        std::abort();
    }
    setenv("DISPLAY", server->Name().c_str(), 1);
    g_x = XOpenDisplay(nullptr);
    if (!g_x) {
        std::abort();
    }
    g_before = ReadXState();
    if (g_before.width != kOutputWidth || g_before.height != kOutputHeight ||
        g_before.monitors.size() != 1) {
        std::fprintf(stderr, "fuzz_vdisplay_program: the private Xvfb isn't set up as expected\n");
        std::abort();
    }
}

void Turn(int turns)
{
    for (int i = 0; i < turns; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// The relay's side of one connection, a plain socket outside Qt's loop so
// that only the program's side turns with it.
class Peer
{
public:
    Peer()
    {
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, g_serverPath.c_str(), sizeof(address.sun_path) - 1);
        VELORANE_FUZZ_CHECK(m_fd >= 0 && connect(m_fd, reinterpret_cast<sockaddr*>(&address),
                                                 sizeof(address)) == 0);
    }
    ~Peer() { close(m_fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // False once the program has closed the connection.
    bool Write(const QByteArray& bytes)
    {
        for (int at = 0; at < bytes.size();) {
            const ssize_t sent = send(m_fd, bytes.constData() + at,
                                      static_cast<size_t>(bytes.size() - at), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            at += static_cast<int>(sent);
        }
        return true;
    }

    // What has come back so far.
    void Read(QByteArray* replies)
    {
        char chunk[4096];
        for (;;) {
            const ssize_t got = recv(m_fd, chunk, sizeof(chunk), MSG_DONTWAIT);
            if (got <= 0) {
                return;
            }
            replies->append(chunk, static_cast<int>(got));
        }
    }

private:
    int m_fd = -1;
};

bool OneOf(int result, std::initializer_list<int> allowed)
{
    return std::find(allowed.begin(), allowed.end(), result) != allowed.end();
}

void CheckReply(const velorane::fuzz::tParsedReply& reply)
{
    using namespace quorvan;
    switch (reply.command) {
    case CreateConference:
    case SetResolution:
        VELORANE_FUZZ_CHECK(OneOf(reply.result, {Success, ResultInvalidArgument}));
        break;
    case DestroyConference:
        VELORANE_FUZZ_CHECK(reply.result == Success);
        break;
    case CreateExtendedPresentation:
    case DestroyExtendedPresentation:
        VELORANE_FUZZ_CHECK(reply.result == ResultNotImplemented);
        break;
    case SetCursorCage:
        VELORANE_FUZZ_CHECK(OneOf(reply.result, {ResultNotImplemented, ResultGeneralFailure}));
        VELORANE_FUZZ_CHECK(reply.rect == tVmRect{});
        break;
    case RequestCalibrate: {
        VELORANE_FUZZ_CHECK(reply.result == Success);
        if (!reply.found) {
            break;
        }
        // Right of every other monitor, at y = 0, inside the largest screen.
        int right = 0;
        for (const tMonitor& monitor : g_before.monitors) {
            right = std::max(right, monitor.x + monitor.width);
        }
        const tVmRect& rect = reply.rect;
        VELORANE_FUZZ_CHECK(rect.x == right && rect.y == 0);
        VELORANE_FUZZ_CHECK(rect.width >= 1 && rect.height >= 1);
        VELORANE_FUZZ_CHECK(rect.width <= kLargestWidth - right && rect.height <= kLargestHeight);
        break;
    }
    default:
        // QuitProcess, the reservations, the holes and unknown numbers.
        VELORANE_FUZZ_CHECK(reply.result == ResultGeneralFailure);
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    velorane::fuzz::EnsureCoreApplication();
    StartXServer();
    g_serverPath = quorvan::platform::LocalSocketPath(VIRTUAL_MONITOR_IPC_SERVER);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    VirtualDisplayOptions options;
    options.arrivalDelayMs = input.ConsumeBool() ? kArrivalNever : 0;
    const std::vector<QByteArray> pieces = velorane::fuzz::SplitStream(input);

    QByteArray replies;
    {
        VirtualDisplayApp program(options);
        int exitCode = 0;
        VELORANE_FUZZ_CHECK(program.Start(&exitCode));
        {
            Peer peer;
            Turn(kTurns);
            for (const QByteArray& piece : pieces) {
                if (!peer.Write(piece)) {
                    break;
                }
                Turn(kTurns);
                peer.Read(&replies);
            }
            Turn(kTurns);
            peer.Read(&replies);
        }
        // The program sees the relay hang up, as it does after each request.
        Turn(kTurns);
    }
    Turn(1);

    int leftover = 0;
    for (const velorane::fuzz::tParsedReply& reply :
         velorane::fuzz::ParseReplies(replies, &leftover)) {
        CheckReply(reply);
    }
    // Replies leave whole.
    VELORANE_FUZZ_CHECK(leftover == 0);
    // Whatever the requests, the program's end leaves the desktop as it was.
    VELORANE_FUZZ_CHECK(ReadXState() == g_before);
    return 0;
}
