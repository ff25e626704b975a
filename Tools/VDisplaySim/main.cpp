// vdisplay-sim: stands in for the virtual display process, so that the
// relay's local link to it can be driven end to end, including a process
// that answers late, in pieces, wrongly or not at all.

#include "Console.h"
#include "Tools/Common/Recorder.h"
#include "VDisplayCommandLine.h"
#include "VDisplaySimApp.h"

#include <QCoreApplication>

#include <cstdio>

using namespace vdisplaysim;
using simcommon::Recorder;

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vdisplay-sim"));

    VDisplayOptions options;
    QString message;
    const QString environment = qEnvironmentVariable("VDISPLAY_SIM_OPTIONS");
    switch (VDisplayCommandLine::Parse(QCoreApplication::arguments(), environment, &options,
                                       &message)) {
    case VDisplayCommandLine::Outcome::Help:
        std::fputs(message.toUtf8().constData(), stdout);
        return 0;
    case VDisplayCommandLine::Outcome::Error:
        PrintErr(message + QStringLiteral(" (see --help)"));
        return 2;
    case VDisplayCommandLine::Outcome::Run:
        break;
    }

    Recorder recorder;
    if (!recorder.Open(options.recordFile, &message)) {
        PrintErr(message);
        return 2;
    }
    VDisplaySimApp sim(options, &recorder);
    int exitCode = 0;
    if (!sim.Start(&exitCode)) {
        return exitCode;
    }
    return app.exec();
}
