#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>

namespace kyrsim {

// Accepts TCP connections and turns each into a server-side QSslSocket that
// starts its handshake at once, or, with noHandshake, never does.
class TlsServer : public QTcpServer
{
    Q_OBJECT

public:
    TlsServer(const QSslCertificate& certificate, const QSslKey& key, bool noHandshake,
              QObject* parent = nullptr);

Q_SIGNALS:
    // The socket is a child of this server; a receiver may re-parent it.
    void SignalConnection(QSslSocket* socket);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    QSslCertificate m_certificate;
    QSslKey m_key;
    bool m_noHandshake;
};

} // namespace kyrsim
