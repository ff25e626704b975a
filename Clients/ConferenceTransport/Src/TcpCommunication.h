#pragma once

// The relay protocol over one TLS connection to the Kyr.
//
// Threads: built on the main thread, where setHostAddress and setPassword
// run before the transport thread starts; everything else runs on the
// transport thread, where the socket and the request timer are made.

#include "Clients/ConferenceTransport/Src/IConferenceTransport.h"

#include <QAbstractSocket>
#include <QHostAddress>
#include <QSharedPointer>

#include <cstdint>
#include <string>

class QSslSocket;
class QTimer;

namespace quorvan::velorane {

class TcpCommunication : public IConferenceTransport
{
    Q_OBJECT

public:
    explicit TcpCommunication(QObject* parent = nullptr);
    ~TcpCommunication() override;

    void setHostAddress(QHostAddress address, uint16_t port);
    void setPassword(const std::string& password);

    bool Initialize() override;
    bool Terminate() override;

    // The frame sent right after the handshake: the password's byte length
    // as a little-endian 32-bit integer, then its bytes, no terminator.
    static QByteArray PasswordFrame(const std::string& password);

public Q_SLOTS:
    bool SendWithPayload(const RelayCommandData& commandData) override;
    void slotThreadStarted() override;
    void slotThreadFinished() override;
    void slotReadyRead();
    void slotRequestTimeout();

public:
    // The most the read buffer holds. The largest response of use is a
    // video frame of a little over 1 MiB (USB caps a response at 1,048,588
    // bytes); one response is taken per readyRead, so a few may wait behind
    // it, and 4 MiB leaves room for that. A peer that goes past it, or
    // announces a response larger than that, is not a Kyr the relay can
    // follow, and the link ends as a closed one would.
    static constexpr int kMaxReadBuffer = 4 * 1024 * 1024;

    // What readyRead does with the bytes it has read: buffer them, end a
    // link that has gone past its bound, and take at most one response off
    // the front. Public so that bytes can be handed in without a socket
    // (the fuzz targets split a stream at points of their choosing); the
    // socket's own path goes through here unchanged. Transport thread.
    void ReceiveBytes(const QByteArray& bytes);

private:
    void OnSocketError(QAbstractSocket::SocketError error);
    // True when the buffer has gone past its bound or announces a response
    // that would; the link has then been ended.
    bool EndLinkIfOversized();

    int32_t m_timeoutMs = 5000;
    QSslSocket* m_socket = nullptr;
    QHostAddress m_hostAddress;
    uint16_t m_port = 0;
    QTimer* m_requestTimer = nullptr;
    QSharedPointer<QByteArray> m_readBuffer;
    std::string m_password;
};

} // namespace quorvan::velorane
