// The placement arithmetic of the virtual monitor, without an X server.

#include "Drivers/VirtualDisplay/MonitorPlacement.h"

#include <gtest/gtest.h>

using namespace quorvan::velorane::virtualdisplay;

namespace {

tScreenGeometry Screen(int width, int height, int maxWidth, int maxHeight)
{
    tScreenGeometry screen;
    screen.width = width;
    screen.height = height;
    screen.mmWidth = width / 4;
    screen.mmHeight = height / 4;
    screen.minWidth = 1;
    screen.minHeight = 1;
    screen.maxWidth = maxWidth;
    screen.maxHeight = maxHeight;
    return screen;
}

tMonitorRect Monitor(const std::string& name, int x, int y, int width, int height)
{
    tMonitorRect monitor;
    monitor.name = name;
    monitor.x = x;
    monitor.y = y;
    monitor.width = width;
    monitor.height = height;
    return monitor;
}

} // namespace

TEST(MonitorPlacementTest, GoesRightOfTheRightmostEdgeAtTheTop)
{
    const std::vector<tMonitorRect> monitors = {Monitor("A", 1920, 200, 1440, 900),
                                                Monitor("B", 0, 0, 1920, 1080)};
    const tPlacement placement =
        PlaceRightOfOthers(monitors, "V", Screen(4000, 1200, 8192, 8192), 400, 300);
    EXPECT_TRUE(placement.fits);
    EXPECT_FALSE(placement.growsScreen);
    EXPECT_EQ(placement.monitor.name, "V");
    EXPECT_EQ(placement.monitor.x, 3360);
    EXPECT_EQ(placement.monitor.y, 0);
    EXPECT_EQ(placement.monitor.width, 400);
    EXPECT_EQ(placement.monitor.height, 300);
    // A quarter millimetre per pixel, as the screen has.
    EXPECT_EQ(placement.monitor.mmWidth, 100);
    EXPECT_EQ(placement.monitor.mmHeight, 75);
}

TEST(MonitorPlacementTest, IgnoresItsOwnEarlierPlaceAndStartsAtZeroAlone)
{
    const std::vector<tMonitorRect> monitors = {Monitor("V", 1920, 0, 1280, 720)};
    const tPlacement placement =
        PlaceRightOfOthers(monitors, "V", Screen(1920, 1080, 1920, 1080), 1280, 720);
    EXPECT_TRUE(placement.fits);
    EXPECT_EQ(placement.monitor.x, 0);
}

TEST(MonitorPlacementTest, GrowsTheScreenOnlyAsFarAsNeeded)
{
    const std::vector<tMonitorRect> monitors = {Monitor("A", 0, 0, 1920, 1080)};
    const tPlacement placement =
        PlaceRightOfOthers(monitors, "V", Screen(1920, 1080, 4096, 4096), 1280, 1200);
    EXPECT_TRUE(placement.fits);
    EXPECT_TRUE(placement.growsScreen);
    EXPECT_EQ(placement.screen.width, 3200);
    EXPECT_EQ(placement.screen.height, 1200);
    EXPECT_EQ(placement.screen.mmWidth, 800);
    EXPECT_EQ(placement.screen.mmHeight, 300);
}

TEST(MonitorPlacementTest, DoesNotFitPastTheServersLargestScreen)
{
    const std::vector<tMonitorRect> monitors = {Monitor("A", 0, 0, 1920, 1080)};
    EXPECT_FALSE(PlaceRightOfOthers(monitors, "V", Screen(1920, 1080, 3199, 1080), 1280, 720).fits);
    EXPECT_TRUE(PlaceRightOfOthers(monitors, "V", Screen(1920, 1080, 3200, 1080), 1280, 720).fits);
    EXPECT_FALSE(PlaceRightOfOthers(monitors, "V", Screen(1920, 1080, 3200, 719), 1280, 720).fits);
}

TEST(MonitorPlacementTest, NothingReachesPastXsCoordinates)
{
    const std::vector<tMonitorRect> monitors = {Monitor("A", 32000, 0, 2000, 1080)};
    const tPlacement placement =
        PlaceRightOfOthers(monitors, "V", Screen(34000, 1080, 65535, 65535), 100, 100);
    EXPECT_FALSE(placement.fits);
    EXPECT_FALSE(PlaceAt("V", Screen(100, 100, 65535, 65535), 32700, 0, 100, 100).fits);
    EXPECT_FALSE(PlaceAt("V", Screen(100, 100, 65535, 65535), -1, 0, 10, 10).fits);
}

TEST(MonitorPlacementTest, ScreenSizeCanComeBackOnlyWhenEveryMonitorFits)
{
    const std::vector<tMonitorRect> monitors = {Monitor("A", 0, 0, 1920, 1080),
                                                Monitor("B", 1920, 0, 640, 480)};
    EXPECT_TRUE(FitsInScreen(monitors, 2560, 1080));
    EXPECT_FALSE(FitsInScreen(monitors, 2559, 1080));
    EXPECT_FALSE(FitsInScreen(monitors, 2560, 1079));
}

TEST(MonitorPlacementTest, MillimetresFollowTheScreenOrNinetySixDotsPerInch)
{
    EXPECT_EQ(PixelsToMillimetres(1280, 1920, 508), 339);
    EXPECT_EQ(PixelsToMillimetres(96, 0, 0), 25);
    EXPECT_EQ(PixelsToMillimetres(960, 1920, 0), 254);
}
