#include "Benchmarks/BareDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstring>

namespace velorane::bench {

namespace {

void CopyPlane(std::vector<uint8_t>& plane, const uint8_t* data, size_t bytes)
{
    if (plane.size() < bytes) {
        plane.resize(bytes);
    }
    std::memcpy(plane.data(), data, bytes);
}

} // namespace

void PlaneCopy::Copy(uint32_t height, const int* stride, const uint8_t* y, const uint8_t* u,
                     const uint8_t* v)
{
    CopyPlane(m_y, y, static_cast<size_t>(stride[0]) * height);
    CopyPlane(m_u, u, static_cast<size_t>(stride[1]) * height / 2);
    if (v) {
        CopyPlane(m_v, v, static_cast<size_t>(stride[2]) * height / 2);
    }
}

BareDecoder::BareDecoder() : m_packet(av_packet_alloc()), m_picture(av_frame_alloc())
{
    // As the relay's decoder opens its software context: by name, default
    // options.
    const AVCodec* codec = avcodec_find_decoder_by_name("h264");
    m_context = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (m_context && avcodec_open2(m_context, codec, nullptr) < 0) {
        avcodec_free_context(&m_context);
    }
}

BareDecoder::~BareDecoder()
{
    av_frame_free(&m_picture);
    av_packet_free(&m_packet);
    avcodec_free_context(&m_context);
}

int BareDecoder::ThreadCount() const
{
    return m_context ? m_context->thread_count : 0;
}

int BareDecoder::Decode(const uint8_t* data, size_t size)
{
    if (!m_context || !m_packet || !m_picture) {
        return 0;
    }
    // The packet borrows the bytes; libavcodec copies what it keeps, as it
    // does for the parser's packets in the relay.
    m_packet->data = const_cast<uint8_t*>(data);
    m_packet->size = static_cast<int>(size);
    avcodec_send_packet(m_context, m_packet);
    m_packet->data = nullptr;
    m_packet->size = 0;
    int pictures = 0;
    while (avcodec_receive_frame(m_context, m_picture) == 0) {
        m_copy.Copy(static_cast<uint32_t>(m_picture->height), m_picture->linesize,
                    m_picture->data[0], m_picture->data[1], m_picture->data[2]);
        ++pictures;
    }
    return pictures;
}

} // namespace velorane::bench
