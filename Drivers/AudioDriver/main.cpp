// VeloraneAudioDriver: the audio device on PipeWire that carries a desktop's
// sound to the relay and the Kyr's microphone back. See docs/audio-driver.md.

#include "Drivers/AudioDriver/AudioDriver.h"
#include "Drivers/AudioDriver/DriverOptions.h"

#include "Common/Logger/Linux/Src/ProgramLogging.h"
#include "Common/Logger/Src/Logger.h"

#include "BuildInfo.h"

#include <CLI/CLI.hpp>
#include <pipewire/pipewire.h>

#include <csignal>

using namespace quorvan;
using quorvan::velorane::audiodriver::AudioDriver;
using quorvan::velorane::audiodriver::DriverOptions;

int main(int argc, char** argv)
{
    DriverOptions options;
    CLI::App app{"Velorane audio driver: the \"Velorane Speaker\" and \"Velorane Microphone\" "
                 "devices on PipeWire, carried to and from the Velorane relay over UDP on "
                 "127.0.0.1",
                 "VeloraneAudioDriver"};
    options.AddOptions(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }

    // SIGTERM and SIGINT are read from the main loop (a signalfd): blocked
    // here, before any thread starts, so that every thread inherits the
    // mask and none of them dies of the signal.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // The driver's own log files beside the relay's: VeloraneAudioDriver_*.log.
    CRefCountPtr<FileStore> fileStore = StartProgramLogging("VeloraneAudioDriver");
    VLOG(EGroupValueInformation, "---------------START---------------");
    VLOG(EGroupValueInformation, "Velorane Audio Driver Version - %s Build# %s (built %s at %s)",
         VELORANE_VERSION_TEXT, VELORANE_BUILD_NUMBER, VELORANE_BUILD_DATE, VELORANE_BUILD_TIME);

    pw_init(&argc, &argv);
    int result = 0;
    {
        AudioDriver driver(options);
        result = driver.Run();
    }
    pw_deinit();

    VLOG(EGroupValueInformation, "----------------END----------------");
    if (fileStore) {
        fileStore->Flush();
    }
    return result;
}
