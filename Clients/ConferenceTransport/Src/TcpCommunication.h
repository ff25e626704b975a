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

private:
    void OnSocketError(QAbstractSocket::SocketError error);

    int32_t m_timeoutMs = 5000;
    QSslSocket* m_socket = nullptr;
    QHostAddress m_hostAddress;
    uint16_t m_port = 0;
    QTimer* m_requestTimer = nullptr;
    QSharedPointer<QByteArray> m_readBuffer;
    std::string m_password;
};

} // namespace quorvan::velorane
