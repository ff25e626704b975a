#pragma once

// The OpenGL widget that fills the relay window. It keeps a private copy of
// the newest decoded picture and, at each paint, uploads its planes to
// textures and turns YUV into RGB in a fragment shader, choosing the shader
// by the plane layout of the picture.
//
// Threads: renderFrame and requestRepaint may be called from any thread (in
// the relay, the decoder thread). Everything else runs on the GUI thread:
// Qt's GL overrides, the textures, the shaders and m_front. The threads meet
// only in m_ready: a writer fills m_back under m_writerMutex, then swaps it
// with m_ready under m_frameMutex; paintGL swaps m_ready with m_front under
// m_frameMutex. A picture that is replaced in m_ready before a paint is
// never painted.

#include "Common/Platform/Src/Mutex.h"
#include "Common/VideoDecode/Src/VideoRendererPlanes.h"

#include <QOpenGLFunctions>
#include <QOpenGLWidget>
#include <QSharedPointer>
#include <QString>

#include <atomic>
#include <cstdint>

class QOpenGLShader;
class QOpenGLShaderProgram;
class QOpenGLTexture;

namespace quorvan {

class VideoRenderer : public QOpenGLWidget, public QOpenGLFunctions
{
    Q_OBJECT

public:
    VideoRenderer(unsigned width, unsigned height, QWidget* parent = nullptr);
    ~VideoRenderer() override;

    // Copies one picture, all three strides given; a null vData means two
    // planes, luma and interleaved chroma. Any thread. Paints nothing by
    // itself: call requestRepaint after it.
    void renderFrame(uint32_t width, uint32_t height, int* stride, uint8_t* yData, uint8_t* uData,
                     uint8_t* vData);

    // Asks for a paint on the GUI thread. Any thread; requests made before
    // the paint is scheduled are merged into one.
    void requestRepaint();

protected:
    void initializeGL() override;
    void resizeGL(int width, int height) override;
    void paintGL() override;

    // The fragment source compiled for a shader type; tests give a broken one.
    virtual QString fragmentShaderSource(VideoRendererShader shader) const;

private:
    bool loadShader();
    // Makes the newest copied picture, if any came since the last paint,
    // the one painted.
    void takeNewestPicture();
    // Uploads one plane to the texture bound on the active unit and sets its
    // parameters. A plane too small for the texture in this layout isn't
    // read: the texture is allocated empty instead.
    void uploadPlane(GLenum format, int bytesPerPixel, int rowLength, int width, int height,
                     const QByteArray& plane);
    void setTextureParameters();
    // Points a sampler uniform of the bound program at a texture unit.
    void setSampler(int32_t location, int unit);

    QOpenGLShader* m_vertexShader = nullptr;
    QSharedPointer<QOpenGLShader> m_fragmentShader;
    QSharedPointer<QOpenGLShaderProgram> m_program;
    QSharedPointer<QOpenGLTexture> m_textureY;
    QSharedPointer<QOpenGLTexture> m_textureU;
    QSharedPointer<QOpenGLTexture> m_textureV;
    int32_t m_locationY = -1;
    int32_t m_locationU = -1;
    int32_t m_locationV = -1;
    uint32_t m_textureIdY = 0;
    uint32_t m_textureIdU = 0;
    uint32_t m_textureIdV = 0;
    int32_t m_loadedShader = ShaderNone;

    // The picture painted; GUI thread only.
    VideoRendererPlanes m_front;
    // The newest complete picture and whether it came since the last paint;
    // under m_frameMutex.
    VideoRendererPlanes m_ready;
    bool m_readyIsNew = false;
    CFastMutex m_frameMutex;
    // The picture being copied; under m_writerMutex, which is held through
    // the copy so that writers on two threads take turns.
    VideoRendererPlanes m_back;
    CFastMutex m_writerMutex;
    // A repaint request is queued and hasn't run yet.
    std::atomic<bool> m_repaintQueued{false};
};

} // namespace quorvan
