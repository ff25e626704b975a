#pragma once

// Shared pieces of the renderer tests: the one QApplication, made lazily on
// first use and kept until the process ends; event-pumping waits; a capture
// of Qt's messages; test pictures in both plane layouts and the colours the
// shaders make of them. All of it is used on the test's main thread, except
// the pictures, which a writer thread may read.

#include "Tests/Support/QtEventPump.h"

#include <QApplication>
#include <QColor>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace velorane::test {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

inline QApplication* RendererApplication()
{
    // QApplication keeps a reference to argc, so both live as long as it.
    static int argc = 1;
    static char argv0[] = "video_renderer_tests";
    static char* argv[] = {argv0, nullptr};
    static QApplication* application = [] {
        // Under AddressSanitizer the xcb platform trips the strict string
        // checks inside libxkbcommon-x11 while it reads the keymap. The
        // offscreen platform renders through GLX on the same X display, so
        // the tests still run on real OpenGL.
        if (kAddressSanitizer && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
        return new QApplication(argc, argv);
    }();
    return application;
}

// Records every Qt message while it exists; any thread may print.
class MessageCapture
{
public:
    MessageCapture()
    {
        Instance() = this;
        m_previous = qInstallMessageHandler(&MessageCapture::Handler);
    }
    ~MessageCapture()
    {
        qInstallMessageHandler(m_previous);
        Instance() = nullptr;
    }
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    QStringList Messages() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_messages;
    }
    int Count(const QString& text) const { return Messages().count(text); }
    int CountStartingWith(const QString& prefix) const
    {
        const QStringList messages = Messages();
        return static_cast<int>(
            std::count_if(messages.begin(), messages.end(),
                          [&](const QString& m) { return m.startsWith(prefix); }));
    }

private:
    static MessageCapture*& Instance()
    {
        static MessageCapture* instance = nullptr;
        return instance;
    }
    static void Handler(QtMsgType, const QMessageLogContext&, const QString& message)
    {
        if (MessageCapture* capture = Instance()) {
            std::lock_guard<std::mutex> lock(capture->m_lock);
            capture->m_messages.append(message);
        }
    }

    QtMessageHandler m_previous = nullptr;
    mutable std::mutex m_lock;
    QStringList m_messages;
};

struct Yuv
{
    uint8_t y;
    uint8_t u;
    uint8_t v;
};

// Colours chosen so that each channel differs clearly between them.
constexpr Yuv kRed{76, 85, 255};
constexpr Yuv kGreen{150, 44, 21};
constexpr Yuv kBlue{29, 255, 107};
constexpr Yuv kWhite{235, 128, 128};

// The renderer's clear colour, grey 0.3, as read back.
const QColor kClearColor(77, 77, 77);

// The colour the shaders make of one sample, clamped as the framebuffer does.
inline QColor ExpectedColor(Yuv sample)
{
    const double y = sample.y / 255.0;
    const double u = sample.u / 255.0 - 0.5;
    const double v = sample.v / 255.0 - 0.5;
    auto channel = [](double value) {
        return static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 255.0));
    };
    return QColor(channel(y + 1.13983 * v), channel(y - 0.39465 * u - 0.58060 * v),
                  channel(y + 2.03211 * u));
}

inline ::testing::AssertionResult ColorNear(const QColor& actual, const QColor& expected,
                                            int tolerance = 4)
{
    if (std::abs(actual.red() - expected.red()) <= tolerance &&
        std::abs(actual.green() - expected.green()) <= tolerance &&
        std::abs(actual.blue() - expected.blue()) <= tolerance) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "colour (" << actual.red() << ", " << actual.green() << ", " << actual.blue()
           << ") where (" << expected.red() << ", " << expected.green() << ", " << expected.blue()
           << ") was expected";
}

// A picture as a decoder hands it over: planes with strides, padding
// included. twoPlane pictures keep chroma interleaved (U, V) in u and leave
// v empty; their third stride is 0.
struct TestPicture
{
    uint32_t width = 0;
    uint32_t height = 0;
    int stride[3] = {0, 0, 0};
    std::vector<uint8_t> y;
    std::vector<uint8_t> u;
    std::vector<uint8_t> v;
    bool twoPlane = false;

    uint8_t* V() { return twoPlane ? nullptr : v.data(); }
};

// The padding bytes, far from every colour above, so that a stride ignored
// shows.
constexpr uint8_t kPadding = 0;

// colorAt(column, row) gives the colour of a luma pixel; chroma takes the
// colour of the top-left pixel of its 2x2 block.
inline TestPicture MakePicture(uint32_t width, uint32_t height, bool twoPlane,
                               const std::function<Yuv(uint32_t, uint32_t)>& colorAt,
                               int lumaStride = 0, int chromaStride = 0)
{
    TestPicture picture;
    picture.width = width;
    picture.height = height;
    picture.twoPlane = twoPlane;
    picture.stride[0] = lumaStride > 0 ? lumaStride : static_cast<int>(width);
    if (twoPlane) {
        picture.stride[1] = chromaStride > 0 ? chromaStride : static_cast<int>(width);
        picture.stride[2] = 0;
    } else {
        picture.stride[1] = chromaStride > 0 ? chromaStride : static_cast<int>(width / 2);
        picture.stride[2] = picture.stride[1];
    }
    const uint32_t chromaRows = height / 2;
    picture.y.assign(static_cast<size_t>(picture.stride[0]) * height, kPadding);
    picture.u.assign(static_cast<size_t>(picture.stride[1]) * chromaRows, kPadding);
    if (!twoPlane) {
        picture.v.assign(static_cast<size_t>(picture.stride[2]) * chromaRows, kPadding);
    }
    for (uint32_t row = 0; row < height; ++row) {
        for (uint32_t column = 0; column < width; ++column) {
            picture.y[row * picture.stride[0] + column] = colorAt(column, row).y;
        }
    }
    for (uint32_t row = 0; row < chromaRows; ++row) {
        for (uint32_t column = 0; column < width / 2; ++column) {
            const Yuv sample = colorAt(column * 2, row * 2);
            if (twoPlane) {
                picture.u[row * picture.stride[1] + column * 2] = sample.u;
                picture.u[row * picture.stride[1] + column * 2 + 1] = sample.v;
            } else {
                picture.u[row * picture.stride[1] + column] = sample.u;
                picture.v[row * picture.stride[2] + column] = sample.v;
            }
        }
    }
    return picture;
}

inline TestPicture MakeUniformPicture(uint32_t width, uint32_t height, bool twoPlane, Yuv color,
                                      int lumaStride = 0, int chromaStride = 0)
{
    return MakePicture(
        width, height, twoPlane, [color](uint32_t, uint32_t) { return color; }, lumaStride,
        chromaStride);
}

// Red top left, green top right, blue bottom left, white bottom right.
inline Yuv QuadrantColor(uint32_t width, uint32_t height, uint32_t column, uint32_t row)
{
    const bool right = column >= width / 2;
    const bool bottom = row >= height / 2;
    if (!bottom) {
        return right ? kGreen : kRed;
    }
    return right ? kWhite : kBlue;
}

inline TestPicture MakeQuadrantPicture(uint32_t width, uint32_t height, bool twoPlane,
                                       int lumaStride = 0, int chromaStride = 0)
{
    return MakePicture(
        width, height, twoPlane,
        [width, height](uint32_t column, uint32_t row) {
            return QuadrantColor(width, height, column, row);
        },
        lumaStride, chromaStride);
}

} // namespace velorane::test
