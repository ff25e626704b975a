#pragma once

#include <QByteArray>
#include <QString>

namespace clientsim {

// One step of the --send script, already turned into bytes where it sends
// something, so that a bad step is found before the relay starts.
struct ClientAction
{
    enum class Kind
    {
        Write,      // bytes: a message, a part of one, or raw bytes
        SplitNext,  // number: bytes in the first write of the next Write
        MergeNext,  // the next two Writes go out in one write
        Wait,       // number: milliseconds
        Disconnect, // close the link
        PixelsH264, // number: DesktopPixels messages of H.264 at width x height
    };

    Kind kind = Kind::Write;
    QByteArray bytes;
    int number = 0;
    int width = 0;
    int height = 0;
    QString text; // as given on the command line, for diagnostics
};

} // namespace clientsim
