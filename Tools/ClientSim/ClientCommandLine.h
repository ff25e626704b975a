#pragma once

#include "ClientOptions.h"

#include <QString>
#include <QStringList>

namespace clientsim {

// Turns the command line into ClientOptions. Errors are one line of text
// without the program name; the caller prints them and exits with 2.
class ClientCommandLine
{
public:
    enum class Outcome
    {
        Run,
        Help,
        Error
    };

    static Outcome Parse(const QStringList& arguments, ClientOptions* options, QString* message);
};

} // namespace clientsim
