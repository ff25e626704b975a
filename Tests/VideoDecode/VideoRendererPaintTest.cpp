// Pictures in both plane layouts reach the screen with the right colours,
// whatever their strides and sizes.

#include "Tests/VideoDecode/VideoRendererFixture.h"

#include <QImage>

namespace velorane::test {
namespace {

using VideoRendererPaintTest = VideoRendererTest;

TEST_F(VideoRendererPaintTest, PaintBeforeFirstPictureDrawsNothingAndLinksNothing)
{
    auto renderer = ShowRenderer(64, 48);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    EXPECT_EQ(m_messages->CountStartingWith("Graphics library version: "), 1);
    EXPECT_EQ(m_messages->CountStartingWith("VideoRenderer:"), 0);
    // Only the clear colour, grey 0.3, which Qt clears the framebuffer with
    // before each paint: nothing is drawn over it.
    const QImage image = renderer->grabFramebuffer();
    ASSERT_FALSE(image.isNull());
    for (const QPoint& point : QuadrantCentres(64, 48)) {
        EXPECT_TRUE(ColorNear(image.pixelColor(point), kClearColor, 1));
    }
}

TEST_F(VideoRendererPaintTest, ThreePlanePictureShowsItsColours)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeQuadrantPicture(64, 48, false);
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    ExpectQuadrants(renderer->grabFramebuffer());
    EXPECT_EQ(m_messages->Count("VideoRenderer: installing shader for software decoding"), 1);
    EXPECT_EQ(m_messages->Count("VideoRenderer: installing shader for hardware decoding"), 0);
}

TEST_F(VideoRendererPaintTest, NearWhitePictureIsNearWhite)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeUniformPicture(64, 48, false, Yuv{235, 128, 128});
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const QImage image = renderer->grabFramebuffer();
    for (const QPoint& point :
         {QPoint(0, 0), QPoint(63, 0), QPoint(0, 47), QPoint(63, 47), QPoint(32, 24)}) {
        EXPECT_TRUE(ColorNear(image.pixelColor(point), QColor(236, 236, 236), 2));
    }
}

TEST_F(VideoRendererPaintTest, TwoPlanePictureUsesInterleavedChroma)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeQuadrantPicture(64, 48, true);
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    // Read as three planes, the interleaved chroma would give other colours.
    ExpectQuadrants(renderer->grabFramebuffer());
    EXPECT_EQ(m_messages->Count("VideoRenderer: installing shader for hardware decoding"), 1);
    EXPECT_EQ(m_messages->Count("VideoRenderer: installing shader for software decoding"), 0);
}

TEST_F(VideoRendererPaintTest, ThreePlaneStridesWiderThanThePictureAreHonoured)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeQuadrantPicture(64, 48, false, 96, 40);
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    ExpectQuadrants(renderer->grabFramebuffer());
}

TEST_F(VideoRendererPaintTest, TwoPlaneStridesWiderThanThePictureAreHonoured)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeQuadrantPicture(64, 48, true, 80, 72);
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    ExpectQuadrants(renderer->grabFramebuffer());
}

TEST_F(VideoRendererPaintTest, OddStridesArePackedWithoutRowAlignment)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeQuadrantPicture(64, 48, false, 67, 33);
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    ExpectQuadrants(renderer->grabFramebuffer());
}

TEST_F(VideoRendererPaintTest, PictureSizeMayChangeBetweenPictures)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture first = MakeUniformPicture(64, 48, false, kBlue);
    renderer->Render(first);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    // Smaller, then larger with wider strides than ever before: each fills
    // the widget.
    TestPicture smaller = MakeQuadrantPicture(32, 24, false);
    renderer->Render(smaller);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());

    TestPicture larger = MakeQuadrantPicture(128, 96, false, 160, 80);
    renderer->Render(larger);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());

    TestPicture largerTwoPlane = MakeQuadrantPicture(256, 192, true, 320, 288);
    renderer->Render(largerTwoPlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());

    // Narrower strides again: the copy keeps its larger arrays and the new
    // strides are used.
    TestPicture narrower = MakeQuadrantPicture(64, 48, false);
    renderer->Render(narrower);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());
}

TEST_F(VideoRendererPaintTest, PictureWithoutPlanesIsIgnored)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture = MakeQuadrantPicture(64, 48, false);
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    int stride[3] = {64, 32, 32};
    renderer->renderFrame(64, 48, stride, nullptr, picture.u.data(), picture.v.data());
    renderer->renderFrame(64, 48, stride, picture.y.data(), nullptr, picture.v.data());
    renderer->renderFrame(64, 48, nullptr, picture.y.data(), picture.u.data(), picture.v.data());
    int negative[3] = {-64, 32, 32};
    renderer->renderFrame(64, 48, negative, picture.y.data(), picture.u.data(), picture.v.data());
    ASSERT_TRUE(RepaintAndWait(*renderer));

    ExpectQuadrants(renderer->grabFramebuffer());
}

TEST_F(VideoRendererPaintTest, FirstRowOfThePlaneIsAtTheTop)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture picture =
        MakePicture(64, 48, false, [](uint32_t, uint32_t row) { return row < 24 ? kRed : kBlue; });
    renderer->Render(picture);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const QImage image = renderer->grabFramebuffer();
    EXPECT_TRUE(ColorNear(image.pixelColor(32, 4), ExpectedColor(kRed)));
    EXPECT_TRUE(ColorNear(image.pixelColor(32, 43), ExpectedColor(kBlue)));
}

} // namespace
} // namespace velorane::test
