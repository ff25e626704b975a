#include "Common/VideoDecode/Src/VideoDecoder.h"

#include "Common/Logger/Src/Logger.h"

#include <utility>

namespace quorvan {

namespace {

struct CodecEntry
{
    IVideoDecoder::CodecFormat format;
    const char* name;
    AVCodecID id;
};

constexpr CodecEntry kCodecs[] = {
    {IVideoDecoder::CodecH264, "h264", AV_CODEC_ID_H264},
    {IVideoDecoder::CodecHevc, "hevc", AV_CODEC_ID_HEVC},
    {IVideoDecoder::CodecMpeg2, "mpeg2video", AV_CODEC_ID_MPEG2VIDEO},
    {IVideoDecoder::CodecVp9, "vp9", AV_CODEC_ID_VP9},
    {IVideoDecoder::CodecWmv3, "wmv3", AV_CODEC_ID_WMV3},
};

const CodecEntry* FindCodec(IVideoDecoder::CodecFormat format)
{
    for (const CodecEntry& entry : kCodecs) {
        if (entry.format == format) {
            return &entry;
        }
    }
    return nullptr;
}

void FreeContext(AVCodecContext*& context)
{
    if (context) {
        avcodec_close(context);
        avcodec_free_context(&context);
        context = nullptr;
    }
}

} // namespace

RESULT CreateVideoDecoder(IVideoDecoder** decoder)
{
    if (!decoder) {
        return ResultInvalidPointer;
    }
    *decoder = new VideoDecoder();
    return Success;
}

VideoDecoder::VideoDecoder() = default;

VideoDecoder::VideoDecoder(HardwareProbe probe) : m_probe(std::move(probe)) {}

VideoDecoder::~VideoDecoder()
{
    Stop();
    Terminate();
}

bool VideoDecoder::Initialize(FrameCallback callback, CodecFormat format, DecoderType type)
{
    // A running loop reads the callback, the parser and the contexts that
    // are about to be replaced: it stops first, and the caller starts it
    // again once the decoder is ready.
    Stop();
    m_callback = std::move(callback);
    m_codecFormat = format;
    const CodecEntry* codec = FindCodec(format);
    if (!codec) {
        VLOG(EGroupValueInformation, "VideoDecoder: invalid codec requested!");
        return false;
    }
    m_codecName = codec->name;
    m_codecId = codec->id;

    // Not tested: a failure here surfaces in the context steps below.
    InitializeDecoder();

    if (type == DecoderHardware) {
        VLOG(EGroupValueInformation, "VideoDecoder: trying to initialize hardware decoder");
        if (FindAcceleration() && SwitchDecoder(m_hardwareContext) && AllocateDecoderContext() &&
            HardwareConfiguration()) {
            VLOG(EGroupValueInformation, "VideoDecoder: hardware decoder initialized");
            m_currentContext = m_hardwareContext;
            NoteCurrentPath();
            return true;
        }
    }

    VLOG(EGroupValueInformation, "VideoDecoder: trying to initialize software decoder");
    if (!SwitchDecoder(m_softwareContext)) {
        return false;
    }
    VLOG(EGroupValueInformation, "VideoDecoder: software decoder initialized");
    m_currentContext = m_softwareContext;
    NoteCurrentPath();
    return true;
}

bool VideoDecoder::InitializeDecoder()
{
    // A second Initialize replaces what the first one made.
    ReleaseDecoderState();

    m_codec = avcodec_find_decoder_by_name(m_codecName.c_str());
    if (!m_codec) {
        VLOG(EGroupValueInformation, "VideoDecoder: avcodec_find_decoder_by_name failed!");
        return false;
    }
    VLOG(EGroupValueInformation, "VideoDecoder: selected codec: %s", m_codec->name);

    m_parser = av_parser_init(m_codecId);
    if (!m_parser) {
        // This wording whatever the codec.
        VLOG(EGroupValueInformation, "VideoDecoder: failed to initialize H264 parser!");
        return false;
    }

    m_packet = av_packet_alloc();
    if (!m_packet) {
        VLOG(EGroupValueInformation, "VideoDecoder: failed to allocate packet!");
        return false;
    }

    m_decodedFrame = av_frame_alloc();
    m_transferFrame = av_frame_alloc();
    return true;
}

bool VideoDecoder::SwitchDecoder(AVCodecContext*& target)
{
    // Both old contexts go, whichever one is being replaced.
    FreeContext(m_softwareContext);
    FreeContext(m_hardwareContext);
    NoteCurrentPath();

    target = avcodec_alloc_context3(m_codec);
    if (!target) {
        VLOG(EGroupValueInformation, "fmpegDecoder: avcodec_alloc_context3 failed!");
        return false;
    }
    NoteCurrentPath();

    // Opened before the device and the format callback are attached; they
    // take effect at the first format negotiation.
    const int rc = avcodec_open2(target, m_codec, nullptr);
    if (rc < 0) {
        VLOG(EGroupValueInformation, "VideoDecoder: avcodec_open2 failed: 0x%08x",
             static_cast<unsigned>(rc));
        return false;
    }
    return true;
}

void VideoDecoder::Start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_running.exchange(true)) {
        return;
    }
    try {
        m_thread = std::thread(&VideoDecoder::DecoderLoop, this);
    } catch (...) {
        m_running.store(false);
        throw;
    }
}

void VideoDecoder::Stop()
{
    // The mutex is held through the join; the loop sees the cleared flag
    // after its current pass, at the latest after its one-second wait.
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running.exchange(false)) {
        return;
    }
    m_thread.join();
}

void VideoDecoder::Terminate()
{
    // Freeing under a running loop would pull its state away; the thread is
    // stopped first (nothing to do when it is already stopped).
    Stop();

    FreeContext(m_softwareContext);
    FreeContext(m_hardwareContext);
    if (m_parser) {
        av_parser_close(m_parser);
    }
    if (m_packet) {
        av_packet_free(&m_packet);
    }
    if (m_hardwareDeviceContext) {
        av_buffer_unref(&m_hardwareDeviceContext);
    }
    m_hardwareDeviceContext = nullptr;
    m_packet = nullptr;
    m_parser = nullptr;
    m_codec = nullptr;
    m_currentContext = nullptr;
    if (m_decodedFrame) {
        av_frame_free(&m_decodedFrame);
        m_decodedFrame = nullptr;
    }
    if (m_transferFrame) {
        av_frame_free(&m_transferFrame);
        m_transferFrame = nullptr;
    }
    NoteCurrentPath();
}

void VideoDecoder::RecycleContexts()
{
    Stop();
    FreeContext(m_softwareContext);
    FreeContext(m_hardwareContext);
    NoteCurrentPath();
}

IVideoDecoder::DecoderType VideoDecoder::GetDecoder()
{
    return m_currentIsHardware.load(std::memory_order_acquire) ? DecoderHardware : DecoderSoftware;
}

bool VideoDecoder::DeliverFrame(std::unique_ptr<VideoFrame> frame)
{
    // The free list is the set of admission tokens: with all of them out
    // the newest frame is the one dropped.
    std::unique_ptr<VideoFrame> token;
    const FrameQueueResult status = m_frameQueue.RequestFrame(token);
    if (status == NoFreeFrame || !token) {
        VLOG(EGroupValueInformation, "VideoDecoder: frame queue is full, no frame available!");
        return false;
    }
    if (!frame) {
        // Nothing to decode: the token goes back so the queue keeps its size.
        m_frameQueue.ReleaseFrame(std::move(token));
        return false;
    }

    // The token's buffer gives way to the caller's frame.
    token = std::move(frame);

    // PushFrame answers FrameTooLarge for an oversized frame, never
    // NoFreeFrame: such a frame is parked on the free list, accepted here,
    // and this message stays silent. The mismatch is kept on purpose.
    if (m_frameQueue.PushFrame(std::move(token)) == NoFreeFrame) {
        VLOG(EGroupValueInformation,
             "VideoDecoder: receiving a frame, size is too large for queue!");
        return false;
    }
    return true;
}

void VideoDecoder::ReleaseDecoderState()
{
    if (m_parser) {
        av_parser_close(m_parser);
        m_parser = nullptr;
    }
    av_packet_free(&m_packet);
    av_frame_free(&m_decodedFrame);
    av_frame_free(&m_transferFrame);
}

void VideoDecoder::NoteCurrentPath()
{
    m_currentIsHardware.store(m_currentContext == m_hardwareContext, std::memory_order_release);
}

AVCodecContext* VideoDecoder::LiveContext() const
{
    // m_currentContext is left as it was when its context is freed (the
    // caller sets it next); it is only used while it names a live context.
    if (m_currentContext &&
        (m_currentContext == m_softwareContext || m_currentContext == m_hardwareContext)) {
        return m_currentContext;
    }
    return nullptr;
}

} // namespace quorvan
