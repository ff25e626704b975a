#pragma once

#include <QString>

#include <cstdio>

namespace clientsim {

// Status lines go to standard output, diagnostics to standard error; both
// are flushed at once so that a test waiting for a line sees it.
inline void PrintOut(const QString& text)
{
    std::fprintf(stdout, "client-sim: %s\n", text.toUtf8().constData());
    std::fflush(stdout);
}

inline void PrintErr(const QString& text)
{
    std::fprintf(stderr, "client-sim: %s\n", text.toUtf8().constData());
    std::fflush(stderr);
}

} // namespace clientsim
