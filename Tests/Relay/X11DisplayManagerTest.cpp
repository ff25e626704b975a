// The DisplayManager on the X11 display platform, against an X server of
// the test's own (a 3840x1080 screen around one 1920x1080 output): the
// virtual monitor set, moved away and mirrored by another program is put
// back right of the displays stocked at start, 200 ms after the change, and
// its place is reported.

#include "Clients/Conference/DisplayManager.h"
#include "Clients/Conference/Linux/MonitorArrangement.h"
#include "Clients/Conference/Linux/XcbDisplayPlatform.h"
#include "Clients/Conference/Linux/XcbRandrConnection.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/XDisplayTools.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using namespace quorvan::velorane::relay;
using namespace std::chrono_literals;

const std::string kVirtualMonitor = "VELORANE-2399-160-1902";

struct Placement
{
    int x, y, w, h;
    bool operator==(const Placement& o) const
    {
        return x == o.x && y == o.y && w == o.w && h == o.h;
    }
};

class X11DisplayManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UnitQtApplication();
        ASSERT_TRUE(m_server.Start(PrivateXServer::WithRoomBesideOutput(m_dir.Path(), 3840)))
            << "no private X server";
        m_tools = std::make_unique<XDisplayTools>(m_server.Name());
        std::string whyNot;
        auto platform = XcbDisplayPlatform::Create(m_server.Name().c_str(), &whyNot);
        ASSERT_TRUE(platform) << whyNot;
        m_manager = std::make_unique<DisplayManager>(std::move(platform));
        m_manager->SetConfigurationDoneCB(&Done, this);
        m_manager->SetHook();
    }

    void TearDown() override
    {
        if (m_manager) {
            m_manager->RemoveHook();
        }
        m_manager.reset();
        m_server.Stop();
    }

    static void Done(void* context, int x, int y, int w, int h)
    {
        static_cast<X11DisplayManagerTest*>(context)->m_placements.push_back({x, y, w, h});
    }

    bool MonitorAt(int x, int y)
    {
        ListedMonitor monitor;
        return m_tools->FindMonitor(kVirtualMonitor, &monitor) && monitor.x == x && monitor.y == y;
    }

    // Waits until the monitor stands there and its place has been reported.
    bool WaitForPlacement(const Placement& placement)
    {
        return WaitUntil([&] { return !m_placements.empty() && m_placements.back() == placement; },
                         10s);
    }

    TempDir m_dir;
    ScopedLogCapture m_log;
    PrivateXServer m_server;
    std::unique_ptr<XDisplayTools> m_tools;
    std::unique_ptr<DisplayManager> m_manager;
    std::vector<Placement> m_placements;
};

TEST_F(X11DisplayManagerTest, TheMonitorsArrivalIsArrangedRightOfTheStockedDisplays)
{
    ASSERT_EQ(m_manager->StockedList().size(), 1u);
    EXPECT_EQ(m_manager->FindVM(), 0u);
    // Wherever the monitor comes up, it goes right of the output's monitor.
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 300, 200, 1280, 720));
    ASSERT_TRUE(WaitForPlacement({1920, 0, 1280, 720})) << m_tools->MonitorsText();
    EXPECT_TRUE(MonitorAt(1920, 0)) << m_tools->MonitorsText();
    EXPECT_NE(m_manager->FindVM(), 0u);
    EXPECT_TRUE(m_log->Contains(quorvan::EGroupValueInformation,
                                "New Virtual Monitor Position: x=[1920.00] y=[0.00] w=[1280.00] "
                                "h=[720.00]"));
}

TEST_F(X11DisplayManagerTest, TheMonitorMovedAwayIsPutBack)
{
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitForPlacement({1920, 0, 1280, 720}));
    m_placements.clear();

    ASSERT_TRUE(m_tools->MoveMonitor(kVirtualMonitor, 0, 360, 1280, 720));
    ASSERT_TRUE(WaitForPlacement({1920, 0, 1280, 720})) << m_tools->MonitorsText();
    EXPECT_TRUE(MonitorAt(1920, 0)) << m_tools->MonitorsText();
    // The chain ends: a pass that moves nothing reports the same place.
    PumpEventsFor(800ms);
    const size_t settled = m_placements.size();
    PumpEventsFor(800ms);
    EXPECT_EQ(m_placements.size(), settled);
    EXPECT_TRUE(MonitorAt(1920, 0));
}

TEST_F(X11DisplayManagerTest, AMirroredMonitorIsUnMirroredThenArranged)
{
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 0, 0, 1920, 1080));
    ASSERT_TRUE(WaitForPlacement({1920, 0, 1920, 1080})) << m_tools->MonitorsText();
    EXPECT_TRUE(MonitorAt(1920, 0));
    char expected[128];
    std::snprintf(expected, sizeof(expected),
                  "Display configuration changed, calibrate displays 0x%x "
                  "flags=0x410( kCGDisplayAddFlag kCGDisplayMirrorFlag)",
                  m_manager->FindVM());
    EXPECT_TRUE(m_log->Contains(quorvan::EGroupValueInformation, expected));
}

TEST_F(X11DisplayManagerTest, AVirtualMonitorMadeMainIsArrangedButNotReported)
{
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitForPlacement({1920, 0, 1280, 720}));
    m_placements.clear();
    const size_t handled = m_log->Count("called HandleConfigureDone callback!");

    // Another program makes it the primary monitor, somewhere else.
    std::string whyNot;
    auto x = XcbRandrConnection::Open(m_server.Name().c_str(), &whyNot);
    ASSERT_TRUE(x) << whyNot;
    tMonitor monitor;
    monitor.id = m_manager->FindVM();
    monitor.y = 360;
    monitor.width = 1280;
    monitor.height = 720;
    monitor.widthMm = 338;
    monitor.heightMm = 190;
    monitor.primary = true;
    std::string error;
    ASSERT_TRUE(x->DeleteMonitor(monitor.id, &error)) << error;
    ASSERT_TRUE(x->SetMonitor(monitor, &error)) << error;

    // Put back, still primary, and then not followed.
    ASSERT_TRUE(WaitUntil(
        [&] { return m_log->Count("called HandleConfigureDone callback!") > handled; }, 10s));
    EXPECT_TRUE(MonitorAt(1920, 0))
        << m_tools->MonitorsText() << ::testing::PrintToString(m_log->Messages());
    ListedMonitor listed;
    ASSERT_TRUE(m_tools->FindMonitor(kVirtualMonitor, &listed));
    EXPECT_TRUE(listed.primary);
    PumpEventsFor(500ms);
    EXPECT_TRUE(m_placements.empty());
}

// Another monitor of the virtual one's size came where the virtual monitor
// belongs while it stood elsewhere. Put back there, the virtual monitor
// would mirror it, be un-mirrored away, be put back, for ever.
TEST_F(X11DisplayManagerTest, AMonitorWhereTheVirtualOneBelongsDoesNotSendItBackAndForth)
{
    ASSERT_TRUE(m_tools->SetMonitor("OTHER", 1920, 0, 640, 480));
    PumpEventsFor(500ms);
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 0, 600, 640, 480));
    ASSERT_TRUE(WaitForPlacement({2560, 0, 640, 480})) << m_tools->MonitorsText();
    EXPECT_TRUE(MonitorAt(2560, 0));

    // It stays there: nothing more moves and nothing more is reported.
    PumpEventsFor(800ms);
    const size_t settled = m_placements.size();
    PumpEventsFor(1200ms);
    EXPECT_EQ(m_placements.size(), settled);
    EXPECT_TRUE(MonitorAt(2560, 0)) << m_tools->MonitorsText();
    ListedMonitor other;
    ASSERT_TRUE(m_tools->FindMonitor("OTHER", &other));
    EXPECT_EQ(other.x, 1920);
    char expected[160];
    std::snprintf(expected, sizeof(expected),
                  "Display 0x%x would cover another display of its size: it goes right of the "
                  "others, to 2560,0",
                  m_manager->FindVM());
    EXPECT_TRUE(m_log->Contains(quorvan::EGroupValueWarning, expected))
        << ::testing::PrintToString(m_log->Messages());
}

} // namespace
} // namespace velorane::test
