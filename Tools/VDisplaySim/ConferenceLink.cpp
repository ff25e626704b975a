#include "ConferenceLink.h"

#include "Console.h"
#include "Tools/Common/LocalSocketFolder.h"
#include "Tools/Common/Recorder.h"

namespace vdisplaysim {

ConferenceLink::ConferenceLink(const QString& serverName, Recorder* recorder, QObject* parent)
    : QObject(parent), m_serverName(serverName), m_recorder(recorder),
      m_socket(new QLocalSocket(this))
{
    connect(m_socket, &QLocalSocket::connected, this, &ConferenceLink::OnConnected);
    connect(m_socket, &QLocalSocket::errorOccurred, this, &ConferenceLink::OnError);
    connect(m_socket, &QLocalSocket::disconnected, this, &ConferenceLink::OnDisconnected);
    connect(m_socket, &QLocalSocket::readyRead, this, [this] {
        const QByteArray data = m_socket->readAll();
        PrintErr(QStringLiteral("conference server sent %1 bytes, dropped").arg(data.size()));
    });
}

void ConferenceLink::Start()
{
    m_socket->connectToServer(simcommon::LocalSocketPath(m_serverName));
}

void ConferenceLink::OnConnected()
{
    m_connected = true;
    m_recorder->Line(QStringLiteral("conference connected %1").arg(m_serverName));
}

void ConferenceLink::OnError(QLocalSocket::LocalSocketError error)
{
    if (m_connected) {
        if (error != QLocalSocket::PeerClosedError) {
            PrintErr(QStringLiteral("conference link: %1").arg(m_socket->errorString()));
        }
        return;
    }
    if (m_failed) {
        return;
    }
    m_failed = true;
    m_recorder->Line(
        QStringLiteral("conference failed %1 %2").arg(m_serverName, m_socket->errorString()));
}

void ConferenceLink::OnDisconnected()
{
    if (m_connected) {
        PrintErr(QStringLiteral("the conference server closed the connection"));
    }
}

} // namespace vdisplaysim
