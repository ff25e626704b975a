// The renderer's copy of a picture: sizes before the first picture, arrays
// that only grow, the layout a picture asks for, and the bounds of an
// upload.

#include "Common/VideoDecode/Src/VideoRendererPlanes.h"

#include <gtest/gtest.h>

#include <vector>

namespace quorvan {
namespace {

TEST(VideoRendererPlanesTest, StartsWithZeroedPlanesForTheWidgetSize)
{
    const VideoRendererPlanes planes(64, 48);
    EXPECT_EQ(planes.Width(), 64u);
    EXPECT_EQ(planes.Height(), 48u);
    EXPECT_EQ(planes.Stride(0), 64);
    EXPECT_EQ(planes.Stride(1), 64); // the full width, as the first copy expects
    EXPECT_EQ(planes.Stride(2), 32);
    EXPECT_EQ(planes.WantedShader(), ShaderNone);
    EXPECT_EQ(planes.YData().size(), 64 * 48);
    EXPECT_EQ(planes.UData().size(), 64 * 48 / 2);
    EXPECT_EQ(planes.VData().size(), 32 * 48 / 2);
    EXPECT_EQ(planes.YData().count('\0'), 64 * 48);
}

TEST(VideoRendererPlanesTest, ThreePlanesAreCopiedWholeRowsAndAskForTheSoftwareShader)
{
    VideoRendererPlanes planes(16, 8);
    int stride[3] = {24, 16, 12};
    std::vector<uint8_t> y(24 * 8, 1), u(16 * 4, 2), v(12 * 4, 3);
    planes.CopyFrom(16, 8, stride, y.data(), u.data(), v.data());

    EXPECT_EQ(planes.WantedShader(), ShaderSoftware);
    EXPECT_EQ(planes.Stride(0), 24);
    EXPECT_EQ(planes.Stride(1), 16);
    EXPECT_EQ(planes.Stride(2), 12);
    EXPECT_EQ(planes.YData().size(), 24 * 8);
    EXPECT_EQ(planes.YData().count('\1'), 24 * 8);
    EXPECT_EQ(planes.UData().left(16 * 4).count('\2'), 16 * 4);
    EXPECT_EQ(planes.VData().left(12 * 4).count('\3'), 12 * 4);
}

TEST(VideoRendererPlanesTest, TwoPlanesLeaveTheThirdArrayAndKeepItsStride)
{
    VideoRendererPlanes planes(16, 8);
    // A three-plane picture first, so the third array holds a picture of its
    // own: 8 by 4 bytes of chroma, each byte different.
    int threeStrides[3] = {16, 8, 8};
    std::vector<uint8_t> y3(16 * 8, 1), u3(8 * 4, 2), v3(8 * 4);
    for (size_t i = 0; i < v3.size(); ++i) {
        v3[i] = static_cast<uint8_t>(0x40 + i);
    }
    planes.CopyFrom(16, 8, threeStrides, y3.data(), u3.data(), v3.data());
    const QByteArray vBefore = planes.VData();
    ASSERT_EQ(vBefore.size(), 8 * 4);
    ASSERT_EQ(vBefore.left(8 * 4), QByteArray(reinterpret_cast<const char*>(v3.data()), 8 * 4));

    // Then two planes, with a third stride that no plane backs.
    int stride[3] = {16, 16, 123};
    std::vector<uint8_t> y(16 * 8, 5), uv(16 * 4, 6);
    planes.CopyFrom(16, 8, stride, y.data(), uv.data(), nullptr);

    EXPECT_EQ(planes.WantedShader(), ShaderHardware);
    EXPECT_EQ(planes.Stride(0), 16);
    EXPECT_EQ(planes.Stride(1), 16);
    EXPECT_EQ(planes.Stride(2), 123);
    EXPECT_EQ(planes.YData().count('\5'), 16 * 8);
    EXPECT_EQ(planes.UData().left(16 * 4).count('\6'), 16 * 4);
    // The third array is neither resized for the stride nor written.
    EXPECT_EQ(planes.VData(), vBefore);
}

TEST(VideoRendererPlanesTest, ArraysOnlyGrow)
{
    VideoRendererPlanes planes(16, 8);
    int wide[3] = {64, 64, 64};
    std::vector<uint8_t> big(64 * 16, 5);
    planes.CopyFrom(32, 16, wide, big.data(), big.data(), big.data());
    EXPECT_EQ(planes.YData().size(), 64 * 16);
    EXPECT_EQ(planes.UData().size(), 64 * 8);
    EXPECT_EQ(planes.VData().size(), 64 * 8);

    int narrow[3] = {16, 8, 8};
    std::vector<uint8_t> small(16 * 8, 6);
    planes.CopyFrom(16, 8, narrow, small.data(), small.data(), small.data());
    EXPECT_EQ(planes.YData().size(), 64 * 16);
    EXPECT_EQ(planes.UData().size(), 64 * 8);
    EXPECT_EQ(planes.VData().size(), 64 * 8);
    EXPECT_EQ(planes.Stride(0), 16);
    EXPECT_EQ(planes.Width(), 16u);
}

TEST(VideoRendererPlanesTest, CanCopyRefusesWhatCannotBeCopied)
{
    int stride[3] = {16, 8, 8};
    uint8_t byte = 0;
    EXPECT_TRUE(VideoRendererPlanes::CanCopy(16, 8, stride, &byte, &byte, &byte));
    EXPECT_FALSE(VideoRendererPlanes::CanCopy(16, 8, nullptr, &byte, &byte, &byte));
    EXPECT_FALSE(VideoRendererPlanes::CanCopy(16, 8, stride, nullptr, &byte, &byte));
    EXPECT_FALSE(VideoRendererPlanes::CanCopy(16, 8, stride, &byte, nullptr, &byte));
    EXPECT_FALSE(VideoRendererPlanes::CanCopy(VideoRendererPlanes::kMaxSide + 1, 8, stride, &byte,
                                              &byte, &byte));
    int negative[3] = {16, 8, -8};
    EXPECT_FALSE(VideoRendererPlanes::CanCopy(16, 8, negative, &byte, &byte, &byte));
    // A two-plane picture's third stride isn't read.
    EXPECT_TRUE(VideoRendererPlanes::CanCopy(16, 8, negative, &byte, &byte, nullptr));
    int huge[3] = {VideoRendererPlanes::kMaxStride + 1, 8, 8};
    EXPECT_FALSE(VideoRendererPlanes::CanCopy(16, 8, huge, &byte, &byte, &byte));
}

TEST(VideoRendererPlanesTest, CoversCountsTheLastRowOnlyToTheBlockWidth)
{
    // 3 rows of 10 pixels, 16 apart: 16 * 2 + 10 bytes.
    EXPECT_TRUE(VideoRendererPlanes::Covers(42, 16, 1, 10, 3));
    EXPECT_FALSE(VideoRendererPlanes::Covers(41, 16, 1, 10, 3));
    // Two bytes a pixel: 8 pixels of 2 bytes a row apart.
    EXPECT_TRUE(VideoRendererPlanes::Covers(16 * 2 + 10, 8, 2, 5, 3));
    EXPECT_FALSE(VideoRendererPlanes::Covers(16 * 2 + 9, 8, 2, 5, 3));
    // Row length 0 means rows of the block width.
    EXPECT_TRUE(VideoRendererPlanes::Covers(30, 0, 1, 10, 3));
    EXPECT_FALSE(VideoRendererPlanes::Covers(29, 0, 1, 10, 3));
    EXPECT_TRUE(VideoRendererPlanes::Covers(0, 16, 1, 0, 3));
    EXPECT_FALSE(VideoRendererPlanes::Covers(1000, -1, 1, 10, 3));
}

} // namespace
} // namespace quorvan
