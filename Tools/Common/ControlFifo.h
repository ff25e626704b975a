#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>

class QSocketNotifier;

namespace simcommon {

// A named pipe an emulator takes orders from while it runs, one a line
// (a script writes "stall" into it with echo). The pipe is made when it
// doesn't exist yet, and opened for reading and writing, so that it never
// reads end-of-file when the last writer closes: writers may come and go.
// Lines are handed over trimmed; empty ones are skipped.
//
// Threads: the thread that owns the object (its event loop reads the pipe).
class ControlFifo : public QObject
{
    Q_OBJECT

public:
    explicit ControlFifo(QObject* parent = nullptr);
    ~ControlFifo() override;

    // Opens (and when needed makes) the pipe at path; false with a reason,
    // for example when path exists and isn't a named pipe.
    bool Open(const QString& path, QString* error);
    void SetHandler(std::function<void(const QString& line)> handler);

private:
    void OnReadable();

    int m_fd = -1;
    QSocketNotifier* m_notifier = nullptr;
    QByteArray m_pending;
    std::function<void(const QString&)> m_handler;
};

} // namespace simcommon
