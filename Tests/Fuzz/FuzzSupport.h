#pragma once

// Helpers shared by the fuzz targets: the Qt application object some of
// the classes under test need, a byte stream cut into pieces at points the
// fuzzer chooses, and a check that ends the run with a message when a
// property of the output doesn't hold.
//
// Threads: a fuzz target runs on libFuzzer's one thread; everything here
// runs there.

#include <fuzzer/FuzzedDataProvider.h>

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace velorane::fuzz {

// Makes the process's QCoreApplication (or, with widgets, QApplication on
// the offscreen platform) once; later calls do nothing.
void EnsureCoreApplication();
void EnsureGuiApplication();

// Cuts the rest of the input into pieces: each piece's length is taken
// from the end of the input, its bytes from the front, so a recorded
// stream used as a seed keeps its bytes in order, and the fuzzer moves the
// cuts by changing the last bytes. A length of 0 stands for the rest, so
// at most maxPieces pieces come out.
std::vector<QByteArray> SplitStream(FuzzedDataProvider& input, size_t maxPieces = 64);

// Ends the run, which libFuzzer reports as a crash with this input, when a
// property of the output doesn't hold.
#define VELORANE_FUZZ_CHECK(condition)                                                             \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #condition, __FILE__,          \
                         __LINE__);                                                                \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

} // namespace velorane::fuzz
