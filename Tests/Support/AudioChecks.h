#pragma once

// Checks of what a test heard: 16-bit stereo at 48 kHz, read from the WAV
// files the emulators write or the raw files parec writes. The audio tests
// judge a tone by its frequency, its level and its gaps.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velorane::test {

// The left channel of 16-bit little-endian stereo in a file, after
// headerBytes (44 for the emulators' WAV files, 0 for raw).
std::vector<int16_t> LeftChannel(const std::string& path, size_t headerBytes = 44);

// The tone's frequency from its rising zero crossings from first on, in Hz,
// each placed where the line between its two samples meets zero.
double Frequency(const std::vector<int16_t>& samples, size_t first);
// The median of the frequencies of the quarter seconds from first on: a
// graph cycle dropped under load (a jump in the tone's phase) moves one of
// them, not the answer.
double MedianFrequency(const std::vector<int16_t>& samples, size_t first);
// The level from first on, in dB of a 16-bit sample.
double RmsDb(const std::vector<int16_t>& samples, size_t first);
// The longest run of samples within a whisper of silence (under 200), from
// first on.
size_t LongestSilence(const std::vector<int16_t>& samples, size_t first);
// The samples from the first to the last one louder than a whisper: a tone
// without the silence around it. Empty when all is silent.
std::vector<int16_t> Audible(const std::vector<int16_t>& samples);

// The longest stretch without a silence of gap samples or more: the part
// of a recording that ran without a break.
std::vector<int16_t> LongestUnbroken(const std::vector<int16_t>& samples, size_t gap);

// Writes interleaved 16-bit stereo samples at 48 kHz as a WAV file.
bool WriteWav(const std::string& path, const std::vector<int16_t>& samples);
// A sine of hz at amplitude on both channels, seconds long, interleaved.
std::vector<int16_t> Tone(double hz, double seconds, double amplitude);

} // namespace velorane::test
