// client-sim: stands in for the client application that starts the relay
// and drives it over the local link, so that the link can be tested end to
// end, badly framed messages included.

#include "ClientCommandLine.h"
#include "ClientSimApp.h"
#include "Console.h"
#include "Tools/Common/Recorder.h"

#include <QCoreApplication>

#include <cstdio>

using namespace clientsim;
using simcommon::Recorder;

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("client-sim"));

    ClientOptions options;
    QString message;
    switch (ClientCommandLine::Parse(QCoreApplication::arguments(), &options, &message)) {
    case ClientCommandLine::Outcome::Help:
        std::fputs(message.toUtf8().constData(), stdout);
        return 0;
    case ClientCommandLine::Outcome::Error:
        PrintErr(message + QStringLiteral(" (see --help)"));
        return 2;
    case ClientCommandLine::Outcome::Run:
        break;
    }

    Recorder recorder;
    if (!recorder.Open(options.recordFile, &message)) {
        PrintErr(message);
        return 2;
    }
    ClientSimApp sim(options);
    if (!sim.Start(&recorder)) {
        return 1;
    }
    return app.exec();
}
