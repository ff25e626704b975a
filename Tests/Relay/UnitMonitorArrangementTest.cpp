// RandR monitors as displays without an X server: identity numbers from an
// EDID or a monitor's name, the main and mirrored monitors, the change
// calls between two monitor lists, and the arrangement a transaction asks
// for.

#include "Clients/Conference/IDisplayPlatform.h"
#include "Clients/Conference/Linux/DisplayIdentity.h"
#include "Clients/Conference/Linux/MonitorArrangement.h"
#include "Clients/Conference/Linux/XcbDisplayConfiguration.h"

#include <gtest/gtest.h>

#include <vector>

namespace velorane::test {
namespace {

using namespace quorvan::velorane::relay;

tMonitor Monitor(uint32_t id, int32_t x, int32_t y, uint32_t width, uint32_t height,
                 bool withOutput = false)
{
    tMonitor monitor;
    monitor.id = id;
    monitor.x = x;
    monitor.y = y;
    monitor.width = width;
    monitor.height = height;
    if (withOutput) {
        monitor.outputs = {60 + id};
    }
    return monitor;
}

TEST(DisplayIdentityTest, TheEdidGivesVendorBigEndianModelAndSerialLittleEndian)
{
    const uint8_t edid[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00,
                            // vendor 0x095F, model 0x00A0, serial 0x0000076E
                            0x09, 0x5F, 0xA0, 0x00, 0x6E, 0x07, 0x00, 0x00, 0x01, 0x1E};
    EXPECT_EQ(IdentityFromEdid(edid, sizeof(edid)), (DisplayIdentity{2399, 160, 1902}));
    // Too short, or not an EDID: nothing.
    EXPECT_EQ(IdentityFromEdid(edid, 15), DisplayIdentity{});
    uint8_t broken[sizeof(edid)];
    std::copy(std::begin(edid), std::end(edid), broken);
    broken[0] = 0x01;
    EXPECT_EQ(IdentityFromEdid(broken, sizeof(broken)), DisplayIdentity{});
    EXPECT_EQ(IdentityFromEdid(nullptr, 128), DisplayIdentity{});
}

TEST(DisplayIdentityTest, AnOutputLessMonitorIsKnownByItsName)
{
    EXPECT_EQ(IdentityFromMonitorName("VELORANE-2399-160-1902"),
              (DisplayIdentity{2399, 160, 1902}));
    EXPECT_EQ(IdentityFromMonitorName("VELORANE-1-2-4294967295"),
              (DisplayIdentity{1, 2, 4294967295u}));
    for (const char* name :
         {"VELORANE-2399-160", "VELORANE-2399-160-1902-1", "VELORANE-2399-160-",
          "velorane-2399-160-1902", "VELORANE-2399-160-4294967296", "VELORANE--160-1902",
          "VELORANE-2399-160-1902 ", "VELORANE-0x95F-160-1902", "screen", ""}) {
        EXPECT_EQ(IdentityFromMonitorName(name), DisplayIdentity{}) << name;
    }
    EXPECT_EQ(MonitorNameForIdentity({2399, 160, 1902}), "VELORANE-2399-160-1902");
}

TEST(MonitorArrangementTest, MainIsThePrimaryElseTheFirstWithOutputs)
{
    MonitorList monitors{Monitor(5, 1920, 0, 1280, 720), Monitor(3, 0, 0, 1920, 1080, true)};
    EXPECT_EQ(MainMonitor(monitors), 3u);
    monitors[0].primary = true;
    EXPECT_EQ(MainMonitor(monitors), 5u);
    EXPECT_EQ(MainMonitor({Monitor(5, 0, 0, 10, 10)}), 5u);
    EXPECT_EQ(MainMonitor({}), 0u);
}

TEST(MonitorArrangementTest, AMonitorWithTheRectangleOfAnotherMirrorsIt)
{
    // The one with outputs is the original, whatever the order.
    MonitorList monitors{Monitor(5, 0, 0, 1920, 1080), Monitor(3, 0, 0, 1920, 1080, true),
                         Monitor(4, 1920, 0, 1920, 1080, true)};
    EXPECT_EQ(MirrorOf(monitors, 5), 3u);
    EXPECT_EQ(MirrorOf(monitors, 3), 0u);
    EXPECT_EQ(MirrorOf(monitors, 4), 0u);
    EXPECT_EQ(MirrorOf(monitors, 99), 0u);
    // The main one is the original before any other.
    monitors[0].primary = true;
    EXPECT_EQ(MirrorOf(monitors, 3), 5u);
    EXPECT_EQ(MirrorOf(monitors, 5), 0u);
}

TEST(MonitorArrangementTest, ChangesBecomeABeginCallThenOneCallPerDisplay)
{
    const MonitorList before{Monitor(3, 0, 0, 1920, 1080, true), Monitor(8, 3200, 0, 800, 600)};
    MonitorList after{Monitor(3, 0, 0, 1920, 1080, true), Monitor(7, 1920, 0, 1280, 720)};
    EXPECT_EQ(CompareMonitors(before, after),
              (std::vector<DisplayChange>{{7, 0x1}, {8, 0x1}, {7, 0x10}, {8, 0x20}}));
    EXPECT_TRUE(CompareMonitors(after, after).empty());

    // Moved, resized, made main.
    MonitorList changed = after;
    changed[1].y = 100;
    changed[1].width = 1024;
    changed[1].primary = true;
    // The display that stops being main isn't called.
    EXPECT_EQ(CompareMonitors(after, changed),
              (std::vector<DisplayChange>{{7, 0x1}, {7, 0x2 | 0x4 | 0x8}}));
}

TEST(MonitorArrangementTest, MirroringAndItsEndAreTold)
{
    const MonitorList apart{Monitor(3, 0, 0, 1920, 1080, true), Monitor(7, 1920, 0, 1920, 1080)};
    const MonitorList over{Monitor(3, 0, 0, 1920, 1080, true), Monitor(7, 0, 0, 1920, 1080)};
    EXPECT_EQ(CompareMonitors(apart, over),
              (std::vector<DisplayChange>{{7, 0x1}, {7, 0x2 | 0x400}}));
    EXPECT_EQ(CompareMonitors(over, apart),
              (std::vector<DisplayChange>{{7, 0x1}, {7, 0x2 | 0x800}}));
    EXPECT_EQ(CompareMonitors({over[0]}, over),
              (std::vector<DisplayChange>{{7, 0x1}, {7, 0x10 | 0x400}}));
}

TEST(MonitorArrangementTest, APlanTakesTheLastOriginStagedAndLeavesUnknownMonitors)
{
    const MonitorList now{Monitor(3, 0, 0, 1920, 1080, true), Monitor(7, 300, 200, 1280, 720)};
    DisplayConfig config;
    config.steps = {{DisplayConfig::Step::Origin, 3, 0, 0, 0},
                    {DisplayConfig::Step::Origin, 7, 0, 0, 0},
                    {DisplayConfig::Step::Origin, 7, 1920, 0, 0},
                    {DisplayConfig::Step::Origin, 99, 5, 5, 0}};
    const ArrangementPlan plan = PlanArrangement(now, config);
    EXPECT_EQ(plan.moved, std::vector<uint32_t>{7});
    EXPECT_EQ(plan.width, 3200u);
    EXPECT_EQ(plan.height, 1080u);
    EXPECT_TRUE(plan.whyNot.empty());
    EXPECT_EQ(FindMonitor(plan.after, 7)->x, 1920);
}

TEST(MonitorArrangementTest, AnUnMirrorGoesRightOfTheOthersAndANegativePlaceIsRefused)
{
    const MonitorList now{Monitor(3, 0, 0, 1920, 1080, true), Monitor(7, 0, 0, 1920, 1080),
                          Monitor(4, 1920, 100, 800, 600, true)};
    DisplayConfig config;
    config.steps = {{DisplayConfig::Step::MirrorOf, 7, 0, 0, 0},
                    {DisplayConfig::Step::MirrorOf, 4, 0, 0, 0}};
    ArrangementPlan plan = PlanArrangement(now, config);
    EXPECT_EQ(plan.moved, std::vector<uint32_t>{7});
    EXPECT_EQ(FindMonitor(plan.after, 7)->x, 2720);
    EXPECT_EQ(FindMonitor(plan.after, 7)->y, 0);
    EXPECT_EQ(plan.width, 4640u);

    config.steps = {{DisplayConfig::Step::Origin, 7, -1920, 0, 0}};
    plan = PlanArrangement(now, config);
    EXPECT_FALSE(plan.whyNot.empty());
}

TEST(MonitorArrangementTest, AMonitorStagedOntoAnotherOfItsSizeGoesRightOfTheOthers)
{
    // The output's monitor, a monitor that came where the virtual monitor
    // belongs, and the virtual monitor beside it.
    const MonitorList now{Monitor(3, 0, 0, 1920, 1080, true), Monitor(5, 1920, 0, 1280, 720),
                          Monitor(7, 3200, 0, 1280, 720)};
    DisplayConfig config;
    config.steps = {{DisplayConfig::Step::Origin, 3, 0, 0, 0},
                    {DisplayConfig::Step::Origin, 7, 1920, 0, 0}};
    ArrangementPlan plan = PlanArrangement(now, config);
    // Right of the others is where it stands: nothing moves.
    EXPECT_TRUE(plan.moved.empty());
    EXPECT_EQ(plan.sentRight, std::vector<uint32_t>{7});
    EXPECT_EQ(FindMonitor(plan.after, 7)->x, 3200);
    EXPECT_EQ(FindMonitor(plan.after, 7)->y, 0);

    // From elsewhere it goes there too.
    const MonitorList away{now[0], now[1], Monitor(7, 0, 360, 1280, 720)};
    plan = PlanArrangement(away, config);
    EXPECT_EQ(plan.moved, std::vector<uint32_t>{7});
    EXPECT_EQ(FindMonitor(plan.after, 7)->x, 3200);
    EXPECT_EQ(plan.width, 4480u);

    // Over a monitor of another size it goes as staged.
    const MonitorList other{now[0], Monitor(5, 1920, 0, 1024, 768), now[2]};
    plan = PlanArrangement(other, config);
    EXPECT_EQ(plan.moved, std::vector<uint32_t>{7});
    EXPECT_TRUE(plan.sentRight.empty());
    EXPECT_EQ(FindMonitor(plan.after, 7)->x, 1920);
}

} // namespace
} // namespace velorane::test
