#include "Tests/EndToEnd/ScreenCheck.h"

#include "Tests/Support/ChildProcess.h"

#include <QColor>
#include <QString>

#include <vector>

namespace velorane::test {

using namespace std::chrono_literals;

namespace {

QImage Grab(const std::string& display, const std::vector<std::string>& arguments,
            const std::string& path)
{
    ChildProcess grab;
    ChildProcess::Options options;
    options.argv = {BinaryPath("screen-grab")};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.argv.push_back(path);
    options.environment = {{"DISPLAY", display}, {"QT_QPA_PLATFORM", "xcb"}};
    options.outputFile = path + ".out";
    int code = -1;
    if (!grab.Start(options) || !grab.WaitForExit(30s, &code) || code != 0) {
        return {};
    }
    return QImage(QString::fromStdString(path));
}

} // namespace

QImage GrabScreen(const std::string& display, const std::string& path)
{
    return Grab(display, {}, path);
}

QImage GrabArea(const std::string& display, const QRect& area, const std::string& path)
{
    const std::string geometry = std::to_string(area.width()) + "x" +
                                 std::to_string(area.height()) + "+" + std::to_string(area.x()) +
                                 "+" + std::to_string(area.y());
    return Grab(display, {"--area", geometry}, path);
}

// Bars as red, green and blue on or off. A box moves over them and a number
// sits top left, so each bar is sampled at four heights and counts when
// most samples show its colour.
int BarsShown(const QImage& screen, const QRect& area)
{
    static const int kBars[8] = {0b111, 0b110, 0b011, 0b010, 0b101, 0b100, 0b001, 0b000};
    if (area.isEmpty() || !screen.rect().contains(area)) {
        return 0;
    }
    int shown = 0;
    for (int bar = 0; bar < 8; ++bar) {
        const int x = area.left() + (2 * bar + 1) * area.width() / 16;
        int matches = 0;
        for (const double height : {0.3, 0.5, 0.7, 0.9}) {
            const QColor colour =
                screen.pixelColor(x, area.top() + static_cast<int>(height * area.height()));
            int bits = 0;
            bool clear = true;
            for (const int channel : {colour.red(), colour.green(), colour.blue()}) {
                bits = bits << 1 | (channel > 150 ? 1 : 0);
                clear = clear && (channel > 150 || channel < 100);
            }
            matches += clear && bits == kBars[bar];
        }
        shown += matches >= 3;
    }
    return shown;
}

} // namespace velorane::test
