// What a person sees: the real relay, started by client-sim and fed by
// kyr-sim over TLS (and once over USB), shows kyr-sim's test picture in its window. Each test
// runs its own X server, so no other test's window can cover the relay's,
// and looks at the screen with screen-grab, as the demo does.

#include "Tests/EndToEnd/EndToEndHarness.h"
#include "Tests/EndToEnd/ScreenCheck.h"
#include "Tests/Support/PrivateXServer.h"

#include <QColor>
#include <QImage>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

using namespace velorane::test;
using namespace std::chrono_literals;

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;

// The whole screen as screen-grab saves it; a null image when it failed.
QImage Grab(EndToEndScene& scene, const std::string& display, int index)
{
    return GrabScreen(display, scene.Dir().File("grab" + std::to_string(index) + ".png"));
}

// How many of kyr-sim's eight bars the window at the top left shows.
int BarsShown(const QImage& screen)
{
    return velorane::test::BarsShown(screen, QRect(0, 0, kWidth, kHeight));
}

// How many pixels of the window differ between two grabs.
int PixelsChanged(const QImage& first, const QImage& second)
{
    int changed = 0;
    for (int y = 0; y < kHeight; y += 2) {
        for (int x = 0; x < kWidth; x += 2) {
            changed += first.pixel(x, y) != second.pixel(x, y);
        }
    }
    return changed;
}

// Grabs until the window shows all eight bars or the time is up; answers the
// last grab.
QImage GrabUntilBars(EndToEndScene& scene, const std::string& display, int* index,
                     std::chrono::seconds timeout = 30s)
{
    QImage screen;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        screen = Grab(scene, display, (*index)++);
        if (BarsShown(screen) == 8) {
            break;
        }
        std::this_thread::sleep_for(200ms);
    } while (std::chrono::steady_clock::now() < deadline);
    return screen;
}

// Grabs pairs half a second apart until both show the bars and differ (the
// box and the number move) or the time is up; answers the last pair.
bool GrabUntilMoving(EndToEndScene& scene, const std::string& display, int* index,
                     std::chrono::seconds timeout, QImage* first, QImage* second)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        *first = Grab(scene, display, (*index)++);
        std::this_thread::sleep_for(500ms);
        *second = Grab(scene, display, (*index)++);
        if (BarsShown(*first) == 8 && BarsShown(*second) == 8 &&
            PixelsChanged(*first, *second) > 100) {
            return true;
        }
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

bool WaitForLog(EndToEndScene& scene, const std::string& text, std::chrono::seconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (scene.LogText().find(text) != std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(100ms);
    }
    return false;
}

std::vector<std::string> Relay(int basePort)
{
    return {"-t",
            "-m",
            "--kyrIp",
            "127.0.0.1",
            "--relayPort",
            std::to_string(basePort),
            "--relayPassword",
            "secret",
            "--width",
            std::to_string(kWidth),
            "--height",
            std::to_string(kHeight)};
}

class RelayPictureEndToEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        PrivateXServer::Options options;
        options.width = 1280;
        options.height = 720;
        options.folder = m_scene.Dir().Path();
        ASSERT_TRUE(m_display.Start(options)) << "no private X server";
        m_scene.ShowOnDisplay(m_display.Name());
        m_base = EndToEndScene::FreeBasePort();
    }

    // The display outlives the scene, so that the relay never sees its X
    // server vanish before it has been told to quit.
    PrivateXServer m_display;
    EndToEndScene m_scene;
    int m_base = -1;

    // The window shows the bars and the picture moves (the box and the
    // number), within the time given.
    void ExpectMovingPicture(std::chrono::seconds timeout)
    {
        QImage first;
        QImage second;
        GrabUntilMoving(m_scene, m_display.Name(), &m_grabs, timeout, &first, &second);
        EXPECT_EQ(BarsShown(first), 8) << m_scene.LogText();
        EXPECT_EQ(BarsShown(second), 8);
        EXPECT_GT(PixelsChanged(first, second), 100) << m_scene.LogText();
    }

    int m_grabs = 0;
};

TEST_F(RelayPictureEndToEndTest, PulledPictureShowsTheTestPattern)
{
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret"}));
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:60000", "kill"}, Relay(m_base)));
    const QImage screen = GrabUntilBars(m_scene, m_display.Name(), &m_grabs);
    ASSERT_FALSE(screen.isNull());
    EXPECT_EQ(BarsShown(screen), 8) << m_scene.LogText();
    // The window is 640x360 at the top left; the rest of the screen is the
    // server's black background.
    EXPECT_EQ(screen.pixelColor(kWidth + 20, kHeight + 20), QColor(Qt::black));
    // The picture is live: the box and the number move.
    ExpectMovingPicture(10s);
}

// The same over USB, the relay's default link: kyr-sim is a Kyr on a USB
// device that umockdev emulates, and the relay runs without -t.
TEST_F(RelayPictureEndToEndTest, PulledPictureOverUsbShowsTheTestPattern)
{
    if (!EndToEndScene::UsbEmulationAvailable()) {
        GTEST_SKIP() << "umockdev's preload library isn't installed";
    }
    ASSERT_TRUE(m_scene.StartUsbKyr());
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:60000", "kill"},
                                    {"-m", "--kyrIp", "127.0.0.1", "--relayPort",
                                     std::to_string(m_base), "--width", std::to_string(kWidth),
                                     "--height", std::to_string(kHeight)}));
    const QImage screen = GrabUntilBars(m_scene, m_display.Name(), &m_grabs);
    ASSERT_FALSE(screen.isNull());
    EXPECT_EQ(BarsShown(screen), 8) << m_scene.LogText();
    EXPECT_EQ(screen.pixelColor(kWidth + 20, kHeight + 20), QColor(Qt::black));
    ExpectMovingPicture(10s);
    // It came over USB.
    const std::string log = m_scene.LogText();
    EXPECT_NE(log.find("\tConnecting to vid=[0x7A31] pid=[0x0301]\t"), std::string::npos) << log;
    EXPECT_EQ(log.find("\tSend failed."), std::string::npos) << log;
    EXPECT_GE(CountRecords(m_scene.KyrRecords(), "request 9945febbf9d0000000000000"), 5u);
}

TEST_F(RelayPictureEndToEndTest, SizeChangeMidStreamKeepsThePicture)
{
    // From frame 30 on, kyr-sim sends 320x240; the window stays 640x360.
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret", "--resize-at", "30:320x240"}));
    ASSERT_TRUE(m_scene.StartClient({"start-scrape", "wait:60000", "kill"}, Relay(m_base)));
    ASSERT_EQ(BarsShown(GrabUntilBars(m_scene, m_display.Name(), &m_grabs)), 8);
    // The second decoder is made for the new size.
    const auto decoders = [this] {
        const std::string log = m_scene.LogText();
        size_t count = 0;
        for (size_t at = log.find("\tVideoDecoder: selected codec: h264\t");
             at != std::string::npos;
             at = log.find("\tVideoDecoder: selected codec: h264\t", at + 1)) {
            ++count;
        }
        return count;
    };
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (decoders() < 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(100ms);
    }
    ASSERT_EQ(decoders(), 2u) << m_scene.LogText();
    // The new decoder's pictures fill the same window and keep moving.
    ExpectMovingPicture(10s);
}

TEST_F(RelayPictureEndToEndTest, ClientPixelsReplaceThePull)
{
    ASSERT_TRUE(m_scene.StartKyr(m_base, {"--password", "secret"}));
    // About 13 s of the client's own 320x240 stream after 1.5 s of pulling.
    ASSERT_TRUE(m_scene.StartClient(
        {"start-scrape", "wait:1500", "pixels-h264:200:320x240", "kill"}, Relay(m_base)));
    ASSERT_TRUE(WaitForLog(m_scene, "\tNew relay frame source: Client\t", 30s));
    // Once the pull has stopped, the pictures come from the client alone.
    // The Kyr's answers still on the way may switch the size back and forth
    // for a moment, and each new decoder waits for the client's next IDR
    // picture (one every 30, two seconds): look until the picture moves.
    ExpectMovingPicture(12s);
    // Nothing was asked of the Kyr after the stop command.
    const auto kyr = m_scene.KyrVideoRecords();
    const auto stop = std::find(kyr.begin(), kyr.end(), "request 9945febb34ef000000000000");
    ASSERT_NE(stop, kyr.end());
    EXPECT_EQ(std::count(stop, kyr.end(), "request 9945febbf9d0000000000000"), 0);
}

} // namespace
