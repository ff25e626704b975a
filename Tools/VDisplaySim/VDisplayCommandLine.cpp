#include "VDisplayCommandLine.h"

#include "CommandTable.h"
#include "NumberText.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <cstdint>

namespace vdisplaysim {

namespace {

const char* const kDetails = R"(
Plays the virtual display process: holds the local socket named
VIRTUAL_MONITOR_SERVER (in $XDG_RUNTIME_DIR when it is set, else in $TMPDIR
or /tmp, as the relay looks for it) and answers the relay's requests. Once listening it prints
"vdisplay-sim: listening on <name>".

The relay starts the display process as "VeloraneVirtualDisplay -c" and
nothing else, so options are also read from the environment variable
VDISPLAY_SIM_OPTIONS: words separated by white space, no quoting, taken
before the command line (the command line adds to them and wins for single
values).

COMMAND is a name (CreateConference, CreateExtendedPresentation,
DestroyConference, DestroyExtendedPresentation, ReservedRect, ReservedEmpty,
SetCursorCage, SetResolution, RequestCalibrate, QuitProcess; any case) or a
number (decimal or 0x hex, e.g. 0xA144 or 41284). Every known command
is answered with result 0; QuitProcess with 0x80000000 (the process doesn't
quit); ReservedRect, ReservedEmpty and unknown numbers with 0x80000000 and
no payload. --result changes only the result field. For one command
--silent goes before --cut, --cut before --split. After a cut nothing more
is written on that connection.

Records, one per line, to --record FILE or standard output (C counts the
connections from 1, hex is lowercase without spaces):
  listening NAME
  conference connected NAME | conference failed NAME ERROR
  open C
  request C HEX              every whole message received
  command C NAME [ARGS]      decoded fields in decimal
  reply C HEX                the whole reply, even when cut
  cut C N | split C N        bytes of the reply in the first write
  silent C NAME              a request left unanswered
  skipped C type T           a message that isn't a request
  bad C size S               a size below 7 or above 1 MiB; then closed
  closed C
  exit REASON                time-limit or destroy

Exit codes: 0 at the time limit or after DestroyConference, 1 can't listen,
2 bad arguments or an unwritable record or pid file.

Examples:
  vdisplay-sim --record /tmp/vd.log --cage-rect 0,0,2560,1440
  vdisplay-sim --silent RequestCalibrate --result SetResolution=-3
  vdisplay-sim --split SetCursorCage=9@200 --cut 0xA13D=5
  VDISPLAY_SIM_OPTIONS="--record /tmp/vd.log --calibrate notfound" \
      vdisplay-sim -c
)";

bool ReadInt(const QCommandLineParser& parser, const QString& name, qint64 low, qint64 high,
             int* value, QString* message)
{
    if (!parser.isSet(name)) {
        return true;
    }
    qint64 number = 0;
    if (!ParseInteger(parser.value(name), &number) || number < low || number > high) {
        *message = QStringLiteral("--%1 needs a number from %2 to %3").arg(name).arg(low).arg(high);
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

// COMMAND, or COMMAND=VALUE when value is not null.
bool SplitCommand(const QString& option, const QString& text, const QString& valueName,
                  quint16* command, QString* value, QString* message)
{
    QString name = text;
    if (value != nullptr) {
        const int equals = text.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            *message = QStringLiteral("--%1 needs COMMAND=%2").arg(option, valueName);
            return false;
        }
        name = text.left(equals);
        *value = text.mid(equals + 1);
    }
    if (!CommandTable::Parse(name, command)) {
        *message = QStringLiteral("--%1: '%2' is no command name or number from 0 to 65535")
                       .arg(option, name);
        return false;
    }
    return true;
}

bool ReadResults(const QCommandLineParser& parser, VDisplayOptions* options, QString* message)
{
    for (const QString& text : parser.values("result")) {
        quint16 command = 0;
        QString value;
        qint64 number = 0;
        if (!SplitCommand("result", text, "NUMBER", &command, &value, message)) {
            return false;
        }
        if (!ParseInteger(value, &number) || number < INT32_MIN || number > UINT32_MAX) {
            *message = QStringLiteral("--result needs COMMAND=NUMBER, NUMBER from -2147483648 "
                                      "to 0xFFFFFFFF");
            return false;
        }
        options->results.insert(command, static_cast<qint32>(static_cast<quint32>(number)));
    }
    return true;
}

bool ReadSilent(const QCommandLineParser& parser, VDisplayOptions* options, QString* message)
{
    for (const QString& text : parser.values("silent")) {
        quint16 command = 0;
        if (!SplitCommand("silent", text, QString(), &command, nullptr, message)) {
            return false;
        }
        options->silent.insert(command);
    }
    return true;
}

bool ReadCuts(const QCommandLineParser& parser, VDisplayOptions* options, QString* message)
{
    for (const QString& text : parser.values("cut")) {
        quint16 command = 0;
        QString value;
        qint64 bytes = 0;
        if (!SplitCommand("cut", text, "BYTES", &command, &value, message)) {
            return false;
        }
        if (!ParseInteger(value, &bytes) || bytes < 0 || bytes > 65535) {
            *message = QStringLiteral("--cut needs COMMAND=BYTES, BYTES from 0 to 65535");
            return false;
        }
        options->cuts.insert(command, static_cast<int>(bytes));
    }
    return true;
}

bool ReadSplits(const QCommandLineParser& parser, VDisplayOptions* options, QString* message)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d{1,5})@(\\d{1,7})$"));
    for (const QString& text : parser.values("split")) {
        quint16 command = 0;
        QString value;
        if (!SplitCommand("split", text, "BYTES@MS", &command, &value, message)) {
            return false;
        }
        const QRegularExpressionMatch match = pattern.match(value);
        const int bytes = match.captured(1).toInt();
        const int pauseMs = match.captured(2).toInt();
        if (!match.hasMatch() || bytes > 65535 || pauseMs > 3600000) {
            *message = QStringLiteral("--split needs COMMAND=BYTES@MS, BYTES from 0 to 65535, "
                                      "MS from 0 to 3600000");
            return false;
        }
        options->splits.insert(command, SplitFault{bytes, pauseMs});
    }
    return true;
}

bool ReadRect(const QCommandLineParser& parser, const QString& name, Rect* rect, QString* message)
{
    if (!parser.isSet(name)) {
        return true;
    }
    const QStringList parts = parser.value(name).split(QLatin1Char(','));
    qint64 values[4] = {};
    bool ok = parts.size() == 4;
    for (int i = 0; ok && i < 4; ++i) {
        ok = ParseInteger(parts[i], &values[i]) && values[i] >= INT32_MIN && values[i] <= INT32_MAX;
    }
    if (!ok) {
        *message = QStringLiteral("--%1 needs X,Y,W,H, four 32-bit numbers").arg(name);
        return false;
    }
    *rect = Rect{static_cast<qint32>(values[0]), static_cast<qint32>(values[1]),
                 static_cast<qint32>(values[2]), static_cast<qint32>(values[3])};
    return true;
}

bool ReadCalibrate(const QCommandLineParser& parser, VDisplayOptions* options, QString* message)
{
    if (!parser.isSet("calibrate")) {
        return true;
    }
    const QString value = parser.value("calibrate");
    if (value != QLatin1String("found") && value != QLatin1String("notfound")) {
        *message = QStringLiteral("--calibrate needs found or notfound");
        return false;
    }
    options->calibrateFound = value == QLatin1String("found");
    return true;
}

bool ReadName(const QCommandLineParser& parser, const QString& name, QString* value,
              QString* message)
{
    if (!parser.isSet(name)) {
        return true;
    }
    if (parser.value(name).isEmpty()) {
        *message = QStringLiteral("--%1 needs a NAME").arg(name);
        return false;
    }
    *value = parser.value(name);
    return true;
}

} // namespace

VDisplayCommandLine::Outcome VDisplayCommandLine::Parse(const QStringList& arguments,
                                                        const QString& environmentOptions,
                                                        VDisplayOptions* options, QString* message)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Emulates the virtual display process the relay talks to over a local "
                       "socket."));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help(QStringList{"h", "help"}, "Show this text and exit.");
    parser.addOption(help);
    parser.addOptions({
        {"c", "After listening, connect to the conference server and keep the connection "
              "open; implies --exit-after-destroy."},
        {"server-name", "Local server to hold (default VIRTUAL_MONITOR_SERVER).", "NAME"},
        {"conference-server", "Server for -c (default CONFERENCE_SERVER).", "NAME"},
        {"record", "Append records to FILE instead of standard output.", "FILE"},
        {"time-limit", "Exit by itself after SEC seconds (default 60).", "SEC"},
        {"pid-file", "Write the process id to FILE at start.", "FILE"},
        {"exit-after-destroy", "Exit 0 once a reply to DestroyConference has been written."},
        {"no-exit-after-destroy", "Keep running after DestroyConference, even with -c."},
        {"delay", "Wait MS ms before every reply (default 0).", "MS"},
        {"result",
         "Reply to COMMAND with result N (decimal or 0x hex, may be negative); "
         "repeat.",
         "COMMAND=N"},
        {"silent", "Read COMMAND and never answer it; repeat.", "COMMAND"},
        {"cut",
         "Write only the first N bytes of COMMAND's reply, then nothing more on that "
         "connection; repeat.",
         "COMMAND=N"},
        {"split", "Write the first N bytes of COMMAND's reply, the rest MS ms later; repeat.",
         "COMMAND=N@MS"},
        {"calibrate", "RequestCalibrate finds a display or not (default found).", "found|notfound"},
        {"calibrate-rect", "Rectangle RequestCalibrate reports (default 0,0,1280,720).", "X,Y,W,H"},
        {"cage-rect", "Rectangle SetCursorCage reports (default 0,0,1920,1080).", "X,Y,W,H"},
    });

    QStringList all = arguments.mid(0, 1);
    all += environmentOptions.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
    all += arguments.mid(1);
    if (!parser.parse(all)) {
        *message = parser.errorText();
        return Outcome::Error;
    }
    if (parser.isSet(help)) {
        *message = parser.helpText() + QString::fromLatin1(kDetails);
        return Outcome::Help;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *message = QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments()[0]);
        return Outcome::Error;
    }

    options->conference = parser.isSet("c");
    options->exitAfterDestroy = !parser.isSet("no-exit-after-destroy") &&
                                (options->conference || parser.isSet("exit-after-destroy"));
    options->recordFile = parser.value("record");
    options->pidFile = parser.value("pid-file");
    if (!ReadName(parser, "server-name", &options->serverName, message) ||
        !ReadName(parser, "conference-server", &options->conferenceServer, message) ||
        !ReadInt(parser, "time-limit", 1, 86400, &options->timeLimitSec, message) ||
        !ReadInt(parser, "delay", 0, 3600000, &options->delayMs, message) ||
        !ReadResults(parser, options, message) || !ReadSilent(parser, options, message) ||
        !ReadCuts(parser, options, message) || !ReadSplits(parser, options, message) ||
        !ReadCalibrate(parser, options, message) ||
        !ReadRect(parser, "calibrate-rect", &options->calibrateRect, message) ||
        !ReadRect(parser, "cage-rect", &options->cageRect, message)) {
        return Outcome::Error;
    }
    return Outcome::Run;
}

} // namespace vdisplaysim
