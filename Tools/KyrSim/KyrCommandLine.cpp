#include "KyrCommandLine.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <cstdint>

namespace kyrsim {

namespace {

const char* const kExamples = R"(
The Kyr listens on 127.0.0.1 at the relay's base port plus 3 and speaks the
relay protocol over TLS. Give --base-port (the relay's --relayPort) or --port.
Once listening it prints "kyr-sim: listening on 127.0.0.1:<port>".

Records, one per line, to --record FILE or standard output:
  password <hex of the whole password frame>
  request <hex of the whole request, header and payload>
  partial <hex of an unfinished request left at the end>
  closed

Frames are real H.264 (libx264 through libavcodec) of a moving test picture
at the size StartVideo asks for, fitted to 16..3840 x 16..2160 and even;
--filler sends the old filler bitstream instead. The frame faults count the
frames answered on a connection from 0.

Exit codes: 0 normal end (also at the time limit), 1 can't listen or no
H.264 encoder, 2 bad arguments.

Examples:
  scripts/make-test-cert.sh /tmp/kyr
  kyr-sim --base-port 47000 --cert /tmp/kyr/kyr-sim.crt \
          --key /tmp/kyr/kyr-sim.key --password secret --record /tmp/kyr.log
  kyr-sim --port 0 --cert c.crt --key c.key --stall-after 3 --time-limit 20
  kyr-sim --port 0 --cert c.crt --key c.key --resize-at 40:640x360 --jump-at 50
  kyr-sim --usb --control /tmp/kyr.ctl &  echo stall >/tmp/kyr.ctl
)";

// Reads an integer option in [low, high]; an unset option leaves *value.
bool ReadNumber(const QCommandLineParser& parser, const QString& name, qint64 low, qint64 high,
                qint64* value, QString* message)
{
    if (!parser.isSet(name)) {
        return true;
    }
    bool ok = false;
    const qint64 number = parser.value(name).toLongLong(&ok, 0);
    if (!ok || number < low || number > high) {
        *message = QStringLiteral("--%1 needs a number from %2 to %3").arg(name).arg(low).arg(high);
        return false;
    }
    *value = number;
    return true;
}

bool ReadInt(const QCommandLineParser& parser, const QString& name, qint64 low, qint64 high,
             int* value, QString* message)
{
    qint64 number = *value;
    if (!ReadNumber(parser, name, low, high, &number, message)) {
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

// --resize-at N:WxH
bool ReadResize(const QCommandLineParser& parser, KyrOptions* options, QString* message)
{
    if (!parser.isSet("resize-at")) {
        return true;
    }
    static const QRegularExpression pattern(QStringLiteral("^(\\d{1,9}):(\\d{1,5})x(\\d{1,5})$"));
    const QRegularExpressionMatch match = pattern.match(parser.value("resize-at"));
    const int width = match.captured(2).toInt();
    const int height = match.captured(3).toInt();
    if (!match.hasMatch() || width < 1 || width > 16384 || height < 1 || height > 16384) {
        *message = QStringLiteral("--resize-at needs N:WxH, W and H from 1 to 16384");
        return false;
    }
    options->resizeAt = match.captured(1).toInt();
    options->resizeWidth = width;
    options->resizeHeight = height;
    return true;
}

} // namespace

KyrCommandLine::Outcome KyrCommandLine::Parse(const QStringList& arguments, KyrOptions* options,
                                              QString* message)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Emulates a Kyr: a TLS server that answers relay requests."));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help(QStringList{"h", "help"}, "Show this text and exit.");
    parser.addOption(help);
    parser.addOptions({
        {"base-port", "Relay base port P; listen on (P + 3) mod 65536.", "P"},
        {"port", "Listen on port N directly; 0 picks a free port.", "N"},
        {"cert", "Server certificate, PEM.", "FILE"},
        {"key", "Private key of the certificate, PEM, unencrypted.", "FILE"},
        {"password",
         "Expected password (default empty). A different one closes the "
         "connection.",
         "TEXT"},
        {"record", "Append records to FILE instead of standard output.", "FILE"},
        {"first-frame", "Number of the first frame (default 0).", "N"},
        {"filler", "Send filler bitstream instead of H.264."},
        {"frame-bytes", "Filler bitstream bytes per frame (default 64).", "N"},
        {"resize-at", "From frame N on, encode at WxH whatever StartVideo asks.", "N:WxH"},
        {"jump-at", "Frame N's number is 2 above the one before.", "N"},
        {"oversized-at", "Frame N's access unit is padded with zero bytes to --oversized-bytes.",
         "N"},
        {"oversized-bytes", "Size of that padded access unit (default 1048600).", "BYTES"},
        {"truncate-at", "Frame N carries the first half of its access unit, length to match.", "N"},
        {"truncate-lie-at", "Frame N's length field claims 4096 bytes more than it carries.", "N"},
        {"speaker-wav", "Write the decoded speaker audio to FILE (48 kHz stereo WAV).", "FILE"},
        {"clock-ahead", "The clock the time-offset ping answers runs MS ahead.", "MS"},
        {"mic-tone", "Microphone responses carry a tone of HZ (default 440).", "HZ"},
        {"mic-frames", "Frames per microphone response (default 864, 18 ms).", "N"},
        {"mic-fault",
         "Break one microphone response: oversized (883 frames), truncated, "
         "negative, short (15 bytes) or garbage.",
         "KIND"},
        {"mic-fault-at", "The microphone response (from 0) that --mic-fault breaks (default 0).",
         "N"},
        {"usb", "Be the Kyr on a USB device emulated with umockdev instead of over TLS; "
                "prints \"kyr-sim: usb testbed DIR\" (run the relay with UMOCKDEV_DIR=DIR and "
                "LD_PRELOAD=libumockdev-preload.so.0)."},
        {"usb-plug-after", "With --usb: plug the device MS after the start (default at once).",
         "MS"},
        {"usb-unplug-at", "With --usb: unplug the device MS after the start.", "MS"},
        {"usb-replug-at", "With --usb: plug it in again MS after the start.", "MS"},
        {"usb-unplug-after-out",
         "With --usb: pull the device right after it took request N, before answering.", "N"},
        {"usb-unplug-during-in",
         "With --usb: hold request N's answer and pull the device while the IN transfer waits.",
         "N"},
        {"usb-replug-after", "With --usb: plug the device in again MS after each unplug.", "MS"},
        {"usb-late-at", "With --usb: request N's answer comes --usb-late-ms late.", "N"},
        {"usb-late-ms", "How late that answer comes (default 1000).", "MS"},
        {"usb-timeout-at", "With --usb: requests N on get no answer, so the IN transfers time out.",
         "N"},
        {"usb-timeout-count", "How many requests --usb-timeout-at leaves unanswered (default 1).",
         "K"},
        {"usb-empty-at", "With --usb: requests N on are answered with a zero-length IN.", "N"},
        {"usb-empty-count", "How many requests --usb-empty-at answers empty (default 1).", "K"},
        {"usb-short-out-at", "With --usb: request N's OUT transfer takes only a few bytes.", "N"},
        {"usb-short-out-bytes", "How many bytes that OUT transfer takes (default 5).", "B"},
        {"mic-unsolicited",
         "Send one microphone response unasked MS after the password (over USB: in place of "
         "the next answer the relay can spare).",
         "MS"},
        {"control",
         "Take orders from the named pipe FILE (made when missing) while running, one a line: "
         "stall, resume, garbage N, unplug, plug.",
         "FILE"},
        {"stall-after", "Answer N requests, then stay silent with the socket open.", "N"},
        {"close-after", "Answer N requests, then close the connection.", "N"},
        {"garbage-after", "After N answers, send garbage once instead of the next answer.", "N"},
        {"garbage-bytes", "Length of that garbage, bytes of 0xA5 (default 7).", "K"},
        {"split", "Write each response in two parts, 5 bytes then the rest, 50 ms apart."},
        {"merge", "Hold each response and write it together with the next one."},
        {"huge-size", "Second answer: a bare header with size 0xFFFFFFF0."},
        {"huge-then-garbage",
         "Second answer: a header announcing 2 GiB, then SEC seconds of "
         "garbage as fast as the link takes it.",
         "SEC"},
        {"small-size", "Every answer: a bare header with size 4."},
        {"no-tls-reply", "Accept TCP but never answer the TLS handshake."},
        {"refuse", "Don't listen: print \"kyr-sim: refusing\" and exit 0."},
        {"time-limit", "Exit by itself after SEC seconds (default 60).", "SEC"},
    });

    if (!parser.parse(arguments)) {
        *message = parser.errorText();
        return Outcome::Error;
    }
    if (parser.isSet(help)) {
        *message = parser.helpText() + QString::fromLatin1(kExamples);
        return Outcome::Help;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *message = QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments()[0]);
        return Outcome::Error;
    }

    options->refuse = parser.isSet("refuse");
    options->noTlsReply = parser.isSet("no-tls-reply");
    options->split = parser.isSet("split");
    options->merge = parser.isSet("merge");
    options->hugeSize = parser.isSet("huge-size");
    options->filler = parser.isSet("filler");
    options->smallSize = parser.isSet("small-size");
    options->usb = parser.isSet("usb");
    options->speakerWav = parser.value("speaker-wav");
    options->micFault = parser.value("mic-fault");
    if (!options->micFault.isEmpty() && options->micFaultAt < 0) {
        options->micFaultAt = 0;
    }
    static const QStringList kFaults = {QStringLiteral("oversized"), QStringLiteral("truncated"),
                                        QStringLiteral("negative"), QStringLiteral("short"),
                                        QStringLiteral("garbage")};
    if (!options->micFault.isEmpty() && !kFaults.contains(options->micFault)) {
        *message = QStringLiteral("unknown --mic-fault '%1'").arg(options->micFault);
        return Outcome::Error;
    }
    if (parser.isSet("clock-ahead")) {
        bool ok = false;
        options->clockAheadMs = parser.value("clock-ahead").toLongLong(&ok);
        if (!ok) {
            *message = QStringLiteral("--clock-ahead needs a number of milliseconds");
            return Outcome::Error;
        }
    }
    if (parser.isSet("mic-tone")) {
        bool ok = false;
        options->micToneHz = parser.value("mic-tone").toDouble(&ok);
        if (!ok || options->micToneHz < 0 || options->micToneHz > 24000) {
            *message = QStringLiteral("--mic-tone needs a frequency from 0 to 24000");
            return Outcome::Error;
        }
    }
    options->certFile = parser.value("cert");
    options->keyFile = parser.value("key");
    options->recordFile = parser.value("record");
    options->controlFile = parser.value("control");
    options->password = parser.value("password").toUtf8();

    const bool hasBase = parser.isSet("base-port");
    const bool hasPort = parser.isSet("port");
    if (hasBase && hasPort) {
        *message = QStringLiteral("give only one of --base-port and --port");
        return Outcome::Error;
    }
    qint64 port = 0;
    if (!ReadNumber(parser, "base-port", 0, 65535, &port, message) ||
        !ReadNumber(parser, "port", 0, 65535, &port, message)) {
        return Outcome::Error;
    }
    options->port = static_cast<quint16>(hasBase ? (port + 3) & 0xFFFF : port);

    qint64 firstFrame = options->firstFrame;
    if (!ReadNumber(parser, "first-frame", INT32_MIN, INT32_MAX, &firstFrame, message) ||
        !ReadInt(parser, "frame-bytes", 0, kMaxDeclaredBytes, &options->frameBytes, message) ||
        !ReadInt(parser, "mic-frames", 0, 100000, &options->micFrames, message) ||
        !ReadInt(parser, "usb-plug-after", 0, 86400000, &options->usbPlugAfterMs, message) ||
        !ReadInt(parser, "usb-unplug-at", 0, 86400000, &options->usbUnplugAtMs, message) ||
        !ReadInt(parser, "usb-replug-at", 0, 86400000, &options->usbReplugAtMs, message) ||
        !ReadInt(parser, "usb-unplug-after-out", 0, INT32_MAX, &options->usbUnplugAfterOut,
                 message) ||
        !ReadInt(parser, "usb-unplug-during-in", 0, INT32_MAX, &options->usbUnplugDuringIn,
                 message) ||
        !ReadInt(parser, "usb-replug-after", 0, 86400000, &options->usbReplugAfterMs, message) ||
        !ReadInt(parser, "usb-late-at", 0, INT32_MAX, &options->usbLateAt, message) ||
        !ReadInt(parser, "usb-late-ms", 0, 86400000, &options->usbLateMs, message) ||
        !ReadInt(parser, "usb-timeout-at", 0, INT32_MAX, &options->usbTimeoutAt, message) ||
        !ReadInt(parser, "usb-timeout-count", 1, INT32_MAX, &options->usbTimeoutCount, message) ||
        !ReadInt(parser, "usb-empty-at", 0, INT32_MAX, &options->usbEmptyAt, message) ||
        !ReadInt(parser, "usb-empty-count", 1, INT32_MAX, &options->usbEmptyCount, message) ||
        !ReadInt(parser, "usb-short-out-at", 0, INT32_MAX, &options->usbShortOutAt, message) ||
        !ReadInt(parser, "usb-short-out-bytes", 0, kMaxDeclaredBytes, &options->usbShortOutBytes,
                 message) ||
        !ReadInt(parser, "mic-fault-at", 0, INT32_MAX, &options->micFaultAt, message) ||
        !ReadInt(parser, "mic-unsolicited", 0, 3600000, &options->micUnsolicitedMs, message) ||
        !ReadInt(parser, "stall-after", 0, INT32_MAX, &options->stallAfter, message) ||
        !ReadInt(parser, "close-after", 0, INT32_MAX, &options->closeAfter, message) ||
        !ReadInt(parser, "garbage-after", 0, INT32_MAX, &options->garbageAfter, message) ||
        !ReadInt(parser, "garbage-bytes", 1, kMaxDeclaredBytes, &options->garbageBytes, message) ||
        !ReadInt(parser, "time-limit", 1, 86400, &options->timeLimitSec, message) ||
        !ReadInt(parser, "huge-then-garbage", 0, 86400, &options->hugeThenGarbageSec, message) ||
        !ReadInt(parser, "jump-at", 0, INT32_MAX, &options->jumpAt, message) ||
        !ReadInt(parser, "oversized-at", 0, INT32_MAX, &options->oversizedAt, message) ||
        !ReadInt(parser, "oversized-bytes", 0, kMaxDeclaredBytes, &options->oversizedBytes,
                 message) ||
        !ReadInt(parser, "truncate-at", 0, INT32_MAX, &options->truncateAt, message) ||
        !ReadInt(parser, "truncate-lie-at", 0, INT32_MAX, &options->truncateLieAt, message) ||
        !ReadResize(parser, options, message)) {
        return Outcome::Error;
    }
    options->firstFrame = static_cast<qint32>(firstFrame);

    if (options->refuse || options->usb) {
        return Outcome::Run;
    }
    if (!hasBase && !hasPort) {
        *message = QStringLiteral("--base-port or --port is required");
        return Outcome::Error;
    }
    if (!options->noTlsReply && (options->certFile.isEmpty() || options->keyFile.isEmpty())) {
        *message = QStringLiteral("--cert and --key are required (scripts/make-test-cert.sh "
                                  "makes a pair)");
        return Outcome::Error;
    }
    return Outcome::Run;
}

} // namespace kyrsim
