#pragma once

#include <QString>

#include <cstdio>

namespace vdisplaysim {

// Status lines go to standard output, diagnostics to standard error; both
// are flushed at once so that a test waiting for a line sees it.
inline void PrintOut(const QString& text)
{
    std::fprintf(stdout, "vdisplay-sim: %s\n", text.toUtf8().constData());
    std::fflush(stdout);
}

inline void PrintErr(const QString& text)
{
    std::fprintf(stderr, "vdisplay-sim: %s\n", text.toUtf8().constData());
    std::fflush(stderr);
}

} // namespace vdisplaysim
