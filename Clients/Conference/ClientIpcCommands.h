#pragma once

// The command numbers and header sizes of the local link to the client
// application. Every message is big-endian: a 32-bit size of the whole
// message, a 32-bit command, and only with data a 32-bit byte count and the
// bytes. The numbers form one block; those not named here are not handled.

#include <cstdint>

namespace quorvan::velorane::relay {

enum ClientIpcCommand : int32_t
{
    // Both ways: from the client an order to die, from the relay the news
    // that it is ending by itself.
    ClientIpcKillApplication = 0xFE47,
    ClientIpcConnectUsb = 0xFE48,
    // An older client's kill order, handled exactly like the first.
    ClientIpcKillApplicationSecond = 0xFE49,
    // Relay to client only: a RelayError number as decimal ASCII text.
    ClientIpcError = 0xFE50,
    ClientIpcStartScrape = 0xFE51,
    // Client to relay only: one frame for the relay window.
    ClientIpcDesktopPixels = 0xFE52,
};

// Size and command.
constexpr int32_t kClientIpcHeaderSize = 8;
// Size, command and the byte count of the data.
constexpr int32_t kClientIpcHeaderWithDataSize = 12;

} // namespace quorvan::velorane::relay
