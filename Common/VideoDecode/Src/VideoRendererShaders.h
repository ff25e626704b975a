#pragma once

// The GLSL sources of the renderer: one vertex shader and one fragment
// shader per plane layout. Constants, built when the program starts; read
// only on the GUI thread.

#include <QString>

namespace quorvan {

// Passes the unit quad through; attribute locations 0 (vertexIn) and
// 1 (textureIn).
extern const QString g_vertexShaderSource;

// Two planes: luma, and interleaved chroma in a luminance-alpha texture with
// U in red and V in alpha.
extern const QString g_hardwareFragmentShaderSource;

// Three planes: luma, U and V, each a luminance texture.
extern const QString g_softwareFragmentShaderSource;

} // namespace quorvan
