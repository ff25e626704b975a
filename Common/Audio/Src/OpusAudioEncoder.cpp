#include "Common/Audio/Src/AudioResult.h"
#include "Common/Audio/Src/IAudioEncoder.h"
#include "Common/Audio/Src/ResamplerNearestNeighbor.h"
#include "Common/Audio/Src/RingBuffer.h"
#include "Common/Audio/Src/WriteBuffer.h"
#include "Common/Logger/Src/Logger.h"

#include <opus/opus.h>

namespace quorvan {

namespace {

constexpr int kOpusRate = 48000;
// One second of 16-bit audio at 48 kHz, per channel.
constexpr size_t kRingBytesPerChannel = 96000;
// 480 frames: 10 ms at 48 kHz.
constexpr int kPacketFrames = 480;

class OpusAudioEncoder : public IAudioEncoder
{
public:
    OpusAudioEncoder(int channels, int sampleRate)
        : m_channels(channels), m_sampleRate(sampleRate),
          m_ring(static_cast<size_t>(channels > 0 ? channels : 1) * kRingBytesPerChannel)
    {
    }

    ~OpusAudioEncoder() override
    {
        if (m_encoder) {
            opus_encoder_destroy(m_encoder);
        }
    }

    OpusAudioEncoder(const OpusAudioEncoder&) = delete;
    OpusAudioEncoder& operator=(const OpusAudioEncoder&) = delete;

    int32_t Encode(const int16_t* samples, size_t bytes, std::unique_ptr<uint8_t[]>& output,
                   size_t& outputSize) override
    {
        output.reset();
        outputSize = 0;
        if (m_errorState != 0) {
            VLOG(EGroupValueSevere, "opus encoder in error state");
            return AudioError;
        }
        if (!m_encoder) {
            int error = OPUS_OK;
            m_encoder = opus_encoder_create(kOpusRate, m_channels, OPUS_APPLICATION_AUDIO, &error);
            if (error != OPUS_OK || !m_encoder) {
                m_encoder = nullptr;
                VLOG(EGroupValueSevere, "unable to create encoder");
                m_errorState = error != OPUS_OK ? error : OPUS_ALLOC_FAIL;
                return AudioError;
            }
            opus_encoder_ctl(m_encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
        }

        const size_t frameSize = static_cast<size_t>(m_channels) * 2;
        const size_t inputFrames = bytes / frameSize;
        // A rate of 0 or below has no frames to give.
        const size_t outputFrames =
            m_sampleRate > 0 ? inputFrames * kOpusRate / static_cast<size_t>(m_sampleRate) : 0;
        ResamplerNearestNeighbor resampler(reinterpret_cast<const uint8_t*>(samples), inputFrames,
                                           outputFrames, m_channels);
        const int32_t written = m_ring.Write(resampler, frameSize * outputFrames);
        if (written < 0) {
            return written;
        }

        const size_t total = m_ring.Stored();
        std::unique_ptr<uint8_t[]> encoded(new uint8_t[total > 0 ? total : 1]);
        WriteBuffer writer(encoded.get(), total);
        const size_t packetBytes = static_cast<size_t>(m_channels) * 960;
        const size_t maxPacket = packetBytes - 4;
        while (m_ring.Stored() >= packetBytes) {
            const uint8_t* pointer = nullptr;
            m_ring.GetContiguous(0, packetBytes, pointer);
            m_ring.Skip(packetBytes);
            const size_t position = writer.Position();
            writer.Skip(4);
            if (writer.Remaining() < maxPacket) {
                VLOG(EGroupValueSevere, "write overflow: %zu < %u", writer.Remaining(),
                     static_cast<unsigned>(maxPacket));
                return AudioError;
            }
            // Reads start on packet bounds, a whole number of which fill the
            // ring, so a packet never wraps; a null pointer is still no
            // packet to encode.
            const int n = pointer
                              ? opus_encode(m_encoder, reinterpret_cast<const opus_int16*>(pointer),
                                            kPacketFrames, writer.Current(),
                                            static_cast<opus_int32>(maxPacket))
                              : OPUS_INTERNAL_ERROR;
            if (n < 0 || static_cast<size_t>(n) > maxPacket) {
                VLOG(EGroupValueSevere, "opus encode failed");
                return AudioError;
            }
            writer.WriteUInt32(position, static_cast<uint32_t>(n));
            writer.Skip(static_cast<size_t>(n));
        }
        outputSize = writer.Position();
        output = std::move(encoded);
        return 0;
    }

private:
    int32_t m_channels;
    int32_t m_sampleRate;
    int32_t m_errorState = 0;
    OpusEncoder* m_encoder = nullptr;
    RingBuffer m_ring;
};

} // namespace

IAudioEncoder* IAudioEncoder::CreateInstance(int channels, int sampleRate)
{
    return new OpusAudioEncoder(channels, sampleRate);
}

} // namespace quorvan
