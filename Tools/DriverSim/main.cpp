// driver-sim: stands in for the local audio driver. See docs/emulators.md.

#include "DriverSim.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>
#include <QTimer>

#include <csignal>
#include <unistd.h>

using driversim::DriverOptions;
using driversim::DriverSim;

namespace {

int g_signalPipe[2] = {-1, -1};

extern "C" void OnSignal(int)
{
    const char byte = 1;
    ssize_t ignored = ::write(g_signalPipe[1], &byte, 1);
    (void)ignored;
}

bool ReadInt(const QCommandLineParser& parser, const QString& name, int low, int high, int* out,
             QString* message)
{
    if (!parser.isSet(name)) {
        return true;
    }
    bool ok = false;
    const int value = parser.value(name).toInt(&ok);
    if (!ok || value < low || value > high) {
        *message = QStringLiteral("--%1 needs a number from %2 to %3").arg(name).arg(low).arg(high);
        return false;
    }
    *out = value;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTextStream err(stderr);
    QTextStream out(stdout);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Stands in for the local audio driver."));
    parser.addHelpOption();
    parser.addOptions({
        {"kyr-port", "The relay's base port: speaker data to +8, microphone on +7.", "N"},
        {"control-port", "Where the Kyr's address arrives (default 9002).", "N"},
        {"record", "Record to FILE, one line each (default standard output).", "FILE"},
        {"time-limit", "Exit after SEC seconds (default 60).", "SEC"},
        {"announce-interval", "Announce every MS (default 1000; 0: never).", "MS"},
        {"announce-pause-at", "Stop announcing MS after the start.", "MS"},
        {"announce-resume-at", "Announce again from MS after the start.", "MS"},
        {"tone", "Send a speaker tone of HZ.", "HZ"},
        {"tone-seconds", "Length of the tone (default 5).", "SEC"},
        {"speaker-wav", "Send FILE (16-bit, 48 kHz, stereo) as speaker audio.", "FILE"},
        {"packet-frames", "Frames per speaker datagram, 1 to 882 (default 480).", "N"},
        {"loop", "Start the speaker tone or WAV over at its end, for as long as it runs."},
        {"control",
         "Take orders from the named pipe FILE (made when missing) while running, one "
         "a line: vanish (stop announcing and sending, close both ports), return.",
         "FILE"},
        {"malformed", "Once the relay's first address message came, send speaker data of every "
                      "length and every unknown command."},
        {"mic-wav", "Write the microphone audio received to FILE.", "FILE"},
    });
    if (!parser.parse(app.arguments())) {
        err << "driver-sim: " << parser.errorText() << "\n";
        return 2;
    }
    if (parser.isSet("help")) {
        out << parser.helpText();
        return 0;
    }
    DriverOptions options;
    QString message;
    int toneMs = 5000;
    if (!parser.isSet("kyr-port")) {
        message = QStringLiteral("--kyr-port is required");
    }
    if (!message.isEmpty() || !ReadInt(parser, "kyr-port", 1, 65527, &options.kyrPort, &message) ||
        !ReadInt(parser, "control-port", 1, 65535, &options.controlPort, &message) ||
        !ReadInt(parser, "time-limit", 1, 86400, &options.timeLimitSec, &message) ||
        !ReadInt(parser, "announce-interval", 0, 3600000, &options.announceIntervalMs, &message) ||
        !ReadInt(parser, "announce-pause-at", 0, 86400000, &options.announcePauseAtMs, &message) ||
        !ReadInt(parser, "announce-resume-at", 0, 86400000, &options.announceResumeAtMs,
                 &message) ||
        !ReadInt(parser, "packet-frames", 1, 882, &options.packetFrames, &message)) {
        err << "driver-sim: " << message << "\n";
        return 2;
    }
    if (parser.isSet("tone")) {
        options.toneHz = parser.value("tone").toDouble();
        options.toneSeconds = parser.isSet("tone-seconds") ? parser.value("tone-seconds").toDouble()
                                                           : toneMs / 1000.0;
    }
    options.recordFile = parser.value("record");
    options.speakerWav = parser.value("speaker-wav");
    options.malformed = parser.isSet("malformed");
    options.loop = parser.isSet("loop");
    options.controlFile = parser.value("control");
    options.micWav = parser.value("mic-wav");

    DriverSim driver(options);
    if (!driver.Start(&message)) {
        err << "driver-sim: " << message << "\n";
        return 1;
    }
    // SIGTERM and SIGINT end the run in order, so the WAV is written out.
    if (::pipe(g_signalPipe) == 0) {
        std::signal(SIGTERM, OnSignal);
        std::signal(SIGINT, OnSignal);
        auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    }
    QTimer::singleShot(options.timeLimitSec * 1000, &app, &QCoreApplication::quit);
    out << "driver-sim: ready" << Qt::endl;
    const int result = app.exec();
    driver.Finish();
    return result;
}
