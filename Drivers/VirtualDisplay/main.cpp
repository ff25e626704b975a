// VeloraneVirtualDisplay: command line, logging, the program object and
// the event loop.

#include "Drivers/VirtualDisplay/Linux/TerminationSignals.h"
#include "Drivers/VirtualDisplay/VirtualDisplayApp.h"
#include "Drivers/VirtualDisplay/VirtualDisplayOptions.h"

#include "Common/Logger/Linux/Src/LinuxDebugStore.h"
#include "Common/Logger/Src/FileStore.h"
#include "Common/Logger/Src/Logger.h"
#include "Common/Logger/Src/QtDebugLoggerStore.h"
#include "Common/Platform/Src/DirectoryUtil.h"

#include "BuildInfo.h"

#include <CLI/CLI.hpp>
#include <QCoreApplication>

#include <csignal>

using namespace quorvan;
using quorvan::velorane::virtualdisplay::TerminationSignals;
using quorvan::velorane::virtualdisplay::VirtualDisplayApp;
using quorvan::velorane::virtualdisplay::VirtualDisplayOptions;

namespace {

// The program's own log files, beside the relay's. Returns the file store
// so that main can wait for the last line.
CRefCountPtr<FileStore> OpenLog()
{
    const std::string folder =
        DirectoryUtil::DataDirectory("Quorvan", "Velorane", "Client/Logs", true, true);
    CRefCountPtr<ILogStore> files;
    CreateFileStore("VeloraneVirtualDisplay", folder, 0xa00000, &files);
    CRefCountPtr<ILogStore> console;
    CreateNativeOsStore(&console);

    CRefCountPtr<ILogger> logger;
    GetLoggerInstance(&logger);
    logger->AddStore(files);
    logger->AddStore(console);
    logger->SetLevel(0);
    LoggerCreateQtDebuggerLoggerStore();

    CRefCountPtr<FileStore> writer(dynamic_cast<FileStore*>(files.Get()));
    if (writer) {
        writer->AddRef();
    }
    return writer;
}

} // namespace

int main(int argc, char** argv)
{
    // Before any thread exists, so that every thread leaves the termination
    // signals to the descriptor that the event loop reads.
    TerminationSignals::Block();
    // A relay that hangs up mid-reply is a failed write, not the end.
    std::signal(SIGPIPE, SIG_IGN);

    VirtualDisplayOptions options;
    CLI::App commandLine;
    options.AddOptions(commandLine);
    try {
        commandLine.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return commandLine.exit(e);
    }

    QCoreApplication application(argc, argv);
    CRefCountPtr<FileStore> log = OpenLog();
    VLOG(EGroupValueInformation, "---------------START---------------");
    VLOG(EGroupValueInformation, "Velorane Virtual Display Version - %s Build# %s (built %s at %s)",
         VELORANE_VERSION_TEXT, VELORANE_BUILD_NUMBER, VELORANE_BUILD_DATE, VELORANE_BUILD_TIME);
    // The relay starts the program detached: the log is where its id is told.
    VLOG(EGroupValueInformation, "Process id [%lld]",
         static_cast<long long>(QCoreApplication::applicationPid()));

    int exitCode = 0;
    {
        VirtualDisplayApp program(options);
        if (program.Start(&exitCode)) {
            exitCode = application.exec();
        }
    }
    VLOG(EGroupValueInformation, "----------------END----------------");
    if (log) {
        log->Flush();
    }
    return exitCode;
}
