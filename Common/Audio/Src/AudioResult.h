#pragma once

#include <cstdint>

namespace quorvan {

// The failure result of the encoding chain, negative as a signed 32-bit
// number; 0 is success.
constexpr int32_t AudioError = static_cast<int32_t>(0x80000000u);

} // namespace quorvan
