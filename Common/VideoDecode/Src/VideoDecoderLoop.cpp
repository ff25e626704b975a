// The decoder thread of VideoDecoder: take a frame, parse it into packets,
// decode them, and hand each picture to the callback. Everything here runs
// on the decoder thread, between Start and Stop.

#include "Common/VideoDecode/Src/VideoDecoder.h"

#include "Common/Logger/Src/Logger.h"

extern "C" {
#include <libavutil/error.h>
}

#include <cerrno>

namespace quorvan {

void VideoDecoder::DecoderLoop()
{
    VLOG(EGroupValueInformation, "VideoDecoder: enter decoding thread");
    // Each pass takes at most one frame and receives at most one picture;
    // it sleeps only when it did neither.
    while (m_running.load()) {
        const bool parsed = ParseDecodePackets();
        const bool received = ReceiveDeliverFrames();
        if (!parsed && !received) {
            m_frameQueue.WaitForFrame();
        }
    }
    VLOG(EGroupValueInformation, "VideoDecoder: exit decoding thread");
}

bool VideoDecoder::ParseDecodePackets()
{
    std::unique_ptr<VideoFrame> frame;
    if (m_frameQueue.PopFrame(frame) != FrameQueueOk) {
        return false;
    }

    int64_t remaining = frame->size;
    bool result = false;
    // Without a parser, packet or context (a failed Initialize, or none yet)
    // there is nothing to parse with: the frame goes back untouched.
    while (remaining > 0 && m_parser && m_packet && LiveContext()) {
        // Every pass hands the parser the start of the frame and its whole
        // size; only remaining goes down. That is how this decoder has
        // always fed the parser, and it stays so.
        const int consumed =
            av_parser_parse2(m_parser, LiveContext(), &m_packet->data, &m_packet->size, frame->data,
                             frame->size, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        if (m_packet->size > 0) {
            result = SubmitPacket();
        }
        remaining -= consumed;
    }

    m_frameQueue.ReleaseFrame(std::move(frame));
    return result;
}

bool VideoDecoder::SubmitPacket()
{
    for (;;) {
        AVCodecContext* context = LiveContext();
        // No context at all (the software one could not be allocated) fails
        // as a context that could not be opened does.
        const int rc = context ? avcodec_send_packet(context, m_packet) : AVERROR(EINVAL);
        if (rc == AVERROR(EAGAIN)) {
            // The packet is not sent again.
            VLOG(EGroupValueInformation, "VideoDecoder: breaking to receive frames!");
            return false;
        }
        if (rc >= 0) {
            return true;
        }
        VLOG(EGroupValueInformation, "Decode error: %d", rc);
        if (!context || context != m_hardwareContext) {
            // A software decode error loses this packet and nothing more.
            return true;
        }
        // The first hardware error moves the decoder to software for good;
        // the same packet goes again to the new context, the parser kept.
        VLOG(EGroupValueInformation, "VideoDecoder: reverting to software decoder!");
        SwitchDecoder(m_softwareContext);
        m_currentContext = m_softwareContext;
        NoteCurrentPath();
    }
}

bool VideoDecoder::ReceiveDeliverFrames()
{
    AVCodecContext* context = LiveContext();
    if (!context || !m_decodedFrame) {
        return false;
    }

    int rc = avcodec_receive_frame(context, m_decodedFrame);
    if (rc == AVERROR_EOF || rc == AVERROR(EAGAIN)) {
        return false;
    }
    if (rc < 0) {
        VLOG(EGroupValueInformation, "VideoDecoder: avcodec_receive_frame error: 0x%08x",
             static_cast<unsigned>(rc));
        return false;
    }

    if (context == m_hardwareContext) {
        if (!m_transferFrame) {
            return false;
        }
        // Only a picture in hardware surfaces can be transferred; FFmpeg
        // would follow a null surface pointer for any other, so such a
        // picture fails the transfer as FFmpeg fails it for a filled target.
        rc = m_decodedFrame->hw_frames_ctx
                 ? av_hwframe_transfer_data(m_transferFrame, m_decodedFrame, 0)
                 : AVERROR(ENOSYS);
        if (rc < 0) {
            char text[64] = {};
            av_strerror(rc, text, sizeof(text));
            VLOG(EGroupValueInformation, "VideoDecoder: av_hwframe_transfer_data error: 0x%08x: %s",
                 static_cast<unsigned>(rc), text);
        }
        // Passed on whatever it holds; never unreferenced between pictures,
        // so later transfers reuse its planes. Two planes, chroma
        // interleaved.
        m_callback(static_cast<uint32_t>(m_transferFrame->width),
                   static_cast<uint32_t>(m_transferFrame->height), m_transferFrame->linesize,
                   m_transferFrame->data[0], m_transferFrame->data[1], nullptr);
    } else {
        m_callback(static_cast<uint32_t>(m_decodedFrame->width),
                   static_cast<uint32_t>(m_decodedFrame->height), m_decodedFrame->linesize,
                   m_decodedFrame->data[0], m_decodedFrame->data[1], m_decodedFrame->data[2]);
    }
    return true;
}

} // namespace quorvan
