#include "Clients/Conference/Linux/TerminationSignalWatcher.h"

#include "Common/Logger/Src/Logger.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quorvan::velorane::relay {

namespace {

// The write end for the handler. Only the handler and the watcher's
// construction and destruction touch it; -1 when no watcher exists.
volatile sig_atomic_t g_writeFd = -1;

constexpr int kWatchedSignals[] = {SIGTERM, SIGINT};

extern "C" void OnTerminationSignal(int signalNumber)
{
    const int savedErrno = errno;
    const int fd = g_writeFd;
    if (fd >= 0) {
        const unsigned char byte = static_cast<unsigned char>(signalNumber);
        // A full pipe already holds a wake-up; nothing more is needed.
        ssize_t ignored = write(fd, &byte, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

const char* SignalName(int signalNumber)
{
    switch (signalNumber) {
    case SIGTERM:
        return "SIGTERM";
    case SIGINT:
        return "SIGINT";
    default:
        return "unknown";
    }
}

} // namespace

TerminationSignalWatcher::TerminationSignalWatcher(QObject* parent) : QObject(parent)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        VLOG(EGroupValueWarning, "Unable to watch for termination signals: %s",
             std::strerror(errno));
        return;
    }
    m_readFd = fds[0];
    m_writeFd = fds[1];
    g_writeFd = m_writeFd;

    m_notifier = new QSocketNotifier(m_readFd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this,
            &TerminationSignalWatcher::OnPipeReadable);

    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = OnTerminationSignal;
    sigemptyset(&action.sa_mask);
    // Restart interrupted calls; back to the default after the first one.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    for (const int signalNumber : kWatchedSignals) {
        if (sigaction(signalNumber, &action, nullptr) != 0) {
            VLOG(EGroupValueWarning, "Unable to handle %s: %s", SignalName(signalNumber),
                 std::strerror(errno));
        }
    }
}

TerminationSignalWatcher::~TerminationSignalWatcher()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (const int signalNumber : kWatchedSignals) {
        sigaction(signalNumber, &action, nullptr);
    }
    g_writeFd = -1;
    delete m_notifier;
    m_notifier = nullptr;
    if (m_readFd >= 0) {
        close(m_readFd);
    }
    if (m_writeFd >= 0) {
        close(m_writeFd);
    }
}

void TerminationSignalWatcher::OnPipeReadable()
{
    unsigned char bytes[16];
    const ssize_t count = read(m_readFd, bytes, sizeof(bytes));
    for (ssize_t i = 0; i < count; ++i) {
        const int signalNumber = bytes[i];
        VLOG(EGroupValueInformation, "Received %s", SignalName(signalNumber));
        Q_EMIT SignalTerminationRequested(signalNumber);
    }
}

} // namespace quorvan::velorane::relay
