#pragma once

// One compressed frame as it travels from the receiving thread to the
// decoder thread. Ownership moves by std::unique_ptr, so each frame belongs
// to exactly one place at a time: a list of the FrameQueue, or a local of
// the receiver or of the decoder.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

namespace quorvan {

// The largest payload a frame carries.
constexpr uint32_t kMaxFrameSize = 0x100000;
// Behind the payload, width and height again, as on the wire.
constexpr uint32_t kFrameDataSize = kMaxFrameSize + 8;

// A plain structure of fixed size, always on the heap. A new frame is zero
// throughout; the queue's own frames then take 1920 by 1080.
struct VideoFrame
{
    int32_t number = 0;     // frame number from the wire
    int32_t size = 0;       // valid bytes in data; 0 or less means nothing to parse
    uint32_t width = 0;     // picture width in pixels
    uint32_t height = 0;    // picture height in pixels
    int32_t wireNumber = 0; // second copy of number
    int32_t wireSize = 0;   // second copy of size
    uint8_t data[kFrameDataSize] = {};

    // The H.264 parser reads the bytes of data in words and may look a few
    // bytes past the payload it is given. Every frame is therefore allocated
    // with a zeroed tail behind the structure, so that such a look never
    // leaves the allocation, whatever the size of the payload.
    static constexpr std::size_t kReadPadding = 64;

    static void* operator new(std::size_t bytes)
    {
        void* memory = ::operator new(bytes + kReadPadding);
        std::memset(static_cast<uint8_t*>(memory) + bytes, 0, kReadPadding);
        return memory;
    }
    static void operator delete(void* frame) noexcept { ::operator delete(frame); }
};

static_assert(sizeof(VideoFrame) == 6 * sizeof(uint32_t) + kFrameDataSize,
              "VideoFrame is the six header values and the data, without holes");

} // namespace quorvan
