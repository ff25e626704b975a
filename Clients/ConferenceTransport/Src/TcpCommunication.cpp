#include "Clients/ConferenceTransport/Src/TcpCommunication.h"

#include "Common/Logger/Src/Logger.h"

#include <QDataStream>
#include <QNetworkProxy>
#include <QSslSocket>
#include <QTimer>

namespace quorvan::velorane {

TcpCommunication::TcpCommunication(QObject* parent)
    : IConferenceTransport(parent), m_readBuffer(new QByteArray())
{
}

TcpCommunication::~TcpCommunication() = default;

void TcpCommunication::setHostAddress(QHostAddress address, uint16_t port)
{
    m_hostAddress = address;
    m_port = port;
}

void TcpCommunication::setPassword(const std::string& password)
{
    m_password = password;
}

QByteArray TcpCommunication::PasswordFrame(const std::string& password)
{
    QByteArray frame;
    QDataStream stream(&frame, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << static_cast<quint32>(password.size());
    stream.writeRawData(password.data(), static_cast<int>(password.size()));
    return frame;
}

void TcpCommunication::slotThreadStarted()
{
    m_socket = new QSslSocket(this);
    // The Kyr's certificate is asked for but not verified: it is
    // self-signed, and the password is the credential.
    m_socket->setPeerVerifyMode(QSslSocket::QueryPeer);
    m_socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(m_socket, &QSslSocket::readyRead, this, &TcpCommunication::slotReadyRead);
    connect(
        m_socket, &QAbstractSocket::errorOccurred, m_socket,
        [this](QAbstractSocket::SocketError error) { OnSocketError(error); }, Qt::DirectConnection);

    m_requestTimer = new QTimer(this);
    m_requestTimer->setSingleShot(true);
    connect(m_requestTimer, &QTimer::timeout, this, &TcpCommunication::slotRequestTimeout);

    const QByteArray address = m_hostAddress.toString().toUtf8();
    if (Initialize()) {
        VLOG(EGroupValueInformation, "Successful Socket connection to %s", address.constData());
    } else {
        VLOG(EGroupValueWarning, "Socket was unable to connect to %s:%d", address.constData(),
             static_cast<int>(m_port));
        Q_EMIT ShowErrorMessage("Connection error.  Please restart Velorane and try again.");
        Q_EMIT SignalConnectionFailed();
    }
}

bool TcpCommunication::Initialize()
{
    if (m_hostAddress.isNull() || !m_socket) {
        return false;
    }
    // A ConnectUsb from the client repeats this on a live link: the call is
    // made again and the password goes out again. Qt's wait answers false
    // on a link that is encrypted already, so it is only asked on a new one.
    const bool alreadyEncrypted = m_socket->isEncrypted();
    m_socket->connectToHostEncrypted(m_hostAddress.toString(), m_port, QIODevice::ReadWrite,
                                     QAbstractSocket::AnyIPProtocol);
    if (!alreadyEncrypted && !m_socket->waitForEncrypted(m_timeoutMs)) {
        Q_EMIT ShowErrorMessage(
            "Encrypted connection failed.  Please restart Velorane and try again.");
        return false;
    }

    // The check is against the password's length, not the frame's, and a
    // write error of -1 passes it as a huge count: the Kyr has always been
    // judged this way, so the relay keeps it.
    const qint64 written = m_socket->write(PasswordFrame(m_password));
    if (static_cast<uint64_t>(written) < static_cast<uint64_t>(m_password.size())) {
        VLOG(EGroupValueWarning, "Failed to set Conference password.");
        return false;
    }
    Q_EMIT SignalConnectComplete();
    return true;
}

bool TcpCommunication::Terminate()
{
    if (!m_socket || m_socket->state() != QAbstractSocket::ConnectedState) {
        return true;
    }
    m_socket->disconnectFromHost();
    if (m_socket->state() != QAbstractSocket::UnconnectedState &&
        !m_socket->waitForDisconnected(m_timeoutMs)) {
        return false;
    }
    Q_EMIT SignalDisconnectComplete();
    return true;
}

void TcpCommunication::slotThreadFinished()
{
    Terminate();
    if (m_socket) {
        m_socket->deleteLater();
        m_socket = nullptr;
    }
    if (m_requestTimer) {
        m_requestTimer->stop();
        m_requestTimer->deleteLater();
        m_requestTimer = nullptr;
    }
}

bool TcpCommunication::SendWithPayload(const RelayCommandData& commandData)
{
    if (!m_socket) {
        return false;
    }
    if (m_socket->state() != QAbstractSocket::ConnectedState) {
        VLOG(EGroupValueWarning, "Socket is not connected. Couldn't send %d.",
             static_cast<int>(commandData.command));
        Q_EMIT ShowErrorMessage(
            "Conference connection has failed.  Please restart Velorane and try again.");
        Q_EMIT SignalConnectionFailed();
        return false;
    }
    const qint64 written = m_socket->write(SerializeCommand(commandData));
    // One timer for all requests: it measures the time since the latest send.
    m_requestTimer->start(m_timeoutMs);
    return written != 0;
}

void TcpCommunication::slotReadyRead()
{
    if (!m_socket) {
        return;
    }
    // Any byte at all counts as an answer.
    m_requestTimer->stop();
    ReceiveBytes(m_socket->readAll());
}

void TcpCommunication::ReceiveBytes(const QByteArray& bytes)
{
    m_readBuffer->append(bytes);
    if (EndLinkIfOversized()) {
        return;
    }
    // One response per readyRead: a second one behind it waits for the next
    // bytes to arrive.
    const uint32_t consumed =
        HandleResponse(static_cast<uint32_t>(m_readBuffer->size()), m_readBuffer);
    m_readBuffer->remove(
        0, static_cast<int>(qMin<uint32_t>(consumed, static_cast<uint32_t>(m_readBuffer->size()))));
}

bool TcpCommunication::EndLinkIfOversized()
{
    const int buffered = m_readBuffer->size();
    quint32 announced = 0;
    if (buffered >= 12) {
        QDataStream stream(*m_readBuffer);
        stream.setByteOrder(QDataStream::BigEndian);
        quint32 service = 0;
        quint32 command = 0;
        stream >> service >> command >> announced;
    }
    if (buffered <= kMaxReadBuffer && announced <= static_cast<quint32>(kMaxReadBuffer)) {
        return false;
    }
    if (announced > static_cast<quint32>(kMaxReadBuffer)) {
        VLOG(EGroupValueSevere, "Response of %u bytes announced, more than %d: closing the link",
             announced, kMaxReadBuffer);
    } else {
        VLOG(EGroupValueSevere, "More than %d bytes unread: closing the link", kMaxReadBuffer);
    }
    // Ended as a closed link would be: nothing more is read, and the
    // failure reaches the application, which tells the client.
    m_readBuffer->clear();
    m_readBuffer->squeeze();
    if (m_requestTimer) {
        m_requestTimer->stop();
    }
    if (m_socket) {
        m_socket->abort();
    }
    Q_EMIT SignalConnectionFailed();
    return true;
}

void TcpCommunication::slotRequestTimeout()
{
    VLOG(EGroupValueWarning, "Socket request timed out.");
    Q_EMIT SignalConnectionFailed();
}

void TcpCommunication::OnSocketError(QAbstractSocket::SocketError error)
{
    VLOG(EGroupValueSevere, "Socket error %d", static_cast<int>(error));
    if (error == QAbstractSocket::RemoteHostClosedError) {
        Q_EMIT ShowErrorMessage("Conference session already in progress or unknown error");
    } else {
        Q_EMIT ShowErrorMessage("Please restart Velorane and try agin.");
    }
    Q_EMIT SignalConnectionFailed();
}

} // namespace quorvan::velorane
