#pragma once

// The three FFmpeg calls by which the decoder looks for a hardware decoder:
// the walk over device types, the creation of a device, and the codec's
// hardware configuration. The decoder uses FFmpeg's own; a test replaces
// them to walk a device list of its choosing or to stand in a device on a
// machine that has none.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

#include <functional>

namespace quorvan {

struct HardwareProbe
{
    std::function<AVHWDeviceType(AVHWDeviceType previous)> iterateTypes = av_hwdevice_iterate_types;
    std::function<int(AVBufferRef** device, AVHWDeviceType type)> createDevice =
        [](AVBufferRef** device, AVHWDeviceType type) {
            return av_hwdevice_ctx_create(device, type, nullptr, nullptr, 0);
        };
    std::function<const AVCodecHWConfig*(const AVCodec* codec, int index)> hardwareConfig =
        avcodec_get_hw_config;
};

} // namespace quorvan
