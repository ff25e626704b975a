#pragma once

// The reference that the relay's video path is measured against:
// libavcodec's H.264 decoder driven directly, avcodec_send_packet and
// avcodec_receive_frame per access unit, with FFmpeg's default of one
// decoder thread, as the relay's decoder has; and for each picture the same
// copy of the planes that the relay's renderer makes. No parser: the access
// units come whole.
//
// Threads: an object belongs to one thread at a time.

#include <cstddef>
#include <cstdint>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace velorane::bench {

// The renderer's copy of a picture: whole rows with their padding, chroma of
// half the height; a null v is a two-plane picture. The arrays only grow.
class PlaneCopy
{
public:
    void Copy(uint32_t height, const int* stride, const uint8_t* y, const uint8_t* u,
              const uint8_t* v);

private:
    std::vector<uint8_t> m_y;
    std::vector<uint8_t> m_u;
    std::vector<uint8_t> m_v;
};

class BareDecoder
{
public:
    BareDecoder();
    ~BareDecoder();
    BareDecoder(const BareDecoder&) = delete;
    BareDecoder& operator=(const BareDecoder&) = delete;

    bool IsOpen() const { return m_context != nullptr; }
    // The decoder threads libavcodec settled on.
    int ThreadCount() const;
    // Decodes one access unit and copies every picture it gives; answers
    // how many that were.
    int Decode(const uint8_t* data, size_t size);

private:
    AVCodecContext* m_context = nullptr;
    AVPacket* m_packet = nullptr;
    AVFrame* m_picture = nullptr;
    PlaneCopy m_copy;
};

} // namespace velorane::bench
