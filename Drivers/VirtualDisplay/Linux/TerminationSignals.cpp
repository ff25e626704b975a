#include "Drivers/VirtualDisplay/Linux/TerminationSignals.h"

#include "Common/Logger/Src/Logger.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace quorvan::velorane::virtualdisplay {

namespace {

sigset_t TerminationSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

} // namespace

void TerminationSignals::Block()
{
    const sigset_t set = TerminationSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent)
{
    const sigset_t set = TerminationSet();
    mFd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (mFd < 0) {
        VLOG(EGroupValueWarning, "Unable to watch for termination signals: %s",
             std::strerror(errno));
        return;
    }
    mNotifier = new QSocketNotifier(mFd, QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &TerminationSignals::OnReadable);
}

TerminationSignals::~TerminationSignals()
{
    delete mNotifier;
    mNotifier = nullptr;
    if (mFd >= 0) {
        close(mFd);
    }
}

void TerminationSignals::OnReadable()
{
    signalfd_siginfo info;
    const ssize_t count = read(mFd, &info, sizeof(info));
    if (count != static_cast<ssize_t>(sizeof(info))) {
        return;
    }
    const int signalNumber = static_cast<int>(info.ssi_signo);
    // "TERM" for SIGTERM: the three watched signals all have a short name.
    const char* name = sigabbrev_np(signalNumber);
    VLOG(EGroupValueInformation, "Received SIG%s", name ? name : "?");
    mNotifier->setEnabled(false);
    const sigset_t set = TerminationSet();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    Q_EMIT SignalTermination(signalNumber);
}

} // namespace quorvan::velorane::virtualdisplay
