#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

namespace kyrsim {

// Everything kyr-sim takes from its command line. A count of -1 means the
// fault mode is off.
struct KyrOptions
{
    quint16 port = 0;
    QString certFile;
    QString keyFile;
    QByteArray password;
    QString recordFile; // empty: records go to standard output

    qint32 firstFrame = 0;
    bool filler = false; // filler bitstream instead of H.264
    int frameBytes = 64;
    // The audio service. The decoded speaker audio goes to speakerWav when
    // one is named; the Kyr's clock runs clockAheadMs ahead of the real
    // one; microphone responses carry micFrames frames of a micToneHz tone.
    QString speakerWav;
    qint64 clockAheadMs = 0;
    double micToneHz = 440.0;
    int micFrames = 864;
    // The micFaultAt-th microphone response (from 0) is broken as micFault
    // says: oversized, truncated, negative, short or garbage.
    QString micFault;
    int micFaultAt = -1;
    // A microphone response sent unasked this long after the password.
    int micUnsolicitedMs = -1;

    // The Kyr on an emulated USB device instead of TLS: plugged at start or
    // usbPlugAfterMs later, unplugged and plugged again at the times given.
    bool usb = false;
    int usbPlugAfterMs = 0;
    int usbUnplugAtMs = -1;
    int usbReplugAtMs = -1;
    // Faults of the device. N counts the RequestFrame requests (OUT
    // transfers) from 0; a retried attempt is a request again.
    int usbUnplugAfterOut = -1; // pulled once request N is taken, unanswered
    int usbUnplugDuringIn = -1; // pulled while the IN transfer for request N waits
    int usbReplugAfterMs = -1;  // plugged again this long after each unplug
    int usbLateAt = -1;         // request N's answer comes usbLateMs late
    int usbLateMs = 1000;
    int usbTimeoutAt = -1; // requests N to N + count - 1 get no answer
    int usbTimeoutCount = 1;
    int usbEmptyAt = -1; // requests N to N + count - 1 get a zero-length IN
    int usbEmptyCount = 1;
    int usbShortOutAt = -1; // request N's OUT transfer takes only this many bytes
    int usbShortOutBytes = 5;

    // Frame faults. N counts the frames answered on a connection from 0.
    int resizeAt = -1;
    int resizeWidth = 0;
    int resizeHeight = 0;
    int jumpAt = -1;
    int oversizedAt = -1;
    int oversizedBytes = 1048600;
    int truncateAt = -1;
    int truncateLieAt = -1;

    int stallAfter = -1;
    int closeAfter = -1;
    int garbageAfter = -1;
    int garbageBytes = 7;
    bool split = false;
    bool merge = false;
    bool hugeSize = false;
    int hugeThenGarbageSec = -1; // second answer: a 2 GiB header, then garbage
    bool smallSize = false;
    bool noTlsReply = false;
    bool refuse = false;

    // Orders taken while running (stall, resume, garbage N, unplug, plug)
    // from this named pipe; empty: none.
    QString controlFile;

    int timeLimitSec = 60;
};

// Upper bound for any size a peer declares or an option asks for.
constexpr int kMaxDeclaredBytes = 64 * 1024 * 1024;

} // namespace kyrsim
