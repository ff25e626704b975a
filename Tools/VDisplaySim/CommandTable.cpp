#include "CommandTable.h"

#include "NumberText.h"

namespace vdisplaysim {

namespace {

const CommandInfo kCommands[] = {
    {command::kCreateConference, "CreateConference", 15, true},
    {command::kCreateExtendedPresentation, "CreateExtendedPresentation", 7, true},
    {command::kDestroyConference, "DestroyConference", 7, true},
    {command::kDestroyExtendedPresentation, "DestroyExtendedPresentation", 7, true},
    {command::kReservedRect, "ReservedRect", 23, false},
    {command::kReservedEmpty, "ReservedEmpty", 7, false},
    {command::kSetCursorCage, "SetCursorCage", 16, true},
    {command::kSetResolution, "SetResolution", 16, true},
    {command::kRequestCalibrate, "RequestCalibrate", 7, true},
    {command::kQuitProcess, "QuitProcess", 7, true},
};

} // namespace

const CommandInfo* CommandTable::Find(quint16 number)
{
    for (const CommandInfo& info : kCommands) {
        if (info.number == number) {
            return &info;
        }
    }
    return nullptr;
}

bool CommandTable::Parse(const QString& text, quint16* number)
{
    for (const CommandInfo& info : kCommands) {
        if (text.compare(QLatin1String(info.name), Qt::CaseInsensitive) == 0) {
            *number = info.number;
            return true;
        }
    }
    qint64 value = 0;
    if (!ParseInteger(text, &value) || value < -32768 || value > 65535) {
        return false;
    }
    *number = static_cast<quint16>(value);
    return true;
}

} // namespace vdisplaysim
