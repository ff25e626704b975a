#pragma once

// The format both sides of the audio driver's benchmark offer PipeWire:
// 16-bit little-endian stereo (FL, FR) at 48 kHz, as the driver's nodes.

#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

namespace velorane::bench {

inline const spa_pod* StereoFormat(spa_pod_builder* builder)
{
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_S16_LE;
    info.rate = 48000;
    info.channels = 2;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    return spa_format_audio_raw_build(builder, SPA_PARAM_EnumFormat, &info);
}

} // namespace velorane::bench
