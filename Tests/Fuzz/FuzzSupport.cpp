#include "Tests/Fuzz/FuzzSupport.h"

#include <QApplication>
#include <QCoreApplication>

#include <cstdlib>

namespace velorane::fuzz {

namespace {

int g_argc = 1;
char g_program[] = "fuzz";
char* g_argv[] = {g_program, nullptr};

} // namespace

void EnsureCoreApplication()
{
    if (!QCoreApplication::instance()) {
        // Never destroyed: the classes under test may hold Qt objects until
        // the process ends.
        new QCoreApplication(g_argc, g_argv);
    }
}

void EnsureGuiApplication()
{
    if (!QCoreApplication::instance()) {
        // Widgets are made and never shown: no display is needed.
        setenv("QT_QPA_PLATFORM", "offscreen", 1);
        new QApplication(g_argc, g_argv);
    }
}

std::vector<QByteArray> SplitStream(FuzzedDataProvider& input, size_t maxPieces)
{
    std::vector<QByteArray> pieces;
    while (input.remaining_bytes() > 0 && pieces.size() + 1 < maxPieces) {
        const size_t length = input.ConsumeIntegralInRange<size_t>(0, 4096);
        if (length == 0 || input.remaining_bytes() == 0) {
            break;
        }
        const std::vector<char> bytes = input.ConsumeBytes<char>(length);
        pieces.emplace_back(bytes.data(), static_cast<int>(bytes.size()));
    }
    const std::string rest = input.ConsumeRemainingBytesAsString();
    if (!rest.empty()) {
        pieces.emplace_back(rest.data(), static_cast<int>(rest.size()));
    }
    return pieces;
}

} // namespace velorane::fuzz
