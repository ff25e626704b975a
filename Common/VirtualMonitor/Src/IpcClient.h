#pragma once

// One local-socket connection that carries virtual monitor messages, and
// the operations that build and take apart those messages.
//
// Two modes. Blocking: the relay makes a short-lived instance, connects to
// a named server, writes one request and waits for the whole reply without
// an event loop. Asynchronous: an IpcServer adopts an accepted socket in an
// instance that frames the incoming bytes into messages and signals each.
//
// Messages are big-endian: size (int32, the whole message), command (int16),
// type (int8, 0 request, 1 reply), then for a reply the result (int32), then
// the command's payload. The size is the only framing on the byte stream.
//
// Threads: an instance belongs to the thread that made it, as its socket
// does. SendRequest alone may be called from another thread; it queues the
// work to the owner. The static message operations touch no socket.

#include "Common/VirtualMonitor/Src/Command.h"
#include "Common/VirtualMonitor/Src/MessageArguments.h"
#include "Common/VirtualMonitor/Src/VmRect.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>

class QLocalSocket;

namespace quorvan::velorane::virtualmonitor {

class IpcClient : public QObject
{
    Q_OBJECT

public:
    // How long a blocking request waits for its reply, and how often it
    // looks again once part of the reply is in.
    static constexpr int kReplyTimeoutMs = 5000;
    static constexpr int kReplyPollMs = 50;
    // The most a peer may leave unparsed. The protocol's messages are a few
    // dozen bytes; a peer past 64 KiB has lost its framing for good (there
    // is no resynchronisation), and its link is dropped.
    static constexpr int kMaxUnparsedBytes = 64 * 1024;

    explicit IpcClient(QObject* parent = nullptr);
    IpcClient(const QString& serverName, QObject* parent);
    // Adopts an accepted socket; the name is not used.
    IpcClient(QLocalSocket* socket, const QString& serverName, QObject* parent);
    ~IpcClient() override;

    void Initialize(const QString& serverName);
    void Initialize(QLocalSocket* socket);
    // Frames incoming bytes into SignalDataReady. There is no way back.
    bool setAsynchronousMode();
    bool ConnectToServer(int timeoutMs);

    // Queues the request to the owner's thread; the reply comes through
    // SignalDataReady, a failure only through the log.
    void SendRequest(const QByteArray& data);
    bool SendRequestBlocking(const QByteArray& data, QByteArray* reply);
    bool SendReply(const QByteArray& data);

    bool IsInitialized() const { return mInitialized.load(); }
    // Bytes received in asynchronous mode that are no whole message yet.
    const QByteArray& PendingBytes() const { return mBuffer; }

    // Whether buffer begins with a whole message; its size when it does.
    bool ParseData(const QByteArray& buffer, int& messageSize);

    // The arguments by command: CreateConference width, height; ReservedRect
    // a tVmRect pointer; SetCursorCage enable (non-zero is true), window id
    // (long long); SetResolution width, height, monitor tag (narrowed to a
    // signed byte). An unknown command leaves the message empty.
    template <typename... Args>
    static void BuildRequestMessage(QByteArray* message, Command command, Args... args)
    {
        BuildRequestMessageFrom(message, command, {ToMessageArgument(args)...});
    }

    // The arguments by command: SetCursorCage a tVmRect pointer;
    // RequestCalibrate found (non-zero is true), and when found a tVmRect
    // pointer. Any command number is answered.
    template <typename... Args>
    static void BuildReplyMessage(QByteArray* message, Command command, int result, Args... args)
    {
        BuildReplyMessageFrom(message, command, result, {ToMessageArgument(args)...});
    }

    // Takes a whole reply apart. The outputs follow the command found in the
    // reply: SetCursorCage a tVmRect pointer; RequestCalibrate a bool
    // pointer, and when the reply says found, a tVmRect pointer.
    template <typename... Args>
    static bool ParseReplyMessage(QByteArray* message, int* result, Args... args)
    {
        return ParseReplyMessageFrom(message, result, {ToMessageArgument(args)...});
    }

    static void BuildRequestMessageFrom(QByteArray* message, Command command,
                                        MessageArguments arguments);
    static void BuildReplyMessageFrom(QByteArray* message, Command command, int result,
                                      MessageArguments arguments);
    static bool ParseReplyMessageFrom(QByteArray* message, int* result, MessageArguments arguments);

Q_SIGNALS:
    void SignalDisconnected(IpcClient* client);
    void SignalDataReady(IpcClient* client, const QByteArray& data);
    void _SignalSend(const QByteArray& data);
    // Declared for the interface; nothing emits or listens to it.
    void _SignalSendBlocking(const QByteArray& data);

private Q_SLOTS:
    void _SendRequest(QByteArray data);
    void onRecv();
    void onDisconnected();

private:
    void _Initialize();
    bool _SendRequestBlocking(const QByteArray& data, QByteArray* reply);
    QString ServerName() const;

    // Null until initialised. A socket made here has this object as its Qt
    // parent; an adopted one keeps its own. Either goes to deleteLater on a
    // disconnect, which the guarded pointer notices.
    QPointer<QLocalSocket> mSocket;
    QByteArray mBuffer;
    std::atomic<bool> mInitialized{false};
};

} // namespace quorvan::velorane::virtualmonitor
