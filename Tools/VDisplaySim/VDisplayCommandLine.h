#pragma once

#include "VDisplayOptions.h"

#include <QString>
#include <QStringList>

namespace vdisplaysim {

// Turns VDISPLAY_SIM_OPTIONS and the command line into VDisplayOptions.
// The variable's words come first, as if typed before the real arguments,
// so the command line adds to them and, for single values, wins. Errors
// are one line of text without the program name; the caller prints them
// and exits with 2.
class VDisplayCommandLine
{
public:
    enum class Outcome
    {
        Run,
        Help,
        Error
    };

    static Outcome Parse(const QStringList& arguments, const QString& environmentOptions,
                         VDisplayOptions* options, QString* message);
};

} // namespace vdisplaysim
