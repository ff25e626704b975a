#include "H264Encoder.h"

#include "TestPattern.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <algorithm>

namespace simcommon {

namespace {

const char* const kEncoderName = "libx264";
// Repeated headers and delimiters let a decoder that joins mid-stream, or
// one fed a cut access unit, find its footing at the next IDR picture.
const char* const kX264Params = "repeat-headers=1:aud=1:scenecut=0:bframes=0";

QString AvError(const char* what, int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof(text));
    return QStringLiteral("%1: %2").arg(QString::fromLatin1(what), QString::fromLatin1(text));
}

int EvenClamp(int value, int low, int high)
{
    return std::clamp(value, low, high) & ~1;
}

} // namespace

H264Encoder::~H264Encoder()
{
    Close();
}

bool H264Encoder::IsAvailable(QString* error)
{
    if (avcodec_find_encoder_by_name(kEncoderName) != nullptr) {
        return true;
    }
    *error =
        QStringLiteral("this libavcodec has no %1 encoder").arg(QString::fromLatin1(kEncoderName));
    return false;
}

bool H264Encoder::FitSize(int* width, int* height)
{
    const int fittedWidth = EvenClamp(*width, kMinSide, kMaxWidth);
    const int fittedHeight = EvenClamp(*height, kMinSide, kMaxHeight);
    const bool changed = fittedWidth != *width || fittedHeight != *height;
    *width = fittedWidth;
    *height = fittedHeight;
    return changed;
}

bool H264Encoder::Open(int width, int height, QString* error)
{
    Close();
    // libx264 reports its settings at the info level; keep stderr for
    // warnings and errors.
    av_log_set_level(AV_LOG_WARNING);
    const AVCodec* codec = avcodec_find_encoder_by_name(kEncoderName);
    if (codec == nullptr) {
        IsAvailable(error);
        return false;
    }
    m_context = avcodec_alloc_context3(codec);
    m_frame = av_frame_alloc();
    m_packet = av_packet_alloc();
    if (m_context == nullptr || m_frame == nullptr || m_packet == nullptr) {
        *error = QStringLiteral("out of memory");
        Close();
        return false;
    }
    m_context->width = width;
    m_context->height = height;
    m_context->pix_fmt = AV_PIX_FMT_YUV420P;
    m_context->time_base = AVRational{1, kFramesPerSecond};
    m_context->framerate = AVRational{kFramesPerSecond, 1};
    m_context->gop_size = kKeyInterval;
    m_context->max_b_frames = 0;
    av_opt_set(m_context->priv_data, "preset", "ultrafast", 0);
    av_opt_set(m_context->priv_data, "tune", "zerolatency", 0);
    av_opt_set_int(m_context->priv_data, "forced-idr", 1, 0);
    av_opt_set(m_context->priv_data, "x264-params", kX264Params, 0);

    int result = avcodec_open2(m_context, codec, nullptr);
    if (result < 0) {
        *error = AvError("avcodec_open2", result);
        Close();
        return false;
    }
    m_frame->format = AV_PIX_FMT_YUV420P;
    m_frame->width = width;
    m_frame->height = height;
    result = av_frame_get_buffer(m_frame, 0);
    if (result < 0) {
        *error = AvError("av_frame_get_buffer", result);
        Close();
        return false;
    }
    m_width = width;
    m_height = height;
    m_encoded = 0;
    return true;
}

QByteArray H264Encoder::EncodeNext(int64_t index, int32_t label, QString* error)
{
    if (!IsOpen()) {
        *error = QStringLiteral("encoder not open");
        return {};
    }
    int result = av_frame_make_writable(m_frame);
    if (result < 0) {
        *error = AvError("av_frame_make_writable", result);
        return {};
    }
    const TestPattern::Planes planes{
        m_frame->data[0],     m_frame->data[1],     m_frame->data[2], m_frame->linesize[0],
        m_frame->linesize[1], m_frame->linesize[2], m_width,          m_height};
    TestPattern::Draw(planes, index, label);
    m_frame->pts = m_encoded;
    m_frame->pict_type = m_encoded % kKeyInterval == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    ++m_encoded;

    result = avcodec_send_frame(m_context, m_frame);
    if (result < 0) {
        *error = AvError("avcodec_send_frame", result);
        return {};
    }
    // Zero latency: each picture in gives its access unit out at once.
    result = avcodec_receive_packet(m_context, m_packet);
    if (result < 0) {
        *error = AvError("avcodec_receive_packet", result);
        return {};
    }
    const QByteArray accessUnit(reinterpret_cast<const char*>(m_packet->data), m_packet->size);
    m_lastWasKey = (m_packet->flags & AV_PKT_FLAG_KEY) != 0;
    av_packet_unref(m_packet);
    return accessUnit;
}

void H264Encoder::Close()
{
    av_packet_free(&m_packet);
    av_frame_free(&m_frame);
    avcodec_free_context(&m_context);
    m_width = 0;
    m_height = 0;
}

} // namespace simcommon
