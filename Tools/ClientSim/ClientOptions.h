#pragma once

#include "ClientAction.h"

#include <QString>
#include <QStringList>
#include <QVector>

namespace clientsim {

// Everything client-sim takes from its command line.
struct ClientOptions
{
    QVector<ClientAction> actions; // --send, in order
    QString recordFile;            // empty: records go to standard output
    int quitAfterMs = -1;          // -1: run until the time limit
    int timeLimitSec = 60;
    bool noListen = false;
    QString relayProgram; // empty: don't start a relay
    QStringList relayArguments;
};

} // namespace clientsim
