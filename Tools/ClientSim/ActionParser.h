#pragma once

#include "ClientAction.h"

#include <QString>

namespace clientsim {

// Reads one --send value such as "start-scrape", "wait:200" or
// "pixels-frame:7:100:1280:720". Files named by pixels: are read here.
class ActionParser
{
public:
    static bool Parse(const QString& text, ClientAction* action, QString* error);
};

} // namespace clientsim
