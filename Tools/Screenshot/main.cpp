// screen-grab: saves the whole primary screen of the current display as a
// PNG file, so that a run under a private X server leaves a picture behind.
// With --area it saves that rectangle of the root window instead: Qt lists
// only monitors that have outputs as screens, so the area of an output-less
// RandR monitor (our virtual monitor) lies outside every screen.

#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <QString>

#include <cstdio>
#include <cstring>

namespace {

int Usage(bool help)
{
    std::fputs("usage: screen-grab [--area WxH+X+Y] FILE.png\n"
               "Saves the whole primary screen of $DISPLAY as a PNG file, or the given\n"
               "area of the root window.\n",
               help ? stdout : stderr);
    return help ? 0 : 2;
}

} // namespace

int main(int argc, char* argv[])
{
    // Arguments and the display are checked before Qt, which aborts the
    // process when it finds no display.
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(true);
    }
    int width = -1;
    int height = -1;
    int x = 0;
    int y = 0;
    const char* file = nullptr;
    if (argc == 2 && argv[1][0] != '-') {
        file = argv[1];
    } else if (argc == 4 && std::strcmp(argv[1], "--area") == 0 && argv[3][0] != '-') {
        char end = 0;
        if (std::sscanf(argv[2], "%dx%d+%d+%d%c", &width, &height, &x, &y, &end) != 4 ||
            width <= 0 || height <= 0 || x < 0 || y < 0) {
            return Usage(false);
        }
        file = argv[3];
    } else {
        return Usage(false);
    }
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("screen-grab: DISPLAY is not set\n", stderr);
        return 1;
    }
    QGuiApplication app(argc, argv);
    const QString path = QString::fromLocal8Bit(file);
    QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        std::fputs("screen-grab: no screen\n", stderr);
        return 1;
    }
    const QPixmap picture = screen->grabWindow(0, x, y, width, height);
    if (picture.isNull() || !picture.save(path, "PNG")) {
        std::fprintf(stderr, "screen-grab: can't save %s\n", file);
        return 1;
    }
    std::printf("screen-grab: %dx%d saved to %s\n", picture.width(), picture.height(), file);
    return 0;
}
