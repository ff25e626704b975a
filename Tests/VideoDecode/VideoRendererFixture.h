#pragma once

// The fixture of the renderer tests: a display, the application, a capture
// of Qt's messages, and renderers shown on screen and painted once. Main
// thread only.

#include "Tests/VideoDecode/VideoRendererProbe.h"
#include "Tests/VideoDecode/VideoRendererTestSupport.h"

#include <QImage>
#include <QPoint>

#include <gtest/gtest.h>

#include <memory>

namespace velorane::test {

class VideoRendererTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY")) {
            GTEST_SKIP() << "the renderer tests need an X display with OpenGL";
        }
        RendererApplication();
        m_messages = std::make_unique<MessageCapture>();
    }

    void TearDown() override { m_messages.reset(); }

    // A renderer of this size, shown and painted at least once.
    std::unique_ptr<ProbeRenderer> ShowRenderer(unsigned width, unsigned height)
    {
        auto renderer = std::make_unique<ProbeRenderer>(width, height);
        renderer->show();
        EXPECT_TRUE(WaitUntil([&] { return renderer->Paints() > 0; }));
        return renderer;
    }

    // Asks for a paint and waits until one more has happened.
    static bool RepaintAndWait(ProbeRenderer& renderer)
    {
        const int before = renderer.Paints();
        renderer.requestRepaint();
        return WaitUntil([&] { return renderer.Paints() > before; });
    }

    // The centres of the four quadrants: top left, top right, bottom left,
    // bottom right.
    static std::vector<QPoint> QuadrantCentres(int width, int height)
    {
        return {QPoint(width / 4, height / 4), QPoint(3 * width / 4, height / 4),
                QPoint(width / 4, 3 * height / 4), QPoint(3 * width / 4, 3 * height / 4)};
    }

    // Checks the four quadrant colours of a grabbed picture.
    static void ExpectQuadrants(const QImage& image)
    {
        ASSERT_FALSE(image.isNull());
        const std::vector<QPoint> centres = QuadrantCentres(image.width(), image.height());
        const Yuv expected[] = {kRed, kGreen, kBlue, kWhite};
        for (size_t i = 0; i < centres.size(); ++i) {
            EXPECT_TRUE(ColorNear(image.pixelColor(centres[i]), ExpectedColor(expected[i])))
                << "quadrant " << i;
        }
    }

    std::unique_ptr<MessageCapture> m_messages;
};

} // namespace velorane::test
