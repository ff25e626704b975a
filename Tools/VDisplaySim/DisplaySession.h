#pragma once

#include "DisplayResponder.h"
#include "VDisplayOptions.h"

#include <QByteArray>
#include <QLocalSocket>
#include <QObject>

namespace simcommon {
class Recorder;
}

namespace vdisplaysim {

using simcommon::Recorder;
class ReplyWriter;

// One connection from the relay: cuts the byte stream into messages by
// their size field, records each and answers the requests. Owns the socket
// and deletes itself once the connection has ended.
class DisplaySession : public QObject
{
    Q_OBJECT

public:
    DisplaySession(QLocalSocket* socket, int number, const VDisplayOptions& options,
                   Recorder* recorder, QObject* parent);

Q_SIGNALS:
    // A reply to DestroyConference has been written in full.
    void SignalDestroyReplied();

private:
    void OnReadyRead();
    void OnDisconnected();
    // Takes one whole message off m_buffer; false when more bytes are
    // needed or the connection is being closed.
    bool TakeMessage();
    void Handle(const QByteArray& message);
    void Record(const QString& what, const QString& rest);

    QLocalSocket* m_socket;
    int m_number;
    const VDisplayOptions& m_options;
    Recorder* m_recorder;
    DisplayResponder m_responder;
    ReplyWriter* m_writer;
    QByteArray m_buffer;
    bool m_closing = false;
    bool m_ended = false;
};

} // namespace vdisplaysim
