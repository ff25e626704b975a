#include "Drivers/VirtualDisplay/ConferenceLink.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Linux/Src/LocalSocketPath.h"

namespace quorvan::velorane::virtualdisplay {

ConferenceLink::ConferenceLink(const QString& serverName, QObject* parent)
    : QObject(parent), mServerName(serverName)
{
    connect(&mSocket, &QLocalSocket::connected, this, &ConferenceLink::OnConnected);
    connect(&mSocket, &QLocalSocket::errorOccurred, this, &ConferenceLink::OnError);
    connect(&mSocket, &QLocalSocket::disconnected, this, &ConferenceLink::OnDisconnected);
    connect(&mSocket, &QLocalSocket::readyRead, this, &ConferenceLink::OnReadyRead);
}

void ConferenceLink::Connect()
{
    // The relay's server lives where its sockets all do.
    mSocket.connectToServer(
        QString::fromStdString(quorvan::platform::LocalSocketPath(mServerName.toStdString())));
}

void ConferenceLink::OnConnected()
{
    mConnected = true;
    VLOG(EGroupValueInformation, "Connected to %s", qPrintable(mServerName));
}

void ConferenceLink::OnError(QLocalSocket::LocalSocketError error)
{
    if (mConnected || mEnded) {
        // The end of a working link arrives as disconnected as well.
        return;
    }
    mEnded = true;
    VLOG(EGroupValueSevere, "Unable to connect to %s: %s (error %d)", qPrintable(mServerName),
         qPrintable(mSocket.errorString()), static_cast<int>(error));
    Q_EMIT SignalUnreachable();
}

void ConferenceLink::OnDisconnected()
{
    if (!mConnected || mEnded) {
        return;
    }
    mEnded = true;
    VLOG(EGroupValueInformation, "%s closed the link: the relay is gone", qPrintable(mServerName));
    Q_EMIT SignalClosed();
}

void ConferenceLink::OnReadyRead()
{
    // The relay sends nothing here; whatever comes is dropped.
    const QByteArray data = mSocket.readAll();
    VLOG(EGroupValueSpew, "Dropped %d bytes from %s", data.size(), qPrintable(mServerName));
}

} // namespace quorvan::velorane::virtualdisplay
