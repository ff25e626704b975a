#pragma once

#include <cstdint>

namespace simcommon {

// Draws a moving test picture straight into YUV 4:2:0 planes (BT.601,
// limited range): eight colour bars, a box that bounces off the edges and,
// top left, a number written in blocky digits. The width and height must be
// even.
class TestPattern
{
public:
    struct Planes
    {
        uint8_t* y;
        uint8_t* u;
        uint8_t* v;
        int yStride;
        int uStride;
        int vStride;
        int width;
        int height;
    };

    // index moves the box, one step per picture; label is the number shown.
    static void Draw(const Planes& planes, int64_t index, int32_t label);
};

} // namespace simcommon
