#include "Tests/Support/AudioChecks.h"

#include "Tests/Support/TempDir.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace velorane::test {

namespace {

constexpr int kWhisper = 200;

void PutLittleEndian(std::string& out, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        out += static_cast<char>((value >> (8 * i)) & 0xFF);
    }
}

} // namespace

std::vector<int16_t> LeftChannel(const std::string& path, size_t headerBytes)
{
    const std::string bytes = ReadFile(path);
    std::vector<int16_t> left;
    for (size_t at = headerBytes; at + 4 <= bytes.size(); at += 4) {
        left.push_back(static_cast<int16_t>(static_cast<uint8_t>(bytes[at]) |
                                            (static_cast<uint8_t>(bytes[at + 1]) << 8)));
    }
    return left;
}

double Frequency(const std::vector<int16_t>& samples, size_t first)
{
    double firstCrossing = -1;
    double lastCrossing = -1;
    int crossings = 0;
    for (size_t i = first + 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            const double at = double(i - 1) + -samples[i - 1] / double(samples[i] - samples[i - 1]);
            if (crossings == 0) {
                firstCrossing = at;
            }
            lastCrossing = at;
            ++crossings;
        }
    }
    if (crossings < 2) {
        return 0;
    }
    return (crossings - 1) * 48000.0 / (lastCrossing - firstCrossing);
}

double MedianFrequency(const std::vector<int16_t>& samples, size_t first)
{
    constexpr size_t kWindow = 12000;
    std::vector<double> frequencies;
    for (size_t at = first; at + kWindow <= samples.size(); at += kWindow) {
        const std::vector<int16_t> window(samples.begin() + static_cast<long>(at),
                                          samples.begin() + static_cast<long>(at + kWindow));
        frequencies.push_back(Frequency(window, 0));
    }
    if (frequencies.empty()) {
        return Frequency(samples, first);
    }
    std::sort(frequencies.begin(), frequencies.end());
    return frequencies[frequencies.size() / 2];
}

double RmsDb(const std::vector<int16_t>& samples, size_t first)
{
    double sum = 0;
    for (size_t i = first; i < samples.size(); ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return 10 * std::log10(sum / double(samples.size() - first));
}

size_t LongestSilence(const std::vector<int16_t>& samples, size_t first)
{
    size_t longest = 0;
    size_t run = 0;
    for (size_t i = first; i < samples.size(); ++i) {
        run = std::abs(samples[i]) < kWhisper ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    return longest;
}

std::vector<int16_t> Audible(const std::vector<int16_t>& samples)
{
    const auto loud = [](int16_t sample) { return std::abs(sample) >= kWhisper; };
    const auto begin = std::find_if(samples.begin(), samples.end(), loud);
    const auto end = std::find_if(samples.rbegin(), samples.rend(), loud).base();
    return begin < end ? std::vector<int16_t>(begin, end) : std::vector<int16_t>();
}

std::vector<int16_t> LongestUnbroken(const std::vector<int16_t>& samples, size_t gap)
{
    size_t bestStart = 0;
    size_t bestEnd = 0;
    size_t start = 0;
    size_t quiet = 0;
    for (size_t i = 0; i <= samples.size(); ++i) {
        const bool loud = i < samples.size() && std::abs(samples[i]) >= kWhisper;
        if (loud || i == samples.size()) {
            // A silence long enough (or the end) closes the stretch before it.
            if (quiet >= gap || i == samples.size()) {
                const size_t end = i - quiet;
                if (end > start && end - start > bestEnd - bestStart) {
                    bestStart = start;
                    bestEnd = end;
                }
                if (quiet >= gap) {
                    start = i;
                }
            }
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    return std::vector<int16_t>(samples.begin() + static_cast<long>(bestStart),
                                samples.begin() + static_cast<long>(bestEnd));
}

bool WriteWav(const std::string& path, const std::vector<int16_t>& samples)
{
    const auto dataBytes = static_cast<uint32_t>(samples.size() * 2);
    std::string out = "RIFF";
    PutLittleEndian(out, 36 + dataBytes, 4);
    out += "WAVEfmt ";
    PutLittleEndian(out, 16, 4);
    PutLittleEndian(out, 1, 2);         // PCM
    PutLittleEndian(out, 2, 2);         // channels
    PutLittleEndian(out, 48000, 4);     // frames per second
    PutLittleEndian(out, 48000 * 4, 4); // bytes per second
    PutLittleEndian(out, 4, 2);         // bytes per frame
    PutLittleEndian(out, 16, 2);        // bits per sample
    out += "data";
    PutLittleEndian(out, dataBytes, 4);
    for (const int16_t sample : samples) {
        PutLittleEndian(out, static_cast<uint16_t>(sample), 2);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << out;
    return static_cast<bool>(file);
}

std::vector<int16_t> Tone(double hz, double seconds, double amplitude)
{
    const auto frames = static_cast<size_t>(seconds * 48000);
    std::vector<int16_t> samples(frames * 2);
    for (size_t i = 0; i < frames; ++i) {
        const auto sample = static_cast<int16_t>(
            std::lround(amplitude * std::sin(2 * M_PI * hz * static_cast<double>(i) / 48000)));
        samples[2 * i] = sample;
        samples[2 * i + 1] = sample;
    }
    return samples;
}

} // namespace velorane::test
