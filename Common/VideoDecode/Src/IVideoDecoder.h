#pragma once

#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Result.h"
#include "Common/VideoDecode/Src/VideoFrame.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace quorvan {

// Turns compressed video into picture planes on a thread of its own.
// Reference counted; a new object starts with one reference.
class IVideoDecoder : public virtual IRefCount
{
public:
    enum CodecFormat : int32_t
    {
        CodecH264 = 1,
        CodecHevc = 2,
        CodecMpeg2 = 3,
        CodecVp9 = 4,
        CodecWmv3 = 5,
    };

    enum DecoderType : int32_t
    {
        DecoderHardware = 1,
        DecoderSoftware = 2,
    };

    // Called on the decoder thread once per picture. The planes and the
    // stride array belong to the decoder and are valid only during the
    // call. A null vData means two planes with interleaved chroma (the
    // hardware path); otherwise three planes (the software path).
    using FrameCallback = std::function<void(uint32_t width, uint32_t height, int* stride,
                                             uint8_t* yData, uint8_t* uData, uint8_t* vData)>;

    ~IVideoDecoder() override = default;

    // Sets everything up; true when a decoder is ready. Comes before Start.
    virtual bool Initialize(FrameCallback callback, CodecFormat format, DecoderType type) = 0;
    // Starts the decoder thread; does nothing while it runs.
    virtual void Start() = 0;
    // Stops and joins the decoder thread, which may take up to one second;
    // does nothing when it isn't running.
    virtual void Stop() = 0;
    // Releases all decoding state; safe to call twice.
    virtual void Terminate() = 0;
    // Which path decodes now.
    virtual DecoderType GetDecoder() = 0;
    // Hands one compressed frame over; true when it was accepted. With all
    // tokens out the frame is destroyed and the answer is false.
    virtual bool DeliverFrame(std::unique_ptr<VideoFrame> frame) = 0;
};

// Makes a decoder with one reference for the caller, not yet initialised.
RESULT CreateVideoDecoder(IVideoDecoder** decoder);

} // namespace quorvan
