#include "Drivers/VirtualDisplay/VirtualDisplayOptions.h"

namespace quorvan::velorane::virtualdisplay {

namespace {

constexpr const char* kDescription =
    "VeloraneVirtualDisplay: the virtual display process of the Velorane relay on an X11\n"
    "desktop. It serves the local socket VIRTUAL_MONITOR_SERVER and makes the virtual\n"
    "monitor, an output-less RandR monitor named VELORANE-2399-160-1902, right of every\n"
    "other monitor at y = 0 (growing the X screen when the server allows it).";

constexpr const char* kFooter =
    "Requests:\n"
    "  SetResolution        sets the monitor's size; resizes it when it is there\n"
    "  CreateConference     answers at once; the monitor arrives a moment later, of the\n"
    "                       last SetResolution's size (else of the request's own); one\n"
    "                       that is there is unplugged first and arrives again\n"
    "  DestroyConference    removes the monitor and gives the screen its size back\n"
    "  RequestCalibrate     found and the monitor's rectangle, or not found\n"
    "  QuitProcess          removes the monitor and ends the program\n"
    "  CreateExtendedPresentation, DestroyExtendedPresentation and SetCursorCage are not\n"
    "  supported: they answer 0x8000000D (not implemented); SetCursorCage with window id 0\n"
    "  and unknown commands answer 0x80000000.\n"
    "\n"
    "The program ends on QuitProcess, SIGTERM, SIGINT or SIGHUP, when its X connection\n"
    "breaks, and with -c when the relay closes CONFERENCE_SERVER; each time it first\n"
    "removes the monitor. Without -c a relay that goes away leaves the monitor in place\n"
    "until DestroyConference or the program's end.\n"
    "Logs: ${XDG_DATA_HOME:-~/.local/share}/Velorane/Client/Logs/VeloraneVirtualDisplay_*.log";

} // namespace

void VirtualDisplayOptions::AddOptions(CLI::App& app)
{
    app.description(kDescription);
    app.footer(kFooter);
    app.add_flag("-c,--conference", conference,
                 "Connect to the relay's CONFERENCE_SERVER once ready, and end when it closes");
    app.add_option("--arrival-delay", arrivalDelayMs,
                   "Milliseconds from the CreateConference reply to the monitor's arrival")
        ->check(CLI::Range(100, 60000))
        ->capture_default_str();
}

} // namespace quorvan::velorane::virtualdisplay
