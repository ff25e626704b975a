#pragma once

#include <QString>
#include <QtGlobal>

namespace vdisplaysim {

// The command numbers of the virtual display link.
namespace command {
constexpr quint16 kCreateConference = 0xA13D;
constexpr quint16 kCreateExtendedPresentation = 0xA13E;
constexpr quint16 kDestroyConference = 0xA13F;
constexpr quint16 kDestroyExtendedPresentation = 0xA140;
constexpr quint16 kReservedRect = 0xA141;
constexpr quint16 kReservedEmpty = 0xA142;
constexpr quint16 kSetCursorCage = 0xA143;
constexpr quint16 kSetResolution = 0xA144;
constexpr quint16 kRequestCalibrate = 0xA147;
constexpr quint16 kQuitProcess = 0xA148;
} // namespace command

struct CommandInfo
{
    quint16 number;
    const char* name;
    int requestSize; // whole request, header included
    bool served;     // false: refused like an unknown command
};

// Names, numbers and request sizes of the commands the display process
// knows, and the lookups the command line needs.
class CommandTable
{
public:
    // nullptr for a number outside the table (0xA145, 0xA146 among them).
    static const CommandInfo* Find(quint16 number);
    // A name from the table (any case) or a number: decimal or 0x hex,
    // 0..65535, or -32768..-1 for the same 16 bits.
    static bool Parse(const QString& text, quint16* number);
};

} // namespace vdisplaysim
