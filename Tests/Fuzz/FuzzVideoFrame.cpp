// The video path from a frame to the renderer's copy: frames of random
// sizes and bytes, as the relay window builds them from a payload, handed
// to the decoder wrapper (software decoding, the path on a machine without
// a GPU), decoded step by step on this thread the way the decoder thread
// steps, and each picture copied by the renderer as the window's callback
// copies it. The renderer is made and never shown, so nothing is painted.
//
// The input is a row of frames, each: a mode byte, an extra byte, width
// and height (16 bits each, big-endian), a 32-bit big-endian length and
// that many bytes. The mode picks the frame's size field: the bytes given,
// those plus or minus the extra byte, the queue's limit of 1 MiB nearby,
// or the length word itself (any 32-bit value).
//
// Checked: every picture reaching the renderer has a size and a luma
// plane (a monochrome stream has no chroma, which the renderer refuses).

#include "Common/VideoDecode/Src/VideoDecoder.h"
#include "Common/VideoDecode/Src/VideoRenderer.h"
#include "Tests/Fuzz/FuzzSupport.h"
#include "Tests/VideoDecode/VideoDecoderTestStream.h"

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

using quorvan::IVideoDecoder;
using quorvan::kMaxFrameSize;
using quorvan::VideoDecoder;
using quorvan::VideoDecoderTestAccess;
using quorvan::VideoFrame;
using quorvan::VideoRenderer;

namespace {

uint32_t ReadBigEndian(const uint8_t* bytes, int count)
{
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

// One pass of the decoder thread after another, until a pass neither
// parsed nor received anything: then the thread would sleep.
void DecodeUntilIdle(VideoDecoder& decoder)
{
    for (;;) {
        const bool parsed = VideoDecoderTestAccess::ParseDecodePackets(decoder);
        const bool received = VideoDecoderTestAccess::ReceiveDeliverFrames(decoder);
        if (!parsed && !received) {
            return;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    velorane::fuzz::EnsureGuiApplication();
    // FFmpeg reports every broken slice on standard error, some gigabytes an
    // hour of this target's log; the checks here don't read it.
    [[maybe_unused]] static const bool quietFfmpeg = [] {
        av_log_set_level(AV_LOG_FATAL);
        return true;
    }();

    // Made once: a widget costs more than most inputs. What a picture
    // leaves behind in it (arrays grown, strides) is what the next picture
    // of a stream finds too.
    static VideoRenderer& renderer = *new VideoRenderer(1280, 720);
    int pictures = 0;
    // The pointer takes over the new decoder's one reference.
    quorvan::CRefCountPtr<VideoDecoder> decoder(new VideoDecoder());
    decoder->Initialize(
        [&](uint32_t width, uint32_t height, int* stride, uint8_t* y, uint8_t* u, uint8_t* v) {
            ++pictures;
            VELORANE_FUZZ_CHECK(width > 0 && height > 0 && stride && y);
            renderer.renderFrame(width, height, stride, y, u, v);
            renderer.requestRepaint();
        },
        IVideoDecoder::CodecH264, IVideoDecoder::DecoderSoftware);

    size_t at = 0;
    int32_t number = 0;
    while (size - at >= 10) {
        const uint8_t mode = data[at];
        const uint8_t extra = data[at + 1];
        const uint32_t width = ReadBigEndian(data + at + 2, 2);
        const uint32_t height = ReadBigEndian(data + at + 4, 2);
        const uint32_t wireLength = ReadBigEndian(data + at + 6, 4);
        at += 10;
        const size_t length = std::min<size_t>(wireLength, size - at);
        const uint8_t* bytes = data + at;
        at += length;

        int32_t sizeField = static_cast<int32_t>(length);
        switch (mode % 4) {
        case 1:
            sizeField += static_cast<int8_t>(extra);
            break;
        case 2:
            sizeField = static_cast<int32_t>(kMaxFrameSize) + static_cast<int8_t>(extra) % 4;
            break;
        case 3:
            sizeField = static_cast<int32_t>(wireLength);
            break;
        default:
            break;
        }

        // As the window builds it: the bytes that arrived, at most the
        // frame's room, then width and height behind them when they fit.
        auto frame = std::make_unique<VideoFrame>();
        const size_t copied = std::min<size_t>(length, kMaxFrameSize);
        std::memcpy(frame->data, bytes, copied);
        std::memcpy(frame->data + copied, &width, sizeof(width));
        std::memcpy(frame->data + copied + 4, &height, sizeof(height));
        frame->number = frame->wireNumber = number++;
        frame->size = frame->wireSize = sizeField;
        frame->width = width;
        frame->height = height;
        decoder->DeliverFrame(std::move(frame));
        DecodeUntilIdle(*decoder);
    }
    decoder->Stop();
    decoder->Terminate();
    (void)pictures;
    return 0;
}
