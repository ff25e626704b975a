#include "Common/VideoDecode/Src/VideoRenderer.h"

#include "Common/VideoDecode/Src/VideoRendererShaders.h"

#include <QMetaObject>
#include <QOpenGLContext>
#include <QOpenGLShader>
#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>
#include <QtGlobal>

#include <utility>

namespace quorvan {

namespace {

// The unit quad as a triangle strip, passed from client memory. The texture
// rows are flipped so that the first row of a plane is at the top.
const GLfloat kVertexIn[] = {-1.0f, -1.0f, 1.0f, -1.0f, -1.0f, 1.0f, 1.0f, 1.0f};
const GLfloat kTextureIn[] = {0.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f};

constexpr GLuint kVertexInLocation = 0;
constexpr GLuint kTextureInLocation = 1;

} // namespace

VideoRenderer::VideoRenderer(unsigned width, unsigned height, QWidget* parent)
    : QOpenGLWidget(parent), m_front(width, height), m_ready(width, height), m_back(width, height)
{
}

VideoRenderer::~VideoRenderer()
{
    // The GL objects live in this widget's context, which is made current so
    // that they are freed there rather than against whatever context is
    // current, or none.
    const bool initialized = context() != nullptr && context()->isValid();
    if (initialized) {
        makeCurrent();
    }
    if (m_program) {
        m_program->removeAllShaders();
        m_program->release();
    }
    for (const auto& texture : {m_textureY, m_textureU, m_textureV}) {
        if (texture) {
            texture->release();
            texture->destroy();
        }
    }
    m_program.reset();
    m_fragmentShader.reset();
    m_textureY.reset();
    m_textureU.reset();
    m_textureV.reset();
    delete m_vertexShader;
    m_vertexShader = nullptr;
    if (initialized) {
        doneCurrent();
    }
}

void VideoRenderer::renderFrame(uint32_t width, uint32_t height, int* stride, uint8_t* yData,
                                uint8_t* uData, uint8_t* vData)
{
    if (!VideoRendererPlanes::CanCopy(width, height, stride, yData, uData, vData)) {
        return;
    }
    CAutoFastMutex writer(m_writerMutex, "VideoRenderer writer");
    m_back.CopyFrom(width, height, stride, yData, uData, vData);
    CAutoFastMutex frame(m_frameMutex, "VideoRenderer frame");
    std::swap(m_back, m_ready);
    m_readyIsNew = true;
}

void VideoRenderer::requestRepaint()
{
    if (m_repaintQueued.exchange(true)) {
        return;
    }
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_repaintQueued.store(false);
            update();
        },
        Qt::QueuedConnection);
}

void VideoRenderer::initializeGL()
{
    initializeOpenGLFunctions();
    glEnable(GL_DEPTH_TEST);

    const auto* version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    qWarning("Graphics library version: %s", version != nullptr ? version : "");

    // A new context (the widget moved to another window) starts with
    // nothing linked; the old GL objects went with the old context.
    m_program.reset();
    m_fragmentShader.reset();
    delete m_vertexShader;
    m_loadedShader = ShaderNone;

    m_vertexShader = new QOpenGLShader(QOpenGLShader::Vertex, this);
    m_vertexShader->compileSourceCode(g_vertexShaderSource);

    glVertexAttribPointer(kVertexInLocation, 2, GL_FLOAT, GL_FALSE, 0, kVertexIn);
    glVertexAttribPointer(kTextureInLocation, 2, GL_FLOAT, GL_FALSE, 0, kTextureIn);
    glEnableVertexAttribArray(kVertexInLocation);
    glEnableVertexAttribArray(kTextureInLocation);

    m_textureY = QSharedPointer<QOpenGLTexture>::create(QOpenGLTexture::Target2D);
    m_textureU = QSharedPointer<QOpenGLTexture>::create(QOpenGLTexture::Target2D);
    m_textureV = QSharedPointer<QOpenGLTexture>::create(QOpenGLTexture::Target2D);
    m_textureY->create();
    m_textureU->create();
    m_textureV->create();
    m_textureIdY = m_textureY->textureId();
    m_textureIdU = m_textureU->textureId();
    m_textureIdV = m_textureV->textureId();

    glClearColor(0.3f, 0.3f, 0.3f, 0.0f);
}

void VideoRenderer::resizeGL(int width, int height)
{
    glViewport(0, 0, width, height == 0 ? 1 : height);
    update();
}

void VideoRenderer::paintGL()
{
    takeNewestPicture();
    const int32_t wanted = m_front.WantedShader();
    if (wanted != ShaderNone && wanted != m_loadedShader) {
        // A failed compile keeps the loaded shader, so it is tried again at
        // the next paint.
        loadShader();
    }

    const int width = static_cast<int>(m_front.Width());
    const int height = static_cast<int>(m_front.Height());
    // Rows are whole strides apart, never padded further.
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);

    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, m_textureIdY);
    uploadPlane(GL_LUMINANCE, 1, m_front.Stride(0), width, height, m_front.YData());
    setSampler(m_locationY, 0);

    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_2D, m_textureIdU);
    if (m_loadedShader == ShaderHardware) {
        uploadPlane(GL_LUMINANCE_ALPHA, 2, m_front.Stride(1) / 2, width / 2, height / 2,
                    m_front.UData());
        setSampler(m_locationU, 1);
    } else {
        uploadPlane(GL_LUMINANCE, 1, m_front.Stride(1), width / 2, height / 2, m_front.UData());
        setSampler(m_locationU, 1);

        glActiveTexture(GL_TEXTURE2);
        glBindTexture(GL_TEXTURE_2D, m_textureIdV);
        uploadPlane(GL_LUMINANCE, 1, m_front.Stride(2), width / 2, height / 2, m_front.VData());
        setSampler(m_locationV, 2);
    }

    // Until a picture says which program it needs none is linked, and
    // nothing is drawn.
    if (m_program) {
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    }
}

QString VideoRenderer::fragmentShaderSource(VideoRendererShader shader) const
{
    return shader == ShaderHardware ? g_hardwareFragmentShaderSource
                                    : g_softwareFragmentShaderSource;
}

bool VideoRenderer::loadShader()
{
    // The new shader becomes m_fragmentShader only once it has compiled: the
    // program still linked keeps a pointer to the shader it was made from,
    // so that shader must live as long as the program.
    auto fragmentShader = QSharedPointer<QOpenGLShader>::create(QOpenGLShader::Fragment);
    VideoRendererShader compiled;
    if (m_front.WantedShader() == ShaderHardware) {
        qWarning("VideoRenderer: installing shader for hardware decoding");
        if (!fragmentShader->compileSourceCode(fragmentShaderSource(ShaderHardware))) {
            qWarning("VideoRenderer: failed to install shader for hardware decoding");
            return false;
        }
        compiled = ShaderHardware;
    } else {
        qWarning("VideoRenderer: installing shader for software decoding");
        if (!fragmentShader->compileSourceCode(fragmentShaderSource(ShaderSoftware))) {
            qWarning("VideoRenderer: failed to install shader for software decoding");
            return false;
        }
        compiled = ShaderSoftware;
    }
    m_loadedShader = compiled;

    m_program = QSharedPointer<QOpenGLShaderProgram>::create();
    m_fragmentShader = fragmentShader;
    m_program->addShader(m_fragmentShader.data());
    m_program->addShader(m_vertexShader);
    m_program->bindAttributeLocation("vertexIn", kVertexInLocation);
    m_program->bindAttributeLocation("textureIn", kTextureInLocation);
    // The result of the link isn't tested; the program stays bound.
    m_program->link();
    m_program->bind();

    m_locationY = m_program->uniformLocation("tex_y");
    m_locationU = m_program->uniformLocation("tex_u");
    m_locationV = m_program->uniformLocation("tex_v");
    return true;
}

void VideoRenderer::takeNewestPicture()
{
    CAutoFastMutex frame(m_frameMutex, "VideoRenderer frame");
    if (m_readyIsNew) {
        std::swap(m_ready, m_front);
        m_readyIsNew = false;
    }
}

void VideoRenderer::uploadPlane(GLenum format, int bytesPerPixel, int rowLength, int width,
                                int height, const QByteArray& plane)
{
    glPixelStorei(GL_UNPACK_ROW_LENGTH, rowLength);
    const bool covered =
        VideoRendererPlanes::Covers(plane.size(), rowLength, bytesPerPixel, width, height);
    glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(format), width, height, 0, format,
                 GL_UNSIGNED_BYTE, covered ? plane.constData() : nullptr);
    setTextureParameters();
}

void VideoRenderer::setSampler(int32_t location, int unit)
{
    // Without a program there is no uniform to set.
    if (m_program) {
        glUniform1i(location, unit);
    }
}

void VideoRenderer::setTextureParameters()
{
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

} // namespace quorvan
