#include "Common/VideoDecode/Src/VideoRendererShaders.h"

namespace quorvan {

const QString g_vertexShaderSource = QStringLiteral(R"(
        attribute vec4 vertexIn;
        attribute vec2 textureIn;
        varying vec2 textureOut;
        void main(void)
        {
            gl_Position = vertexIn;
            textureOut  = textureIn;
        } )");

const QString g_hardwareFragmentShaderSource = QStringLiteral(R"(
    varying vec2 textureOut;
    uniform sampler2D tex_y;
    uniform sampler2D tex_u;
    void main()
    {
        float y,u,v;
        y = texture2D(tex_y, textureOut).r;
        u = texture2D(tex_u, textureOut).r - 0.5;
        v = texture2D(tex_u, textureOut).a - 0.5;
        float r,g,b;
        r = y + 1.13983 * v;
        g = y - 0.39465 * u - 0.58060 * v;
        b = y + 2.03211 * u;
        gl_FragColor = vec4(r,g,b,1.0);
    } )");

const QString g_softwareFragmentShaderSource = QStringLiteral(R"(
    varying vec2 textureOut;
    uniform sampler2D tex_y;
    uniform sampler2D tex_u;
    uniform sampler2D tex_v;
    void main()
    {
        float y,u,v;
        y = texture2D(tex_y, textureOut).r;
        u = texture2D(tex_u, textureOut).r - 0.5;
        v = texture2D(tex_v, textureOut).r - 0.5;
        float r,g,b;
        r = y + 1.13983 * v;
        g = y - 0.39465 * u - 0.58060 * v;
        b = y + 2.03211 * u;
        gl_FragColor = vec4(r,g,b,1.0);
    } )");

} // namespace quorvan
