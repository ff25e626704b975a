// The relay's entry: command line, logging, the application object, the
// event loop, and the way down again.

#include "Clients/Conference/ApplicationWrapper.h"
#include "Clients/Conference/Linux/DisplayEnvironment.h"
#include "Clients/Conference/RelayConfig.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Common/Logger/Linux/Src/ProgramLogging.h"
#include "Common/Logger/Src/FileStore.h"
#include "Common/Logger/Src/Logger.h"
#include "Common/Logger/Src/QtDebugLoggerStore.h"
#include "Common/Platform/Src/DirectoryUtil.h"

#include "BuildInfo.h"

#include <CLI/CLI.hpp>
#include <QApplication>
#include <QByteArray>
#include <QSharedPointer>

#include <cstdio>
#include <string>

using namespace quorvan;
using quorvan::velorane::relay::ApplicationWrapper;
using quorvan::velorane::relay::MissingDisplayMessage;
using quorvan::velorane::relay::RelayConfig;

namespace {

void RegisterMetaTypes()
{
    qRegisterMetaType<RelayService>("RelayService");
    qRegisterMetaType<RelayCommand>("RelayCommand");
    qRegisterMetaType<RelayCommandData>("RelayCommandData");
    qRegisterMetaType<RelayError>("RelayError");
    qRegisterMetaType<QSharedPointer<QByteArray>>("QSharedPointer<QByteArray>");
    qRegisterMetaType<quorvan::velorane::RelayCommandData>("quorvan::velorane::RelayCommandData");
}

// Sets the logger up: file store first, native store second, then Qt's
// messages. Returns the file store so that main can wait for its last line.
CRefCountPtr<FileStore> StartLogging()
{
    DirectoryUtil::CheckForAltUsername("ALLUSERS");
    CRefCountPtr<FileStore> writer = StartProgramLogging("VeloraneConference");
    LoggerCreateQtDebuggerLoggerStore();
    return writer;
}

} // namespace

int main(int argc, char** argv)
{
    RelayConfig config;
    CLI::App app{"Velorane Conference", ""};
    config.AddOptions(app);
    try {
        config.ParseCommandLine(app, argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }

    RegisterMetaTypes();
    // Without a display QApplication would abort the process with Qt's text
    // about platform plugins. Say what is missing instead, on standard error
    // and in the log, and end with 1.
    const std::string missingDisplay = MissingDisplayMessage();
    if (!missingDisplay.empty()) {
        std::fprintf(stderr, "%s\n", missingDisplay.c_str());
        CRefCountPtr<FileStore> fileStore = StartLogging();
        VLOG(EGroupValueInformation, "---------------START---------------");
        VLOG(EGroupValueSevere, "%s", missingDisplay.c_str());
        VLOG(EGroupValueInformation, "----------------END----------------");
        if (fileStore) {
            fileStore->Flush();
        }
        return 1;
    }
    QApplication application(argc, argv);
    config.CompleteTunnelConfig();

    CRefCountPtr<FileStore> fileStore = StartLogging();
    VLOG(EGroupValueInformation, "---------------START---------------");
    VLOG(EGroupValueInformation, "Velorane Conference Version - %s Build# %s (built %s at %s)",
         VELORANE_VERSION_TEXT, VELORANE_BUILD_NUMBER, VELORANE_BUILD_DATE, VELORANE_BUILD_TIME);

    // Printed and dropped: the configuration line holds nothing the log
    // needs, and the password never reaches it.
    std::string printed;
    config.Print(printed);

    int result = 0;
    {
        ApplicationWrapper wrapper(config);
        result = application.exec();
    }
    VLOG(EGroupValueInformation, "----------------END----------------");
    // Lines are written on the store's own thread: wait for the last one.
    if (fileStore) {
        fileStore->Flush();
    }
    return result;
}
