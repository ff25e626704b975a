#pragma once

// The commands of the virtual monitor protocol. The numbers are the
// protocol; a receiver takes 0xA13D to 0xA148 apart from the two holes.

#include <cstdint>

namespace quorvan::velorane::virtualmonitor {

enum Command : uint16_t
{
    CreateConference = 0xA13D,
    CreateExtendedPresentation = 0xA13E,
    DestroyConference = 0xA13F,
    DestroyExtendedPresentation = 0xA140,
    ReservedRect = 0xA141,
    ReservedEmpty = 0xA142,
    SetCursorCage = 0xA143,
    SetResolution = 0xA144,
    // 0xA145 and 0xA146 are no commands.
    RequestCalibrate = 0xA147,
    QuitProcess = 0xA148,
};

constexpr uint16_t kFirstCommand = CreateConference;
constexpr uint16_t kLastCommand = QuitProcess;

// Whether a request with this number can be built.
constexpr bool IsKnownCommand(uint16_t command)
{
    return command >= kFirstCommand && command <= kLastCommand && command != 0xA145 &&
           command != 0xA146;
}

// Message types, the byte at offset 6.
constexpr int8_t kMessageTypeRequest = 0;
constexpr int8_t kMessageTypeReply = 1;

// Size, command and type.
constexpr int kHeaderSize = 7;
// The header and the result.
constexpr int kReplyHeaderSize = 11;

// The tag the relay sends with SetResolution and the server hands its
// manager with RequestCalibrate.
constexpr uint8_t kMonitorTag = 250;

} // namespace quorvan::velorane::virtualmonitor
