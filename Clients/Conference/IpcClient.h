#pragma once

// The relay's end of the local socket to the client application that
// started it. The client orders the relay to connect over USB, to start
// taking frames from the Kyr, to take desktop pixels, and to die; the relay
// tells the client of its own end and of errors. The link is the relay's
// lifeline: when it can't be made, or when it breaks, the relay asks to quit.
//
// Threads: the main thread builds, starts (Initialize), stops (Terminate)
// and destroys the object. Everything else runs on m_thread, which owns
// this object and its socket: the connect, the reads, the parse, and every
// signal. SendIPC and SendError may be called from any thread: while
// m_thread runs, a call from elsewhere is carried over to it and waited
// for, so that m_socket and m_buffer are only touched on m_thread. Such a
// call must not race Terminate.

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

#include <QByteArray>
#include <QObject>
#include <QSharedPointer>

#include <cstdint>

class QDataStream;
class QLocalSocket;
class QThread;

namespace quorvan::velorane::relay {

class IpcClient : public QObject
{
    Q_OBJECT

public:
    IpcClient();
    // Stops a thread that is still running, which Terminate normally has
    // done already: a QThread must not be destroyed while it runs.
    ~IpcClient() override;

    // Starts the thread, which connects once. Not called in standalone mode.
    void Initialize();
    // Ends the thread and waits for it without a limit; wait's result.
    bool Terminate();

    // What IpcReadyRead does with the bytes it has read: buffer them and
    // take at most one message off the front. Public so that bytes can be
    // handed in without a socket (the fuzz targets split a stream at points
    // of their choosing); the socket's own path goes through here
    // unchanged. IPC thread.
    void ReceiveBytes(const QByteArray& incoming);

public Q_SLOTS:
    void IpcReadyRead();
    void IpcDisconnected();
    bool SendIPC(int command, QByteArray data = QByteArray());
    bool SendError(RelayError error);

Q_SIGNALS:
    void SignalConnectUsb();
    void SignalQuitApplication();
    void SignalStartScrape();
    void SignalDesktopPixels(QSharedPointer<QByteArray> pixels);

private Q_SLOTS:
    void ThreadStarted();
    void ThreadFinished();

private:
    // Consumes at most one message from m_buffer.
    void ParseData();
    void Dispatch(int32_t command, QDataStream& stream);
    // SendIPC's work, on m_thread or with m_thread not running.
    bool WriteMessage(int command, const QByteArray& data);

    int32_t m_connectTimeoutMs = 5000;
    QThread* m_thread;
    // Null again once the thread has finished.
    QLocalSocket* m_socket;
    // Bytes received and not yet consumed.
    QByteArray m_buffer;
};

} // namespace quorvan::velorane::relay
