#include "TestPattern.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace simcommon {

namespace {

struct Colour
{
    uint8_t y;
    uint8_t u;
    uint8_t v;
};

// White, yellow, cyan, green, magenta, red, blue, black.
constexpr Colour kBars[] = {{235, 128, 128}, {210, 16, 146}, {170, 166, 16}, {145, 54, 34},
                            {106, 202, 222}, {81, 90, 240},  {41, 240, 110}, {16, 128, 128}};
constexpr int kBarCount = sizeof(kBars) / sizeof(kBars[0]);
constexpr Colour kBlack = {16, 128, 128};
constexpr Colour kWhite = {235, 128, 128};
constexpr Colour kOrange = {150, 60, 200};

// 3 x 5 digits, one row per 3 bits, most significant bit on the left.
constexpr uint8_t kDigits[10][5] = {
    {7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7}, {5, 5, 7, 1, 1},
    {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1}, {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7}};

// Fills a rectangle, clipped to the picture. Chroma covers the even-aligned
// 2 x 2 cells that the rectangle touches.
void FillRect(const TestPattern::Planes& p, int x, int y, int w, int h, Colour c)
{
    const int x0 = std::max(0, x);
    const int y0 = std::max(0, y);
    const int x1 = std::min(p.width, x + w);
    const int y1 = std::min(p.height, y + h);
    if (x0 >= x1 || y0 >= y1) {
        return;
    }
    for (int row = y0; row < y1; ++row) {
        std::memset(p.y + row * p.yStride + x0, c.y, static_cast<size_t>(x1 - x0));
    }
    const int cx0 = x0 / 2;
    const int cx1 = (x1 + 1) / 2;
    for (int row = y0 / 2; row < (y1 + 1) / 2; ++row) {
        std::memset(p.u + row * p.uStride + cx0, c.u, static_cast<size_t>(cx1 - cx0));
        std::memset(p.v + row * p.vStride + cx0, c.v, static_cast<size_t>(cx1 - cx0));
    }
}

void DrawBars(const TestPattern::Planes& p)
{
    for (int bar = 0; bar < kBarCount; ++bar) {
        const int x0 = (p.width * bar / kBarCount) & ~1;
        const int x1 = (p.width * (bar + 1) / kBarCount) & ~1;
        FillRect(p, x0, 0, (bar == kBarCount - 1 ? p.width : x1) - x0, p.height, kBars[bar]);
    }
}

// Position on a path that goes from 0 to span and back, one step at a time.
int Bounce(int64_t step, int span)
{
    if (span <= 0) {
        return 0;
    }
    const int64_t period = 2 * static_cast<int64_t>(span);
    const int64_t phase = step % period;
    return static_cast<int>(phase <= span ? phase : period - phase);
}

void DrawBox(const TestPattern::Planes& p, int64_t index)
{
    const int side = std::max(8, std::min(p.width, p.height) / 6) & ~1;
    const int speed = std::max(2, p.width / 160);
    const int x = Bounce(index * speed, p.width - side) & ~1;
    const int y = Bounce(index * speed * 3 / 4, p.height - side) & ~1;
    FillRect(p, x, y, side, side, kOrange);
    FillRect(p, x + side / 4, y + side / 4, side / 2, side / 2, kWhite);
}

void DrawLabel(const TestPattern::Planes& p, int32_t label)
{
    char text[16];
    const int length = std::snprintf(text, sizeof(text), "%d", label);
    const int cell = std::max(2, p.height / 60) & ~1;
    const int pitch = 4 * cell; // digit plus a blank column
    FillRect(p, 0, 0, cell + length * pitch, 7 * cell, kBlack);
    for (int i = 0; i < length; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            FillRect(p, cell + i * pitch, 3 * cell, 3 * cell, cell, kWhite); // minus sign
            continue;
        }
        const uint8_t* rows = kDigits[text[i] - '0'];
        for (int row = 0; row < 5; ++row) {
            for (int column = 0; column < 3; ++column) {
                if (rows[row] & (4 >> column)) {
                    FillRect(p, cell + i * pitch + column * cell, cell + row * cell, cell, cell,
                             kWhite);
                }
            }
        }
    }
}

} // namespace

void TestPattern::Draw(const Planes& planes, int64_t index, int32_t label)
{
    DrawBars(planes);
    DrawBox(planes, index);
    DrawLabel(planes, label);
}

} // namespace simcommon
