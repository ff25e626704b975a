#include "ClientCommandLine.h"

#include "ActionParser.h"

#include <QCommandLineParser>

namespace clientsim {

namespace {

const char* const kDetails = R"(
Holds the local socket "VELORANE_RELAY" (in $XDG_RUNTIME_DIR when it is set,
else in $TMPDIR or /tmp, as the relay looks for it; the relay must see the
same two variables) like the client application does, then starts the relay program
if one follows "--". Once listening it prints
"client-sim: listening on <socket path>".

Actions for --send, run in order once the relay has connected:
  start-scrape            StartScrape (0xFE51)
  kill                    KillApplication (0xFE47)
  kill2                   the second KillApplication (0xFE49)
  connect-usb             ConnectUsb (0xFE48)
  error-to-relay          Error (0xFE50) with the data "3"
  unknown:N               command N without data (decimal or 0x hex)
  pixels:FILE             DesktopPixels with the bytes of FILE as data
  pixels-frame:NUMBER:LENGTH[:W:H]
                          DesktopPixels with a generated frame payload
  pixels-h264:COUNT[:WxH] COUNT DesktopPixels, one H.264 access unit of a
                          moving test picture each (default 1280x720),
                          frame numbers from 0, one every 66 ms
  raw:HEX                 these bytes as they are
  short:N                 the first N bytes of a KillApplication message
  split:N                 write the next message as N bytes, then the rest
                          100 ms later
  merge                   write the next two messages in one write
  wait:MS                 pause
  disconnect              close the link

Records, one per line, to --record FILE or standard output:
  connected | message <hex> | garbage <hex> | partial <hex> | disconnected

Exit codes: the relay's exit code when a relay was started; 3 when it had
to be killed at the time limit; 4 when it crashed; 1 when it couldn't be
started or the socket couldn't be made; 2 for bad arguments; otherwise 0.

Examples:
  client-sim --record /tmp/link.log --send start-scrape --send wait:2000 \
      --send kill -- build/bin/velorane-relay -t -m --kyrIp 127.0.0.1 \
      --relayPort 47000 --relayPassword secret
  client-sim --no-listen -- build/bin/velorane-relay -t -m
)";

bool ReadInt(const QCommandLineParser& parser, const QString& name, qint64 low, qint64 high,
             int* value, QString* message)
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
    *value = static_cast<int>(number);
    return true;
}

} // namespace

ClientCommandLine::Outcome ClientCommandLine::Parse(const QStringList& arguments,
                                                    ClientOptions* options, QString* message)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Emulates the client application's end of the relay's local link."));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help(QStringList{"h", "help"}, "Show this text and exit.");
    parser.addOption(help);
    parser.addOptions({
        {"send", "Action to run once the relay has connected; repeat for a script.", "ACTION"},
        {"record", "Append records to FILE instead of standard output.", "FILE"},
        {"quit-after-ms",
         "Close the socket N ms after start and end (waiting for a started "
         "relay to exit).",
         "N"},
        {"time-limit", "End after SEC seconds (default 60); a relay still running is killed.",
         "SEC"},
        {"no-listen", "Don't hold the socket; still start the relay if one is given."},
    });
    parser.addPositionalArgument(QStringLiteral("relay"),
                                 QStringLiteral("Relay program and its arguments, after --."),
                                 QStringLiteral("[-- relay-program relay-args...]"));

    if (!parser.parse(arguments)) {
        *message = parser.errorText();
        return Outcome::Error;
    }
    if (parser.isSet(help)) {
        *message = parser.helpText() + QString::fromLatin1(kDetails);
        return Outcome::Help;
    }

    // Everything after the first "--" belongs to the relay; anything else
    // that isn't an option is a mistake.
    const int separator = arguments.indexOf(QStringLiteral("--"));
    const QStringList relay = separator < 0 ? QStringList() : arguments.mid(separator + 1);
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != relay.size()) {
        *message = QStringLiteral("unexpected argument '%1' (put the relay program after --)")
                       .arg(positional.value(0));
        return Outcome::Error;
    }
    if (separator >= 0 && relay.isEmpty()) {
        *message = QStringLiteral("-- must be followed by the relay program");
        return Outcome::Error;
    }
    if (!relay.isEmpty()) {
        options->relayProgram = relay[0];
        options->relayArguments = relay.mid(1);
    }

    options->recordFile = parser.value("record");
    options->noListen = parser.isSet("no-listen");
    if (!ReadInt(parser, "quit-after-ms", 0, 86400 * 1000, &options->quitAfterMs, message) ||
        !ReadInt(parser, "time-limit", 1, 86400, &options->timeLimitSec, message)) {
        return Outcome::Error;
    }
    for (const QString& text : parser.values("send")) {
        ClientAction action;
        if (!ActionParser::Parse(text, &action, message)) {
            return Outcome::Error;
        }
        options->actions.append(action);
    }
    return Outcome::Run;
}

} // namespace clientsim
