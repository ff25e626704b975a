// Requests to the virtual monitor server: a byte stream written by a real
// peer on a real local socket, in pieces at points the fuzzer chooses, read
// by the server's own connection (IpcClient in asynchronous mode), framed
// into messages and handled by IpcServer::onRecv, whose replies go back on
// the socket. The first byte picks the server: the relay's own (no manager
// behind it) or one with a manager, whose results and rectangle come from
// the input, as the virtual display process has.
//
// Checked: every whole reply that comes back is a reply that the relay's
// parser takes, and the server's connection is gone once the peer has
// hung up.

#include "Common/Platform/Linux/Src/LocalSocketPath.h"
#include "Common/VirtualMonitor/Src/IpcServer.h"
#include "Tests/Fuzz/FuzzSupport.h"
#include "Tests/Fuzz/VmonitorFuzzSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEvent>
#include <QLocalSocket>
#include <QPointer>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>

using namespace quorvan::velorane::virtualmonitor;
using quorvan::velorane::extendedpresentation::IExtendedPresentation;

namespace {

// The display process's side, answering as the input says.
class FuzzManager : public IVirtualMonitorManager, public IExtendedPresentation
{
public:
    RESULT CreateConference(int, int) override { return m_results[0]; }
    RESULT UpdateConference(int, int) override { return m_results[0]; }
    RESULT DestroyConference() override { return m_results[1]; }
    RESULT ReserveRect(const tVmRect&) override { return m_results[2]; }
    RESULT ReserveEmpty() override { return m_results[2]; }
    RESULT GetMonitorInfo(tMonitorInfo* info) override
    {
        info->bounds = m_bounds;
        return m_results[2];
    }
    RESULT SetResolution(int, int, unsigned char) override { return m_results[2]; }
    RESULT SetCursorCage(bool, long long, tMonitorInfo* info) override
    {
        info->bounds = m_bounds;
        return m_results[3];
    }
    RESULT RequestCalibrate(tMonitorInfo* info) override
    {
        info->bounds = m_bounds;
        return m_results[3];
    }
    RESULT CreateExtendedPresentation() override { return m_results[1]; }
    RESULT DestroyExtendedPresentation() override { return m_results[0]; }

    RESULT m_results[4] = {};
    tVmRect m_bounds;
};

struct Servers
{
    std::shared_ptr<FuzzManager> manager = std::make_shared<FuzzManager>();
    std::unique_ptr<IpcServer> relays;
    std::unique_ptr<IpcServer> display;
    QString relaysPath;
    QString displayPath;
};

Servers& TheServers()
{
    static Servers* servers = [] {
        // A folder of its own for the sockets, so parallel runs don't meet.
        char folder[] = "/tmp/velorane-fuzz-XXXXXX";
        if (!mkdtemp(folder)) {
            std::abort();
        }
        setenv("XDG_RUNTIME_DIR", folder, 1);
        auto* made = new Servers();
        made->relays = std::make_unique<IpcServer>();
        made->display = std::make_unique<IpcServer>(made->manager, made->manager);
        if (!made->relays->Initialize("FUZZ_CONFERENCE_SERVER") ||
            !made->display->Initialize("FUZZ_VIRTUAL_MONITOR_SERVER")) {
            std::abort();
        }
        made->relaysPath =
            QString::fromStdString(quorvan::platform::LocalSocketPath("FUZZ_CONFERENCE_SERVER"));
        made->displayPath = QString::fromStdString(
            quorvan::platform::LocalSocketPath("FUZZ_VIRTUAL_MONITOR_SERVER"));
        return made;
    }();
    return *servers;
}

void Pump()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    velorane::fuzz::EnsureCoreApplication();
    Servers& servers = TheServers();
    FuzzedDataProvider input(data, size);
    const bool display = input.ConsumeBool();
    for (RESULT& result : servers.manager->m_results) {
        result = input.ConsumeIntegral<int32_t>();
    }
    servers.manager->m_bounds =
        tVmRect{input.ConsumeIntegral<int32_t>(), input.ConsumeIntegral<int32_t>(),
                input.ConsumeIntegral<int32_t>(), input.ConsumeIntegral<int32_t>()};
    const std::vector<QByteArray> pieces = velorane::fuzz::SplitStream(input);
    IpcServer& server = display ? *servers.display : *servers.relays;

    int accepted = 0;
    const QMetaObject::Connection counting =
        QObject::connect(&server, &IpcServer::SignalNewIncomingConnection, [&] { ++accepted; });
    const QList<QLocalSocket*> before = server.findChildren<QLocalSocket*>();

    QLocalSocket peer;
    peer.connectToServer(display ? servers.displayPath : servers.relaysPath);
    VELORANE_FUZZ_CHECK(peer.waitForConnected(5000));
    QElapsedTimer waited;
    waited.start();
    while (accepted == 0 && !waited.hasExpired(5000)) {
        Pump();
    }
    QObject::disconnect(counting);
    VELORANE_FUZZ_CHECK(accepted == 1);
    QPointer<QLocalSocket> connection;
    for (QLocalSocket* socket : server.findChildren<QLocalSocket*>()) {
        if (!before.contains(socket)) {
            connection = socket;
        }
    }
    VELORANE_FUZZ_CHECK(connection);

    QByteArray replies;
    for (const QByteArray& piece : pieces) {
        if (!connection || connection->state() != QLocalSocket::ConnectedState) {
            break;
        }
        peer.write(piece);
        peer.flush();
        // The server's connection reads the piece and handles what it can.
        connection->waitForReadyRead(1000);
        if (connection) {
            connection->flush();
        }
        peer.waitForReadyRead(0);
        replies.append(peer.readAll());
    }

    // Every whole reply is one the relay takes apart.
    velorane::fuzz::ParseReplies(replies);

    peer.abort();
    waited.restart();
    while (connection && !waited.hasExpired(5000)) {
        Pump();
    }
    VELORANE_FUZZ_CHECK(!connection);
    return 0;
}
