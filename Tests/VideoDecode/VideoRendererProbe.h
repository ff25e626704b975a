#pragma once

// A renderer that reports on itself: it counts its paints, reads chosen
// pixels back from the framebuffer after each paint, can be given a broken
// fragment source, and reaches the viewport. GUI thread only, except
// renderFrame and requestRepaint, which any thread may call.

#include "Common/VideoDecode/Src/VideoRenderer.h"
#include "Tests/VideoDecode/VideoRendererTestSupport.h"

#include <QColor>
#include <QPoint>

#include <array>
#include <vector>

namespace velorane::test {

class ProbeRenderer : public quorvan::VideoRenderer
{
public:
    ProbeRenderer(unsigned width, unsigned height) : VideoRenderer(width, height, nullptr)
    {
        setFixedSize(static_cast<int>(width), static_cast<int>(height));
    }

    void Render(TestPicture& picture)
    {
        renderFrame(picture.width, picture.height, picture.stride, picture.y.data(),
                    picture.u.data(), picture.V());
    }

    // The points, in widget coordinates, read back after each paint.
    void SetSamplePoints(std::vector<QPoint> points) { m_points = std::move(points); }
    int Paints() const { return m_paints; }
    // Per paint, the colours at the sample points.
    const std::vector<std::vector<QColor>>& PaintedSamples() const { return m_samples; }

    // From now on the given shader type gets a source that doesn't compile.
    void BreakShader(quorvan::VideoRendererShader shader) { m_broken = shader; }

    // Resizes through the widget's own resizeGL and reads the viewport back.
    std::array<int, 4> ResizeAndReadViewport(int width, int height)
    {
        makeCurrent();
        resizeGL(width, height);
        std::array<GLint, 4> viewport{};
        glGetIntegerv(GL_VIEWPORT, viewport.data());
        doneCurrent();
        return {viewport[0], viewport[1], viewport[2], viewport[3]};
    }

protected:
    void paintGL() override
    {
        VideoRenderer::paintGL();
        ++m_paints;
        std::vector<QColor> colors;
        for (const QPoint& point : m_points) {
            std::array<uint8_t, 4> rgba{};
            // GL rows count from the bottom.
            glReadPixels(point.x(), height() - 1 - point.y(), 1, 1, GL_RGBA, GL_UNSIGNED_BYTE,
                         rgba.data());
            colors.emplace_back(rgba[0], rgba[1], rgba[2], rgba[3]);
        }
        m_samples.push_back(std::move(colors));
    }

    QString fragmentShaderSource(quorvan::VideoRendererShader shader) const override
    {
        if (shader == m_broken) {
            return QStringLiteral("this is not a shader");
        }
        return VideoRenderer::fragmentShaderSource(shader);
    }

private:
    std::vector<QPoint> m_points;
    std::vector<std::vector<QColor>> m_samples;
    int m_paints = 0;
    quorvan::VideoRendererShader m_broken = quorvan::ShaderNone;
};

} // namespace velorane::test
