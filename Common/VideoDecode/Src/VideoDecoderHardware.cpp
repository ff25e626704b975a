// The hardware probe of VideoDecoder: device type, device, codec
// configuration, and the pixel format negotiation. Runs at Initialize on the
// owner's thread, but for GetFormat, which FFmpeg calls on the decoder
// thread.

#include "Common/VideoDecode/Src/VideoDecoder.h"

#include "Common/Logger/Src/Logger.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace quorvan {

namespace {

const char* PixelFormatName(AVPixelFormat format)
{
    const char* name = av_get_pix_fmt_name(format);
    return name ? name : "none";
}

// Logs an accepted device type and says whether it is one. The first three
// serve the platforms of old; VAAPI serves Linux, and its pictures reach the
// callback as two planes with interleaved chroma, like the others.
bool AcceptDeviceType(AVHWDeviceType type)
{
    switch (type) {
    case AV_HWDEVICE_TYPE_DXVA2:
        VLOG(EGroupValueInformation, "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_DXVA2");
        return true;
    case AV_HWDEVICE_TYPE_VIDEOTOOLBOX:
        VLOG(EGroupValueInformation, "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VIDEOTOOLBOX");
        return true;
    case AV_HWDEVICE_TYPE_MEDIACODEC:
        VLOG(EGroupValueInformation, "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_MEDIACODEC");
        return true;
    case AV_HWDEVICE_TYPE_VAAPI:
        VLOG(EGroupValueInformation, "VideoDecoder: hardware type: AV_HWDEVICE_TYPE_VAAPI");
        return true;
    default:
        return false;
    }
}

} // namespace

bool VideoDecoder::FindAcceleration()
{
    // FFmpeg walks its types in ascending order, which settles the choice
    // between several accepted ones.
    AVHWDeviceType type = AV_HWDEVICE_TYPE_NONE;
    bool found = false;
    do {
        type = m_probe.iterateTypes(type);
        m_hardwareType = type;
        found = type != AV_HWDEVICE_TYPE_NONE && AcceptDeviceType(type);
    } while (type != AV_HWDEVICE_TYPE_NONE && !found);

    if (!found) {
        VLOG(EGroupValueInformation, "VideoDecoder: no hardware acceleration found!");
        return false;
    }
    const char* name = av_hwdevice_get_type_name(type);
    m_hardwareTypeName = name ? name : "";
    VLOG(EGroupValueInformation, "VideoDecoder: hardware acceleration: %s",
         m_hardwareTypeName.c_str());
    return true;
}

bool VideoDecoder::AllocateDecoderContext()
{
    // A second Initialize replaces the first one's device.
    av_buffer_unref(&m_hardwareDeviceContext);
    const int rc = m_probe.createDevice(&m_hardwareDeviceContext, m_hardwareType);
    if (rc < 0) {
        VLOG(EGroupValueInformation, "VideoDecoder: av_hwdevice_ctx_create failed: %d", rc);
        return false;
    }
    m_hardwareContext->hw_device_ctx =
        m_hardwareDeviceContext ? av_buffer_ref(m_hardwareDeviceContext) : nullptr;
    m_hardwareContext->codec_id = static_cast<AVCodecID>(m_codecId);
    m_hardwareContext->opaque = this;
    return true;
}

bool VideoDecoder::HardwareConfiguration()
{
    // No configuration at all means the codec has no hardware path.
    const AVCodecHWConfig* first = m_codec ? m_probe.hardwareConfig(m_codec, 0) : nullptr;
    if (!first) {
        VLOG(EGroupValueInformation, "VideoDecoder: decoder (%s) doesn't support device type %s",
             m_codecName.c_str(), m_hardwareTypeName.c_str());
        return false;
    }
    // The codec lists one configuration per device type, and on Linux the
    // first is CUDA whatever device was found: take the one that serves the
    // chosen device through a device context, wherever it stands.
    const AVCodecHWConfig* config = first;
    for (int index = 1; config; ++index) {
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) &&
            config->device_type == m_hardwareType) {
            m_hardwarePixelFormat = config->pix_fmt;
            m_hardwareContext->get_format = &VideoDecoder::GetFormat;
            return true;
        }
        config = m_probe.hardwareConfig(m_codec, index);
    }
    VLOG(EGroupValueInformation, "VideoDecoder: cannot retrieve hardware configuration!");
    return false;
}

AVPixelFormat VideoDecoder::GetFormat(AVCodecContext* context, const AVPixelFormat* formats)
{
    VLOG(EGroupValueInformation, "VideoDecoder: GetFormat, which formats are offered");
    for (int i = 0; formats && formats[i] != AV_PIX_FMT_NONE; ++i) {
        VLOG(EGroupValueInformation, "VideoDecoder: format %d: %s", i, PixelFormatName(formats[i]));
    }

    const auto* decoder = context ? static_cast<const VideoDecoder*>(context->opaque) : nullptr;
    for (int i = 0; decoder && formats && formats[i] != AV_PIX_FMT_NONE; ++i) {
        if (formats[i] == decoder->m_hardwarePixelFormat) {
            VLOG(EGroupValueInformation, "VideoDecoder: found pixel format: %s",
                 PixelFormatName(formats[i]));
            return formats[i];
        }
    }

    // No software format instead: the refusal fails the next send, and that
    // failure is what moves the decoder to software.
    VLOG(EGroupValueInformation, "VideoDecoder: failed to get hardware pixel format!");
    return AV_PIX_FMT_NONE;
}

} // namespace quorvan
