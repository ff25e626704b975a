#pragma once

#include <QByteArray>
#include <QString>

#include <mutex>
#include <random>

namespace kyrsim {

// The faults that orders on the control pipe (--control) switch on and off
// while kyr-sim runs, for every connection (TLS) or for the USB device: a
// stall that lasts until it is resumed, and bursts of garbage answers.
//
// Threads: orders arrive on the main thread; the USB device asks from the
// testbed's worker thread, TLS sessions from the main thread. m_lock guards
// the state between them.
class LiveFaults
{
public:
    // Takes one order: "stall", "resume" or "garbage N". Returns the record
    // line for it ("control stall", ...), or a null string when the order
    // isn't one of these (plug and unplug are the USB device's).
    QString Apply(const QString& order);

    // While stalled, requests are taken and recorded but never answered; an
    // answer missed stays missed after "resume".
    bool Stalled() const;
    // What replaces the next answer while a burst lasts, else a null array.
    // Garbage answers alternate: the first of each burst, and every second
    // after it, holds 1 to 11 bytes (too short for a response header), the
    // others 12 to 65536 bytes; the bytes are random, from a fixed seed, so
    // that runs repeat.
    QByteArray TakeGarbage();

private:
    mutable std::mutex m_lock;
    bool m_stalled = false;
    int m_garbageLeft = 0;
    int m_garbageInBurst = 0;
    std::mt19937 m_random{0x4B797221};
};

} // namespace kyrsim
