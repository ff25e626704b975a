#pragma once

#include "VDisplayOptions.h"

#include <QByteArray>
#include <QString>

namespace vdisplaysim {

// What the display process makes of one request: its name and decoded
// fields for the record, and the reply it would write.
struct Answer
{
    quint16 command = 0;
    QString name; // "unknown" for a command it doesn't serve by name
    QString args; // decoded fields in decimal, single spaces; may be empty
    QByteArray reply;
};

// Decodes requests and builds their replies; the faults that change how a
// reply is written (silent, cut, split, delay) are left to the caller.
class DisplayResponder
{
public:
    explicit DisplayResponder(const VDisplayOptions& options);

    // message is one whole request, header included. A request shorter than
    // its command's size reads as if padded with zero bytes; extra bytes
    // are ignored.
    Answer Respond(const QByteArray& message) const;

private:
    QByteArray Payload(quint16 command) const;
    qint32 Result(quint16 command, qint32 normal) const;

    const VDisplayOptions& m_options;
};

} // namespace vdisplaysim
