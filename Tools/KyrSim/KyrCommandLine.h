#pragma once

#include "KyrOptions.h"

#include <QString>
#include <QStringList>

namespace kyrsim {

// Turns the command line into KyrOptions. Errors are one line of text
// without the program name; the caller prints them and exits with 2.
class KyrCommandLine
{
public:
    enum class Outcome
    {
        Run,
        Help,
        Error
    };

    static Outcome Parse(const QStringList& arguments, KyrOptions* options, QString* message);
};

} // namespace kyrsim
