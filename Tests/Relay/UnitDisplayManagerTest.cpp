// The DisplayManager on a scripted display platform: its identity test for
// the virtual monitor, the stocked list, the reconfiguration calls and what
// they schedule 200 ms later, the arrangement it stages, and the callback
// that tells the window where the monitor is.

#include "Clients/Conference/DisplayManager.h"
#include "Tests/Relay/FakeDisplayPlatform.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::EGroupValueInformation;
using quorvan::velorane::relay::DisplayConfig;
using quorvan::velorane::relay::DisplayConfigRef;
using quorvan::velorane::relay::DisplayManager;
using namespace std::chrono_literals;

struct Placement
{
    int x, y, w, h;
    bool operator==(const Placement& o) const
    {
        return x == o.x && y == o.y && w == o.w && h == o.h;
    }
};

class DisplayManagerTest : public ::testing::Test
{
protected:
    DisplayManagerTest() { UnitQtApplication(); }

    std::unique_ptr<DisplayManager> Make()
    {
        return std::make_unique<DisplayManager>(std::make_unique<FakeDisplayPlatform>(m_script));
    }

    // The manager's log lines, in order.
    std::vector<std::string> Messages() const
    {
        std::vector<std::string> messages;
        for (const auto& line : m_log.Store().Lines()) {
            if (line.file == "Clients/Conference/DisplayManager") {
                EXPECT_EQ(line.group, EGroupValueInformation) << line.message;
                messages.push_back(line.message);
            }
        }
        return messages;
    }

    static void Done(void* context, int x, int y, int w, int h)
    {
        static_cast<DisplayManagerTest*>(context)->m_placements.push_back({x, y, w, h});
    }

    // The staged steps of a transaction as text.
    static std::vector<std::string> Steps(const std::vector<DisplayConfig::Step>& steps)
    {
        std::vector<std::string> texts;
        for (const auto& step : steps) {
            texts.push_back(step.kind == DisplayConfig::Step::Origin
                                ? "Origin(" + std::to_string(step.displayId) + "," +
                                      std::to_string(step.x) + "," + std::to_string(step.y) + ")"
                                : "MirrorOf(" + std::to_string(step.displayId) + "," +
                                      std::to_string(step.master) + ")");
        }
        return texts;
    }

    // The platform calls restoreMain makes inside a fresh transaction.
    std::vector<std::string> StagedByRestoreMain(DisplayManager& manager, unsigned monitorId)
    {
        DisplayConfigRef config;
        manager.Platform().BeginDisplayConfiguration(&config);
        m_script->calls.clear();
        manager.restoreMain(config.get(), monitorId);
        return m_script->calls;
    }

    // Lets well past the 200 ms delay go by.
    static void LetScheduledWorkRun() { PumpEventsFor(700ms); }

    std::shared_ptr<FakeDisplayScript> m_script = std::make_shared<FakeDisplayScript>();
    mutable ScopedLogCapture m_log;
    std::vector<Placement> m_placements;
};

TEST_F(DisplayManagerTest, TheVirtualMonitorIsVendor2399Model160AndASerialBeginningWith1902)
{
    m_script->displays = {VirtualMonitorDisplay(1, 0)};
    auto manager = Make();
    const auto serialMatches = [&](uint32_t serial) {
        m_script->Find(1)->serial = serial;
        return manager->IsDisplayRelayVirtualMonitor(1);
    };
    EXPECT_TRUE(serialMatches(1902));
    EXPECT_TRUE(serialMatches(190255));
    // Fewer than four digits, and 1902 found later than position 0.
    EXPECT_FALSE(serialMatches(190));
    EXPECT_FALSE(serialMatches(21902));

    m_script->Find(1)->serial = 1902;
    m_script->Find(1)->model = 161;
    EXPECT_FALSE(manager->IsDisplayRelayVirtualMonitor(1));

    // A wrong vendor ends the test before model and serial are asked for.
    m_script->Find(1)->model = 160;
    m_script->Find(1)->vendor = 2398;
    m_script->calls.clear();
    EXPECT_FALSE(manager->IsDisplayRelayVirtualMonitor(1));
    EXPECT_EQ(m_script->calls, std::vector<std::string>{"Vendor(1)"});
}

TEST_F(DisplayManagerTest, FindVMIsZeroWithoutTheMonitorAndTheLeftmostOfTwo)
{
    m_script->displays = {PlainDisplay(1, 0), PlainDisplay(2, 1920)};
    auto manager = Make();
    EXPECT_EQ(manager->FindVM(), 0u);

    // The platform lists the one at x = 3200 first; the sorted list doesn't.
    m_script->displays = {VirtualMonitorDisplay(9, 3200), PlainDisplay(1, 0),
                          VirtualMonitorDisplay(8, 1920)};
    EXPECT_EQ(manager->FindVM(), 8u);
}

TEST_F(DisplayManagerTest, TheStockedListIsTheArrangementAtConstructionSortedByX)
{
    m_script->displays = {PlainDisplay(5, 1920, 1280, 1024), PlainDisplay(3, 0),
                          PlainDisplay(4, -1440, 1440, 900)};
    m_script->displays[1].main = true;
    m_script->displays[0].mirrorOf = 4;
    auto manager = Make();
    const auto& stocked = manager->StockedList();
    ASSERT_EQ(stocked.size(), 3u);
    EXPECT_EQ(stocked[0]->displayId, 4u);
    EXPECT_EQ(stocked[1]->displayId, 3u);
    EXPECT_EQ(stocked[2]->displayId, 5u);
    EXPECT_DOUBLE_EQ(stocked[0]->x, -1440);
    EXPECT_DOUBLE_EQ(stocked[0]->width, 1440);
    EXPECT_DOUBLE_EQ(stocked[0]->height, 900);
    EXPECT_TRUE(stocked[1]->isMain);
    EXPECT_EQ(stocked[2]->mirrorOf, 4u);
    // The leftmost display is logged as the original main one, main or not.
    EXPECT_EQ(Messages(), (std::vector<std::string>{"DetectDisplays\xEF\xBC\x9Atotal Displays=[3]",
                                                    "Original Main Display id=[0x4]"}));

    // Fresh lists leave the stocked one alone.
    m_script->displays.push_back(PlainDisplay(6, 9000));
    EXPECT_EQ(manager->DetectDisplays().size(), 4u);
    EXPECT_EQ(manager->StockedList().size(), 3u);

    m_log->Clear();
    manager.reset();
    EXPECT_EQ(Messages(), std::vector<std::string>{" Clear stocked display list"});
}

TEST_F(DisplayManagerTest, AListThatCantBeHadIsEmptyAndMeansNotFound)
{
    m_script->displays = {VirtualMonitorDisplay(7, 0)};
    m_script->listFails = true;
    auto manager = Make();
    EXPECT_TRUE(manager->StockedList().empty());
    EXPECT_EQ(manager->FindVM(), 0u);
    EXPECT_EQ(Messages(), std::vector<std::string>{"Original Main Display id=[0x0]"});
}

TEST_F(DisplayManagerTest, RequestCalibrateBeforeTheCallbackIsSetOnlyLogs)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    m_log->Clear();
    m_script->calls.clear();
    manager->RequestCalibrate();
    EXPECT_EQ(Messages(), std::vector<std::string>{" -- Do Calibrate"});
    EXPECT_TRUE(m_script->calls.empty());
    EXPECT_TRUE(m_placements.empty());
}

TEST_F(DisplayManagerTest, RequestCalibrateTellsWhereTheMonitorIsTruncated)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920.75, 1280.5, 720.9)};
    m_script->displays[0].main = true;
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    m_log->Clear();
    manager->RequestCalibrate();
    EXPECT_EQ(m_placements, (std::vector<Placement>{{1920, 0, 1280, 720}}));
    EXPECT_EQ(Messages(),
              (std::vector<std::string>{
                  " -- Do Calibrate", "DetectDisplays\xEF\xBC\x9Atotal Displays=[2]",
                  "New Virtual Monitor Position: x=[1920.75] y=[0.00] w=[1280.50] h=[720.90]"}));
}

TEST_F(DisplayManagerTest, AVirtualMonitorThatIsMainGetsNoCallback)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    m_script->displays[1].main = true;
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    m_log->Clear();
    m_script->calls.clear();
    manager->RequestCalibrate();
    EXPECT_TRUE(m_placements.empty());
    EXPECT_EQ(Messages(), (std::vector<std::string>{
                              " -- Do Calibrate", "DetectDisplays\xEF\xBC\x9Atotal Displays=[2]"}));
    // The bounds are read, then the main test ends it.
    ASSERT_GE(m_script->calls.size(), 2u);
    EXPECT_EQ(m_script->calls[m_script->calls.size() - 2], "Bounds(7)");
    EXPECT_EQ(m_script->calls.back(), "IsMain(7)");

    // Without a virtual monitor the callback stays silent too.
    m_script->displays = {PlainDisplay(1, 0)};
    manager->RequestCalibrate();
    EXPECT_TRUE(m_placements.empty());
}

TEST_F(DisplayManagerTest, TheBeginFlagAloneIsLoggedWithoutALeadingBlankAndSchedulesNothing)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    manager->SetHook();
    m_log->Clear();
    m_script->Fire(7, 0x1);
    LetScheduledWorkRun();
    EXPECT_EQ(Messages(),
              std::vector<std::string>{"Display configuration changed, calibrate displays 0x7 "
                                       "flags=0x1(kCGDisplayBeginConfigurationFlag)"});
    EXPECT_EQ(m_script->Count("Begin()"), 0u);
    EXPECT_TRUE(m_placements.empty());
}

TEST_F(DisplayManagerTest, AMirrorFlagSchedulesTheUnMirrorOnly)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 0)};
    m_script->displays[1].mirrorOf = 1;
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    manager->SetHook();
    m_log->Clear();
    m_script->calls.clear();
    m_script->Fire(7, 0x402);
    // Nothing happens at once: the work waits for 200 ms.
    EXPECT_EQ(m_script->Count("Begin()"), 0u);
    LetScheduledWorkRun();

    ASSERT_EQ(m_script->completed.size(), 1u);
    EXPECT_EQ(Steps(m_script->completed[0].steps), std::vector<std::string>{"MirrorOf(7,0)"});
    // For this program only.
    EXPECT_EQ(m_script->completed[0].option, 0);
    EXPECT_EQ(m_script->Count("Origin("), 0u);
    const std::vector<std::string> messages = Messages();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages[0], "Display configuration changed, calibrate displays 0x7 "
                           "flags=0x402( kCGDisplayMovedFlag kCGDisplayMirrorFlag)");
    EXPECT_EQ(messages[1], "called HandleConfigureDone callback!");
    EXPECT_EQ(messages[2], " -- Do Calibrate");
    // Un-mirrored, the monitor is reported where it stands.
    EXPECT_EQ(m_placements, (std::vector<Placement>{{0, 0, 1280, 720}}));
}

// The platform refusing every configuration call changes nothing for the
// manager: the results aren't looked at, the work goes on to its end, and
// the monitor is reported where it stands.
TEST_F(DisplayManagerTest, RefusedConfigurationCallsArePassedOverAndTheMonitorStillReported)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    manager->SetHook();
    m_script->configurationFails = true;
    m_log->Clear();
    m_script->calls.clear();

    m_script->Fire(7, 0x2);
    LetScheduledWorkRun();
    m_script->Fire(7, 0x400);
    LetScheduledWorkRun();

    EXPECT_TRUE(m_script->completed.empty());
    EXPECT_EQ(m_script->Count("Begin()"), 2u);
    // The stocked displays where they were, then the monitor beyond them.
    EXPECT_EQ(m_script->Count("Origin("), 3u);
    EXPECT_EQ(m_script->Count("MirrorOf("), 1u);
    EXPECT_EQ(m_script->Count("Complete("), 2u);
    const std::vector<std::string> messages = Messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "called HandleConfigureDone callback!"),
              2);
    EXPECT_EQ(m_placements, (std::vector<Placement>{{1920, 0, 1280, 720}, {1920, 0, 1280, 720}}));
}

TEST_F(DisplayManagerTest, AnAddedDisplayThatIsntTheMonitorArrangesWithoutIt)
{
    m_script->displays = {PlainDisplay(1, 0, 1440, 900), PlainDisplay(2, 1440)};
    auto manager = Make();
    manager->SetHook();
    m_script->displays.push_back(PlainDisplay(3, 500));
    m_script->displays[0].x = 100;
    m_script->Fire(3, 0x10);
    LetScheduledWorkRun();

    ASSERT_EQ(m_script->completed.size(), 1u);
    // The stocked displays go back; with id 0 carried, no third step.
    EXPECT_EQ(Steps(m_script->completed[0].steps),
              (std::vector<std::string>{"Origin(1,0,0)", "Origin(2,1440,0)"}));
    // An arrangement is kept.
    EXPECT_EQ(m_script->completed[0].option, 2);
    EXPECT_TRUE(m_log->Contains(EGroupValueInformation,
                                "Display configuration changed, calibrate displays 0x3 "
                                "flags=0x10( kCGDisplayAddFlag)"));
}

TEST_F(DisplayManagerTest, TheMonitorMovedAwayIsPutBackRightOfTheStockedDisplaysAndReported)
{
    m_script->displays = {PlainDisplay(1, 0)};
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    manager->SetHook();
    // The monitor arrives where the desktop puts it.
    m_script->displays.push_back(VirtualMonitorDisplay(7, 0));
    m_script->displays[0].x = 1280;
    m_script->Fire(7, 0x10);
    LetScheduledWorkRun();

    ASSERT_EQ(m_script->completed.size(), 1u);
    EXPECT_EQ(Steps(m_script->completed[0].steps),
              (std::vector<std::string>{"Origin(1,0,0)", "Origin(7,1920,0)"}));
    EXPECT_EQ(m_placements, (std::vector<Placement>{{1920, 0, 1280, 720}}));

    // Completing that moved the monitor, which is reported again: this pass
    // moves nothing and reports the same place, so the chain ends.
    m_script->Fire(7, 0x2);
    LetScheduledWorkRun();
    ASSERT_EQ(m_script->completed.size(), 2u);
    EXPECT_EQ(m_placements, (std::vector<Placement>{{1920, 0, 1280, 720}, {1920, 0, 1280, 720}}));
    EXPECT_EQ(m_script->Count("Complete("), 2u);
}

TEST_F(DisplayManagerTest, TheWorkIsDoneAbout200MillisecondsLater)
{
    m_script->displays = {PlainDisplay(1, 0)};
    auto manager = Make();
    manager->SetHook();
    const auto start = std::chrono::steady_clock::now();
    m_script->Fire(1, 0x2);
    ASSERT_TRUE(WaitUntil([&] { return m_script->Count("Begin()") == 1; }, 5s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 190ms);
}

TEST_F(DisplayManagerTest, WorkStillPendingWhenTheManagerIsDeletedNeverRuns)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    manager->SetHook();
    m_script->Fire(7, 0x2);
    m_script->Fire(7, 0x400);
    manager->RemoveHook();
    manager.reset();
    LetScheduledWorkRun();
    EXPECT_EQ(m_script->Count("Begin()"), 0u);
    EXPECT_TRUE(m_placements.empty());
    EXPECT_EQ(m_log->Count("called HandleConfigureDone callback!"), 0u);
}

TEST_F(DisplayManagerTest, RemoveHookStopsNewNotificationsButNotWorkAlreadyScheduled)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    manager->SetConfigurationDoneCB(&Done, this);
    manager->SetHook();
    EXPECT_EQ(m_script->callbacks.size(), 1u);
    m_script->Fire(7, 0x2);
    manager->RemoveHook();
    EXPECT_TRUE(m_script->callbacks.empty());
    m_script->Fire(7, 0x2);
    LetScheduledWorkRun();
    EXPECT_EQ(m_script->Count("Begin()"), 1u);
    // The stocked list holds the monitor: it goes beyond both widths.
    EXPECT_EQ(m_placements, (std::vector<Placement>{{3200, 0, 1280, 720}}));
}

TEST_F(DisplayManagerTest, RestoreMainStagesTheStockedOriginsThenTheMonitorBeyondTheirWidths)
{
    m_script->displays = {PlainDisplay(2, 1440, 1920, 1080), PlainDisplay(1, 0, 1440, 900)};
    auto manager = Make();
    m_script->displays.push_back(VirtualMonitorDisplay(7, 5000));
    const auto staged = StagedByRestoreMain(*manager, 7);
    EXPECT_EQ(staged,
              (std::vector<std::string>{"Origin(1,0,0)", "Origin(2,1440,0)", "Origin(7,3360,0)"}));
}

TEST_F(DisplayManagerTest, RestoreMainWithAnEmptyStockedListPutsTheMonitorAtTheOrigin)
{
    m_script->listFails = true;
    auto manager = Make();
    ASSERT_TRUE(manager->StockedList().empty());
    m_script->listFails = false;
    m_script->displays = {VirtualMonitorDisplay(7, 1920)};
    const auto staged = StagedByRestoreMain(*manager, 7);
    EXPECT_EQ(staged, std::vector<std::string>{"Origin(7,0,0)"});
}

TEST_F(DisplayManagerTest, BoundsAreTruncatedTowardZero)
{
    m_script->displays = {PlainDisplay(1, -0.5, 1440.7), PlainDisplay(2, 1440.2)};
    m_script->displays[0].y = -0.9;
    auto manager = Make();
    const auto staged = StagedByRestoreMain(*manager, 7);
    // -0.5 and -0.9 are staged as 0; the widths add up before truncation.
    EXPECT_EQ(staged,
              (std::vector<std::string>{"Origin(1,0,0)", "Origin(2,1440,0)", "Origin(7,3360,0)"}));
}

TEST_F(DisplayManagerTest, TheStockedMonitorIsCountedInTheRunningWidthToo)
{
    // The relay came up after the monitor: it goes to its old place, then
    // beyond the sum that includes its own width.
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    const auto staged = StagedByRestoreMain(*manager, 7);
    EXPECT_EQ(staged,
              (std::vector<std::string>{"Origin(1,0,0)", "Origin(7,1920,0)", "Origin(7,3200,0)"}));
}

TEST_F(DisplayManagerTest, EveryFlagHasItsTextInTableOrder)
{
    EXPECT_EQ(DisplayManager::FlagsText(0x1), "kCGDisplayBeginConfigurationFlag");
    EXPECT_EQ(DisplayManager::FlagsText(0x1FFF),
              " kCGDisplayBeginConfigurationFlag kCGDisplayMovedFlag kCGDisplaySetMainFlag"
              " kCGDisplaySetModeFlag kCGDisplayAddFlag kCGDisplayRemoveFlag"
              " kCGDisplayEnabledFlag kCGDisplayDisabledFlag kCGDisplayMirrorFlag"
              " kCGDisplayUnMirrorFlag kCGDisplayDesktopShapeChangedFlag");
    EXPECT_EQ(DisplayManager::FlagsText(0x3),
              " kCGDisplayBeginConfigurationFlag kCGDisplayMovedFlag");
    EXPECT_EQ(DisplayManager::FlagsText(0x20), " kCGDisplayRemoveFlag");
    EXPECT_EQ(DisplayManager::FlagsText(0), "");
}

TEST_F(DisplayManagerTest, RemovedAndModeFlagsScheduleNothing)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 1920)};
    auto manager = Make();
    manager->SetHook();
    m_script->Fire(7, 0x20);
    m_script->Fire(1, 0x8 | 0x4);
    LetScheduledWorkRun();
    EXPECT_EQ(m_script->Count("Begin()"), 0u);
}

TEST_F(DisplayManagerTest, SetDisplayOriginIsOneTransactionForThisProgramOnly)
{
    m_script->displays = {PlainDisplay(1, 0), VirtualMonitorDisplay(7, 0)};
    auto manager = Make();
    m_script->calls.clear();
    EXPECT_EQ(manager->SetDisplayOrigin(7, 1920, 0), 0);
    EXPECT_EQ(m_script->calls,
              (std::vector<std::string>{"Begin()", "Origin(7,1920,0)", "Complete(0)"}));
    EXPECT_DOUBLE_EQ(m_script->Find(7)->x, 1920);

    // A display that can't be staged abandons the transaction.
    m_script->calls.clear();
    EXPECT_EQ(manager->SetDisplayOrigin(99, 0, 0), 1001);
    EXPECT_EQ(m_script->calls, (std::vector<std::string>{"Begin()", "Origin(99,0,0)"}));

    double left = 0, top = 0, right = 0, bottom = 0;
    EXPECT_EQ(manager->GetDisplayBounds(7, &left, &top, &right, &bottom), 0);
    EXPECT_DOUBLE_EQ(left, 1920);
    EXPECT_DOUBLE_EQ(top, 0);
    EXPECT_DOUBLE_EQ(right, 3200);
    EXPECT_DOUBLE_EQ(bottom, 720);
}

} // namespace
} // namespace velorane::test
