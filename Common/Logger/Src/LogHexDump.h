#pragma once

#include <string>

namespace quorvan {

// Renders up to 160 bytes as lines of 16: hex pairs, then the printable
// characters. Longer buffers are cut and say so on the first line.
std::string logHexDump(const void* data, unsigned size);

} // namespace quorvan
