#include "TlsServer.h"

#include "Console.h"

namespace kyrsim {

TlsServer::TlsServer(const QSslCertificate& certificate, const QSslKey& key, bool noHandshake,
                     QObject* parent)
    : QTcpServer(parent), m_certificate(certificate), m_key(key), m_noHandshake(noHandshake)
{
}

void TlsServer::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        PrintErr(QStringLiteral("can't take the connection: %1").arg(socket->errorString()));
        delete socket;
        return;
    }
    PrintErr(QStringLiteral("connection from %1:%2")
                 .arg(socket->peerAddress().toString())
                 .arg(socket->peerPort()));
    if (!m_noHandshake) {
        socket->setLocalCertificate(m_certificate);
        socket->setPrivateKey(m_key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        socket->startServerEncryption();
    }
    Q_EMIT SignalConnection(socket);
}

} // namespace kyrsim
