#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace simcommon {

// Encodes the test picture to H.264 with libavcodec's libx264, tuned for
// low delay: ultrafast, zerolatency, no B-frames, an IDR picture first and
// every kKeyInterval pictures, SPS and PPS repeated before each IDR, and an
// access unit delimiter first. Each call of EncodeNext gives one whole
// access unit in Annex-B form. One thread uses an object at a time.
class H264Encoder
{
public:
    static constexpr int kKeyInterval = 30;
    static constexpr int kFramesPerSecond = 15;
    static constexpr int kMinSide = 16;
    static constexpr int kMaxWidth = 3840;
    static constexpr int kMaxHeight = 2160;

    H264Encoder() = default;
    ~H264Encoder();
    H264Encoder(const H264Encoder&) = delete;
    H264Encoder& operator=(const H264Encoder&) = delete;

    // False, with the reason, when libavcodec has no libx264 encoder.
    static bool IsAvailable(QString* error);
    // Clamps to kMinSide..kMaxWidth by kMinSide..kMaxHeight and rounds down
    // to even numbers. True when the size had to change.
    static bool FitSize(int* width, int* height);

    // (Re)opens the encoder; the size must already fit. The next picture is
    // an IDR picture.
    bool Open(int width, int height, QString* error);
    bool IsOpen() const { return m_context != nullptr; }
    int Width() const { return m_width; }
    int Height() const { return m_height; }

    // Draws picture `index` of the pattern, showing `label`, and encodes it.
    // Empty, with the reason, on failure.
    QByteArray EncodeNext(int64_t index, int32_t label, QString* error);
    // Whether the last access unit was an IDR picture.
    bool LastWasKey() const { return m_lastWasKey; }

private:
    void Close();

    AVCodecContext* m_context = nullptr;
    AVFrame* m_frame = nullptr;
    AVPacket* m_packet = nullptr;
    int m_width = 0;
    int m_height = 0;
    int64_t m_encoded = 0; // pictures since Open
    bool m_lastWasKey = false;
};

} // namespace simcommon
