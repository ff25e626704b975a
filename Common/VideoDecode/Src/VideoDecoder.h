#pragma once

#include "Common/Platform/Src/RefCount.h"
#include "Common/VideoDecode/Src/FrameQueue.h"
#include "Common/VideoDecode/Src/HardwareProbe.h"
#include "Common/VideoDecode/Src/IVideoDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/hwcontext.h>
#include <libavutil/pixfmt.h>
}

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace quorvan {

// Decodes the relay's compressed video with FFmpeg: a platform hardware
// decoder when one is found at Initialize, the software decoder otherwise,
// and the software decoder for good from the first hardware decode error.
//
// Threads: the owner's thread (the GUI thread) calls Initialize, Start,
// Stop, Terminate, GetDecoder and DeliverFrame; the decoder thread runs
// DecoderLoop and the callback. They meet only in m_frameQueue, which has
// its own locks. The FFmpeg state belongs to the decoder thread between
// Start and Stop and to the owner's thread outside that span, so no lock
// guards it; m_running is the loop's flag, read without the mutex, and
// m_mutex serialises Start and Stop. No lock is held during the callback.
// GetDecoder reads m_currentIsHardware, which either thread may write.
// Initialize comes before Start; Terminate and RecycleContexts stop a
// running thread first. The last reference must not go on the decoder
// thread (the callback), which would have to join itself.
class VideoDecoder : public IVideoDecoder, public IRefCountImpl
{
public:
    VideoDecoder();
    // With other hardware probing calls, for tests.
    explicit VideoDecoder(HardwareProbe probe);
    // Stops the thread and releases the FFmpeg state.
    ~VideoDecoder() override;
    VideoDecoder(const VideoDecoder&) = delete;
    VideoDecoder& operator=(const VideoDecoder&) = delete;

    bool Initialize(FrameCallback callback, CodecFormat format, DecoderType type) override;
    void Start() override;
    void Stop() override;
    void Terminate() override;
    DecoderType GetDecoder() override;
    bool DeliverFrame(std::unique_ptr<VideoFrame> frame) override;

    // Closes and frees both codec contexts, software first. Nothing in the
    // relay calls it.
    void RecycleContexts();

private:
    friend class VideoDecoderTestAccess;

    bool InitializeDecoder();
    bool FindAcceleration();
    bool SwitchDecoder(AVCodecContext*& target);
    bool AllocateDecoderContext();
    bool HardwareConfiguration();
    void DecoderLoop();
    bool ParseDecodePackets();
    bool ReceiveDeliverFrames();
    static AVPixelFormat GetFormat(AVCodecContext* context, const AVPixelFormat* formats);

    // Sends the parser's packet, with the software fallback at the first
    // hardware error; the answer is the value ParseDecodePackets reports.
    bool SubmitPacket();
    // The context the decoder thread may use: m_currentContext when it is
    // one of the two live contexts, null otherwise.
    AVCodecContext* LiveContext() const;
    // Frees the parser, packet and frames of an earlier InitializeDecoder.
    void ReleaseDecoderState();
    // Records the answer of GetDecoder after m_currentContext or
    // m_hardwareContext changed.
    void NoteCurrentPath();

    std::thread m_thread;
    std::mutex m_mutex;
    std::atomic<bool> m_running{false};
    FrameCallback m_callback;
    std::string m_hardwareTypeName;
    FrameQueue m_frameQueue{3};
    AVPixelFormat m_hardwarePixelFormat = AV_PIX_FMT_NONE;
    CodecFormat m_codecFormat = CodecH264;
    std::string m_codecName;
    int32_t m_codecId = AV_CODEC_ID_NONE;
    AVHWDeviceType m_hardwareType = AV_HWDEVICE_TYPE_NONE;
    AVBufferRef* m_hardwareDeviceContext = nullptr;
    AVCodecContext* m_hardwareContext = nullptr;
    AVCodecContext* m_softwareContext = nullptr;
    AVCodecContext* m_currentContext = nullptr;
    const AVCodec* m_codec = nullptr;
    AVCodecParserContext* m_parser = nullptr;
    AVPacket* m_packet = nullptr;
    AVFrame* m_decodedFrame = nullptr;
    AVFrame* m_transferFrame = nullptr;
    HardwareProbe m_probe;
    // GetDecoder's answer, m_currentContext == m_hardwareContext, kept apart
    // so that the owner's thread may ask while the decoder thread falls back.
    std::atomic<bool> m_currentIsHardware{true};
};

} // namespace quorvan
