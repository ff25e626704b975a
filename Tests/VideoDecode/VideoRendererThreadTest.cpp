// Pictures come from other threads while the GUI thread paints: the newest
// is painted, a picture replaced before a paint is never painted, and each
// painted picture is whole.

#include "Tests/VideoDecode/VideoRendererFixture.h"

#include <atomic>
#include <thread>

namespace velorane::test {
namespace {

using VideoRendererThreadTest = VideoRendererTest;

TEST_F(VideoRendererThreadTest, NewerPictureReplacesAnUnpaintedOne)
{
    auto renderer = ShowRenderer(64, 48);
    renderer->SetSamplePoints({QPoint(32, 24)});
    const size_t before = renderer->PaintedSamples().size();

    TestPicture red = MakeUniformPicture(64, 48, false, kRed);
    TestPicture blue = MakeUniformPicture(64, 48, false, kBlue);
    renderer->Render(red);
    renderer->Render(blue);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const auto& samples = renderer->PaintedSamples();
    ASSERT_GT(samples.size(), before);
    for (size_t paint = before; paint < samples.size(); ++paint) {
        EXPECT_TRUE(ColorNear(samples[paint][0], ExpectedColor(kBlue))) << "paint " << paint;
    }
}

TEST_F(VideoRendererThreadTest, RepaintRequestsFromAnotherThreadAreMerged)
{
    auto renderer = ShowRenderer(64, 48);
    PumpEventsFor(std::chrono::milliseconds(50));
    const int before = renderer->Paints();

    std::thread requester([&] {
        for (int i = 0; i < 1000; ++i) {
            renderer->requestRepaint();
        }
    });
    requester.join();
    ASSERT_TRUE(WaitUntil([&] { return renderer->Paints() > before; }));
    PumpEventsFor(std::chrono::milliseconds(100));

    EXPECT_LE(renderer->Paints() - before, 3);
}

// Uniform pictures of changing size, stride and layout, so that every
// sample of one paint must show the same colour.
TestPicture WriterPicture(int index, Yuv color)
{
    const uint32_t width = 32u * static_cast<uint32_t>(1 + index % 4);
    const uint32_t height = 24u * static_cast<uint32_t>(1 + index % 3);
    const bool twoPlane = index % 5 == 0;
    const int padding = 8 * (index % 7);
    return MakeUniformPicture(width, height, twoPlane, color, static_cast<int>(width) + padding,
                              static_cast<int>(twoPlane ? width : width / 2) + padding);
}

TEST_F(VideoRendererThreadTest, PicturesFromAnotherThreadArePaintedWholeAndTheLastStays)
{
    auto renderer = ShowRenderer(64, 48);
    renderer->SetSamplePoints(
        {QPoint(1, 1), QPoint(62, 1), QPoint(32, 24), QPoint(1, 46), QPoint(62, 46)});
    const Yuv colors[] = {kRed, kGreen, kBlue};
    constexpr int kPictures = 400;

    // Made beforehand, so that the writer only renders.
    std::vector<TestPicture> pictures;
    for (int i = 0; i < kPictures; ++i) {
        pictures.push_back(WriterPicture(i, i + 1 == kPictures ? kWhite : colors[i % 3]));
    }
    const size_t before = renderer->PaintedSamples().size();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (TestPicture& picture : pictures) {
            renderer->Render(picture);
            renderer->requestRepaint();
        }
        done.store(true);
    });
    const bool finished = WaitUntil([&] { return done.load(); }, std::chrono::seconds(60));
    writer.join();
    ASSERT_TRUE(finished);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const auto& samples = renderer->PaintedSamples();
    ASSERT_GT(samples.size(), before);
    // Until the first picture arrives a paint shows the clear colour, and
    // after it never again.
    bool pictureSeen = false;
    for (size_t paint = before; paint < samples.size(); ++paint) {
        const std::vector<QColor>& points = samples[paint];
        bool known = false;
        for (Yuv color : {kRed, kGreen, kBlue, kWhite}) {
            known = known || ColorNear(points[2], ExpectedColor(color));
        }
        if (!known && !pictureSeen) {
            known = ColorNear(points[2], kClearColor, 1);
        } else {
            pictureSeen = true;
        }
        EXPECT_TRUE(known) << "paint " << paint;
        for (const QColor& point : points) {
            EXPECT_TRUE(ColorNear(point, points[2])) << "paint " << paint;
        }
    }
    EXPECT_TRUE(ColorNear(samples.back()[2], ExpectedColor(kWhite)));
    const QImage image = renderer->grabFramebuffer();
    EXPECT_TRUE(ColorNear(image.pixelColor(32, 24), ExpectedColor(kWhite)));
}

TEST_F(VideoRendererThreadTest, TwoWritersTakeTurns)
{
    auto renderer = ShowRenderer(64, 48);
    renderer->SetSamplePoints({QPoint(1, 1), QPoint(62, 46)});
    std::vector<TestPicture> first;
    std::vector<TestPicture> second;
    for (int i = 0; i < 200; ++i) {
        first.push_back(WriterPicture(i, kRed));
        second.push_back(WriterPicture(i + 1, kBlue));
    }
    const size_t before = renderer->PaintedSamples().size();
    std::atomic<int> finished{0};
    auto write = [&](std::vector<TestPicture>& pictures) {
        for (TestPicture& picture : pictures) {
            renderer->Render(picture);
            renderer->requestRepaint();
        }
        finished.fetch_add(1);
    };
    std::thread a(write, std::ref(first));
    std::thread b(write, std::ref(second));
    const bool ended = WaitUntil([&] { return finished.load() == 2; }, std::chrono::seconds(60));
    a.join();
    b.join();
    ASSERT_TRUE(ended);
    ASSERT_TRUE(RepaintAndWait(*renderer));

    const auto& samples = renderer->PaintedSamples();
    ASSERT_GT(samples.size(), before);
    for (size_t paint = before; paint < samples.size(); ++paint) {
        EXPECT_TRUE(ColorNear(samples[paint][0], samples[paint][1])) << "paint " << paint;
    }
    const QColor last = samples.back()[0];
    EXPECT_TRUE(ColorNear(last, ExpectedColor(kRed)) || ColorNear(last, ExpectedColor(kBlue)));
}

} // namespace
} // namespace velorane::test
