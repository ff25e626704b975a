#pragma once

// Waiting in Qt tests without sleeping: the main thread's events keep
// flowing while a test waits for a condition or lets time pass. Header only,
// so that the support library itself needs no Qt.

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

namespace velorane::test {

// Pumps the main thread's events until done() holds or the time is up;
// returns done() at the end.
inline bool WaitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    QDeadlineTimer deadline(static_cast<qint64>(timeout.count()));
    // Wakes the blocking pump at least every few milliseconds.
    QTimer tick;
    tick.start(5);
    while (!done()) {
        if (deadline.hasExpired()) {
            return done();
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// Pumps the main thread's events for the whole of the given time, for the
// checks that something does not happen within it.
inline void PumpEventsFor(std::chrono::milliseconds duration)
{
    QDeadlineTimer deadline(static_cast<qint64>(duration.count()));
    QTimer tick;
    tick.start(5);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
}

} // namespace velorane::test
