#pragma once

// SIGTERM, SIGINT and SIGHUP as a Qt signal on the main thread, read from a
// signalfd in the event loop: no handler runs inside the program, so the
// way down is the ordinary one, monitor removal included.
//
// Block() must run at the very start of main, before any thread exists, so
// that every thread inherits the blocked set and the kernel keeps the
// signals for the descriptor. Once one has been read the signals are
// unblocked again: a second one ends the program at once, in case the way
// down hangs on an X server that doesn't answer.
//
// Threads: Block on the main thread before any other; the object on the
// main thread.

#include <QObject>

class QSocketNotifier;

namespace quorvan::velorane::virtualdisplay {

class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    static void Block();

    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

    // False when the descriptor couldn't be made (logged).
    bool IsWatching() const { return mNotifier != nullptr; }

Q_SIGNALS:
    void SignalTermination(int signalNumber);

private:
    void OnReadable();

    int mFd = -1;
    QSocketNotifier* mNotifier = nullptr; // child of this object
};

} // namespace quorvan::velorane::virtualdisplay
