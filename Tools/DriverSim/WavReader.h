#pragma once

#include <QString>

#include <cstdint>
#include <vector>

namespace driversim {

// Reads a 16-bit PCM WAV file of 48 kHz stereo into interleaved samples.
// False, with a reason, for anything else.
bool ReadWav(const QString& path, std::vector<int16_t>* samples, QString* error);

} // namespace driversim
