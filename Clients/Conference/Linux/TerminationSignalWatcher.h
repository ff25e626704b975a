#pragma once

// Turns SIGTERM and SIGINT into a Qt signal on the main thread, so that a
// service manager's stop or a Ctrl-C runs the relay's ordinary quit
// sequence instead of ending the process on the spot.
//
// Threads: the handler runs on whichever thread the kernel picks and only
// writes the signal number into a pipe (async-signal-safe). Everything else,
// the read end's QSocketNotifier included, runs on the thread that made the
// object, which must be the main thread.
//
// One watcher may exist at a time. Each handler resets itself once it has
// run: the same signal a second time ends the process at once, as if no
// handler had been there, in case the quit sequence hangs.

#include <QObject>

class QSocketNotifier;

namespace quorvan::velorane::relay {

class TerminationSignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit TerminationSignalWatcher(QObject* parent = nullptr);
    ~TerminationSignalWatcher() override;
    TerminationSignalWatcher(const TerminationSignalWatcher&) = delete;
    TerminationSignalWatcher& operator=(const TerminationSignalWatcher&) = delete;

    // False when the pipe or the handlers could not be set up (logged).
    bool IsWatching() const { return m_notifier != nullptr; }

Q_SIGNALS:
    // A termination signal arrived; signalNumber is SIGTERM or SIGINT.
    void SignalTerminationRequested(int signalNumber);

private:
    void OnPipeReadable();

    int m_readFd = -1;
    int m_writeFd = -1;
    QSocketNotifier* m_notifier = nullptr; // child of this object
};

} // namespace quorvan::velorane::relay
