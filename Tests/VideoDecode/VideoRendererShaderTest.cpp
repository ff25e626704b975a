// The renderer links the program the newest picture needs, once per change
// of plane layout, reports a shader that doesn't compile and tries it again
// at each paint.

#include "Tests/VideoDecode/VideoRendererFixture.h"

namespace velorane::test {
namespace {

using VideoRendererShaderTest = VideoRendererTest;

const QString kInstallHardware =
    QStringLiteral("VideoRenderer: installing shader for hardware decoding");
const QString kInstallSoftware =
    QStringLiteral("VideoRenderer: installing shader for software decoding");
const QString kFailedHardware =
    QStringLiteral("VideoRenderer: failed to install shader for hardware decoding");
const QString kFailedSoftware =
    QStringLiteral("VideoRenderer: failed to install shader for software decoding");

TEST_F(VideoRendererShaderTest, LayoutChangesReplaceTheProgramOnceEach)
{
    auto renderer = ShowRenderer(64, 48);

    TestPicture twoPlane = MakeQuadrantPicture(64, 48, true);
    renderer->Render(twoPlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());
    EXPECT_EQ(m_messages->Count(kInstallHardware), 1);
    EXPECT_EQ(m_messages->Count(kInstallSoftware), 0);

    // The decoder fell back to software in mid-stream.
    TestPicture threePlane = MakeQuadrantPicture(64, 48, false);
    renderer->Render(threePlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    renderer->Render(threePlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());
    EXPECT_EQ(m_messages->Count(kInstallHardware), 1);
    EXPECT_EQ(m_messages->Count(kInstallSoftware), 1);

    // A new decoder found hardware again.
    renderer->Render(twoPlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());
    EXPECT_EQ(m_messages->Count(kInstallHardware), 2);
    EXPECT_EQ(m_messages->Count(kInstallSoftware), 1);
    EXPECT_EQ(m_messages->CountStartingWith("VideoRenderer: failed"), 0);
}

TEST_F(VideoRendererShaderTest, FailedSoftwareCompileIsReportedAndTriedAgainAtEachPaint)
{
    auto renderer = ShowRenderer(64, 48);
    renderer->BreakShader(quorvan::ShaderSoftware);

    TestPicture threePlane = MakeQuadrantPicture(64, 48, false);
    renderer->Render(threePlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const int tries = m_messages->Count(kInstallSoftware);
    EXPECT_GE(tries, 2);
    EXPECT_EQ(m_messages->Count(kFailedSoftware), tries);
    // Nothing is linked, so nothing covers the clear colour.
    const QImage image = renderer->grabFramebuffer();
    EXPECT_TRUE(ColorNear(image.pixelColor(16, 12), kClearColor, 1));

    // The other layout still works.
    TestPicture twoPlane = MakeQuadrantPicture(64, 48, true);
    renderer->Render(twoPlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());
    EXPECT_EQ(m_messages->Count(kInstallHardware), 1);
    EXPECT_EQ(m_messages->Count(kFailedHardware), 0);
}

TEST_F(VideoRendererShaderTest, FailedHardwareCompileKeepsTheLinkedProgram)
{
    auto renderer = ShowRenderer(64, 48);
    TestPicture threePlane = MakeQuadrantPicture(64, 48, false);
    renderer->Render(threePlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ExpectQuadrants(renderer->grabFramebuffer());

    // The two-plane picture is uploaded in the three-plane layout of the
    // program still linked, with its third plane never given: the upload
    // stays within the planes copied.
    renderer->BreakShader(quorvan::ShaderHardware);
    TestPicture twoPlane = MakeQuadrantPicture(640, 480, true, 704, 704);
    renderer->Render(twoPlane);
    ASSERT_TRUE(RepaintAndWait(*renderer));
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const int tries = m_messages->Count(kInstallHardware);
    EXPECT_GE(tries, 2);
    EXPECT_EQ(m_messages->Count(kFailedHardware), tries);
    EXPECT_EQ(m_messages->Count(kInstallSoftware), 1);
    // The luma still comes through the three-plane program.
    const QImage image = renderer->grabFramebuffer();
    EXPECT_FALSE(ColorNear(image.pixelColor(16, 12), kClearColor, 1));
}

TEST_F(VideoRendererShaderTest, ResizeToHeightZeroMakesAViewportOfHeightOne)
{
    auto renderer = ShowRenderer(64, 48);
    const std::array<int, 4> viewport = renderer->ResizeAndReadViewport(64, 0);
    EXPECT_EQ(viewport, (std::array<int, 4>{0, 0, 64, 1}));
    const std::array<int, 4> normal = renderer->ResizeAndReadViewport(40, 30);
    EXPECT_EQ(normal, (std::array<int, 4>{0, 0, 40, 30}));
}

} // namespace
} // namespace velorane::test
