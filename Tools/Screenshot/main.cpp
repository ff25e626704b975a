// screen-grab: saves the whole primary screen of the current display as a
// PNG file, so that a run under a private X server leaves a picture behind.

#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <QString>

#include <cstdio>
#include <cstring>

int main(int argc, char* argv[])
{
    // Arguments and the display are checked before Qt, which aborts the
    // process when it finds no display.
    if (argc != 2 || argv[1][0] == '-') {
        const bool help = argc == 2 && std::strcmp(argv[1], "--help") == 0;
        std::fputs("usage: screen-grab FILE.png\n"
                   "Saves the whole primary screen of $DISPLAY as a PNG file.\n",
                   help ? stdout : stderr);
        return help ? 0 : 2;
    }
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("screen-grab: DISPLAY is not set\n", stderr);
        return 1;
    }
    QGuiApplication app(argc, argv);
    const QString path = QString::fromLocal8Bit(argv[1]);
    QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        std::fputs("screen-grab: no screen\n", stderr);
        return 1;
    }
    const QPixmap picture = screen->grabWindow(0);
    if (picture.isNull() || !picture.save(path, "PNG")) {
        std::fprintf(stderr, "screen-grab: can't save %s\n", argv[1]);
        return 1;
    }
    std::printf("screen-grab: %dx%d saved to %s\n", picture.width(), picture.height(), argv[1]);
    return 0;
}
