#include "Common/VideoDecode/Src/VideoRendererPlanes.h"

#include <cstring>

namespace quorvan {

namespace {

// Grows the array to hold at least bytes; never shrinks it.
void EnsureSize(QByteArray& array, size_t bytes)
{
    if (static_cast<size_t>(array.size()) < bytes) {
        array.resize(static_cast<int>(bytes));
    }
}

} // namespace

VideoRendererPlanes::VideoRendererPlanes(uint32_t width, uint32_t height)
    : m_yData(static_cast<int>(width * height), '\0'),
      m_uData(static_cast<int>(width * height / 2), '\0'),
      m_vData(static_cast<int>((width / 2) * height / 2), '\0'), m_width(width),
      m_height(height), m_stride{static_cast<int32_t>(width), static_cast<int32_t>(width),
                                 static_cast<int32_t>(width / 2)}
{
}

bool VideoRendererPlanes::CanCopy(uint32_t width, uint32_t height, const int* stride,
                                  const uint8_t* yData, const uint8_t* uData, const uint8_t* vData)
{
    if (stride == nullptr || yData == nullptr || uData == nullptr) {
        return false;
    }
    if (width > kMaxSide || height > kMaxSide) {
        return false;
    }
    const int planes = vData != nullptr ? 3 : 2;
    for (int plane = 0; plane < planes; ++plane) {
        if (stride[plane] < 0 || stride[plane] > kMaxStride) {
            return false;
        }
    }
    return true;
}

void VideoRendererPlanes::CopyFrom(uint32_t width, uint32_t height, const int* stride,
                                   const uint8_t* yData, const uint8_t* uData, const uint8_t* vData)
{
    const size_t yBytes = static_cast<size_t>(stride[0]) * height;
    const size_t uBytes = static_cast<size_t>(stride[1]) * height / 2;
    EnsureSize(m_yData, yBytes);
    EnsureSize(m_uData, uBytes);
    m_width = width;
    m_height = height;
    m_stride[0] = stride[0];
    m_stride[1] = stride[1];
    m_stride[2] = stride[2];

    std::memcpy(m_yData.data(), yData, yBytes);
    std::memcpy(m_uData.data(), uData, uBytes);
    if (vData != nullptr) {
        const size_t vBytes = static_cast<size_t>(stride[2]) * height / 2;
        EnsureSize(m_vData, vBytes);
        std::memcpy(m_vData.data(), vData, vBytes);
        m_wantedShader = ShaderSoftware;
    } else {
        m_wantedShader = ShaderHardware;
    }
}

bool VideoRendererPlanes::Covers(int64_t size, int rowLength, int bytesPerPixel, int width,
                                 int height)
{
    if (width <= 0 || height <= 0) {
        return true;
    }
    if (rowLength < 0) {
        return false;
    }
    const int64_t rowPixels = rowLength > 0 ? rowLength : width;
    const int64_t needed =
        rowPixels * bytesPerPixel * (height - 1) + static_cast<int64_t>(width) * bytesPerPixel;
    return needed <= size;
}

} // namespace quorvan
