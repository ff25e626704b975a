#pragma once

// One picture as the renderer keeps it: the planes copied whole rows at a
// time, padding included, with the picture size, the three strides and the
// shader the picture needs. No lock of its own: the renderer gives each
// instance to one thread at a time and passes them between threads under
// its lock.

#include <QByteArray>

#include <cstdint>

namespace quorvan {

// Which fragment shader a picture needs, or which one is linked.
enum VideoRendererShader : int32_t
{
    ShaderNone = 0,
    ShaderHardware = 1, // two planes, chroma interleaved
    ShaderSoftware = 2, // three planes
};

class VideoRendererPlanes
{
public:
    // The largest picture side and stride taken; larger ones can't be a
    // texture and would only cost memory.
    static constexpr uint32_t kMaxSide = 16384;
    static constexpr int kMaxStride = 65536;

    // The state before the first picture: zeroed planes for width x height,
    // strides width, width and width / 2, no shader wanted.
    VideoRendererPlanes(uint32_t width, uint32_t height);

    // Whether a picture with these arguments can be copied: the luma and
    // first chroma plane and the strides present, the strides that are read
    // not negative, and sizes within the limits above.
    static bool CanCopy(uint32_t width, uint32_t height, const int* stride, const uint8_t* yData,
                        const uint8_t* uData, const uint8_t* vData);

    // Copies a picture that CanCopy accepted. The arrays only ever grow. A
    // null vData is a two-plane picture: the third array isn't touched.
    void CopyFrom(uint32_t width, uint32_t height, const int* stride, const uint8_t* yData,
                  const uint8_t* uData, const uint8_t* vData);

    // Whether size bytes hold a block of width x height pixels of
    // bytesPerPixel bytes whose rows begin rowLength pixels apart (0: width),
    // rows packed without alignment.
    static bool Covers(int64_t size, int rowLength, int bytesPerPixel, int width, int height);

    uint32_t Width() const { return m_width; }
    uint32_t Height() const { return m_height; }
    int32_t Stride(int plane) const { return m_stride[plane]; }
    int32_t WantedShader() const { return m_wantedShader; }
    const QByteArray& YData() const { return m_yData; }
    const QByteArray& UData() const { return m_uData; }
    const QByteArray& VData() const { return m_vData; }

private:
    QByteArray m_yData;
    QByteArray m_uData;
    QByteArray m_vData;
    uint32_t m_width;
    uint32_t m_height;
    int32_t m_stride[3];
    int32_t m_wantedShader = ShaderNone;
};

} // namespace quorvan
