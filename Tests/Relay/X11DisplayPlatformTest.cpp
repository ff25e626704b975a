// The X11 display platform against an X server of the test's own: Xvfb
// with a 3840x1080 screen around one 1920x1080 output, so that there is
// room for a monitor beside it. Monitors are set, moved and deleted with
// xrandr as another program would; the platform lists them, names the
// virtual monitor by its name, hears the changes as per-display calls and
// moves monitors in its transactions.

#include "Clients/Conference/IDisplayPlatform.h"
#include "Clients/Conference/Linux/XcbDisplayPlatform.h"
#include "Clients/Conference/Linux/XcbRandrConnection.h"
#include "Tests/Relay/UnitQtApp.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/PrivateXServer.h"
#include "Tests/Support/XDisplayTools.h"

#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using namespace quorvan::velorane::relay;
using namespace std::chrono_literals;

const std::string kVirtualMonitor = "VELORANE-2399-160-1902";

struct Call
{
    uint32_t id;
    uint32_t flags;
};

class X11DisplayPlatformTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UnitQtApplication();
        ASSERT_TRUE(m_server.Start(PrivateXServer::WithRoomBesideOutput(m_dir.Path(), 3840)))
            << "no private X server";
        m_tools = std::make_unique<XDisplayTools>(m_server.Name());
        std::string whyNot;
        m_platform = XcbDisplayPlatform::Create(m_server.Name().c_str(), &whyNot);
        ASSERT_TRUE(m_platform) << whyNot;
        m_x = XcbRandrConnection::Open(m_server.Name().c_str(), &whyNot);
        ASSERT_TRUE(m_x) << whyNot;
        m_screen = Atom("screen");
        m_monitor = Atom(kVirtualMonitor);
    }

    void TearDown() override
    {
        m_platform.reset();
        m_x.reset();
        m_server.Stop();
    }

    uint32_t Atom(const std::string& name)
    {
        xcb_connection_t* connection = m_x->Connection();
        auto* reply = xcb_intern_atom_reply(
            connection,
            xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.c_str()),
            nullptr);
        const uint32_t atom = reply ? reply->atom : 0;
        std::free(reply);
        return atom;
    }

    std::vector<uint32_t> Displays()
    {
        uint32_t ids[32] = {};
        uint32_t count = 0;
        EXPECT_EQ(m_platform->GetOnlineDisplayList(32, ids, &count), 0);
        std::vector<uint32_t> list(ids, ids + count);
        std::sort(list.begin(), list.end());
        return list;
    }

    static void Record(uint32_t id, uint32_t flags, void* self)
    {
        static_cast<X11DisplayPlatformTest*>(self)->m_calls.push_back({id, flags});
    }

    bool Heard(uint32_t id, uint32_t flags) const
    {
        return std::any_of(m_calls.begin(), m_calls.end(),
                           [&](const Call& call) { return call.id == id && call.flags == flags; });
    }

    // Waits until the call has come, pumping the events that bring it.
    bool WaitToHear(uint32_t id, uint32_t flags)
    {
        return WaitUntil([&] { return Heard(id, flags); }, 10s);
    }

    bool MonitorAt(const std::string& name, int x, int y)
    {
        ListedMonitor monitor;
        return m_tools->FindMonitor(name, &monitor) && monitor.x == x && monitor.y == y;
    }

    // Sets the output's EDID, which Xvfb's output doesn't have.
    void SetScreenEdid(const std::vector<uint8_t>& edid)
    {
        xcb_connection_t* connection = m_x->Connection();
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
        auto* resources = xcb_randr_get_screen_resources_current_reply(
            connection, xcb_randr_get_screen_resources_current(connection, root), nullptr);
        ASSERT_NE(resources, nullptr);
        const xcb_randr_output_t output =
            xcb_randr_get_screen_resources_current_outputs(resources)[0];
        std::free(resources);
        xcb_generic_error_t* error =
            xcb_request_check(connection, xcb_randr_change_output_property_checked(
                                              connection, output, Atom("EDID"), XCB_ATOM_INTEGER, 8,
                                              XCB_PROP_MODE_REPLACE,
                                              static_cast<uint32_t>(edid.size()), edid.data()));
        EXPECT_EQ(error, nullptr);
        std::free(error);
    }

    int32_t MoveTo(uint32_t id, int32_t x, int32_t y)
    {
        DisplayConfigRef config;
        EXPECT_EQ(m_platform->BeginDisplayConfiguration(&config), 0);
        EXPECT_EQ(m_platform->ConfigureDisplayOrigin(config.get(), id, x, y), 0);
        return m_platform->CompleteDisplayConfiguration(std::move(config),
                                                        DisplayConfigurePermanently);
    }

    static double CpuSeconds()
    {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }

    TempDir m_dir;
    PrivateXServer m_server;
    std::unique_ptr<XDisplayTools> m_tools;
    std::unique_ptr<XcbDisplayPlatform> m_platform;
    std::unique_ptr<XcbRandrConnection> m_x;
    uint32_t m_screen = 0;
    uint32_t m_monitor = 0;
    std::vector<Call> m_calls;
    ScopedLogCapture m_log;
};

TEST_F(X11DisplayPlatformTest, EachMonitorIsADisplayNamedByItsAtom)
{
    EXPECT_EQ(Displays(), std::vector<uint32_t>{m_screen});
    const tDisplayBounds screen = m_platform->DisplayBounds(m_screen);
    EXPECT_DOUBLE_EQ(screen.x, 0);
    EXPECT_DOUBLE_EQ(screen.width, 1920);
    EXPECT_DOUBLE_EQ(screen.height, 1080);
    EXPECT_TRUE(m_platform->DisplayIsMain(m_screen));
    // Xvfb's output has no EDID: no identity.
    EXPECT_EQ(m_platform->DisplayVendorNumber(m_screen), 0u);

    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    EXPECT_EQ(Displays(), (std::vector<uint32_t>{std::min(m_screen, m_monitor),
                                                 std::max(m_screen, m_monitor)}));
    const tDisplayBounds monitor = m_platform->DisplayBounds(m_monitor);
    EXPECT_DOUBLE_EQ(monitor.x, 1920);
    EXPECT_DOUBLE_EQ(monitor.y, 0);
    EXPECT_DOUBLE_EQ(monitor.width, 1280);
    EXPECT_DOUBLE_EQ(monitor.height, 720);
    EXPECT_FALSE(m_platform->DisplayIsMain(m_monitor));
    EXPECT_EQ(m_platform->DisplayMirrorsDisplay(m_monitor), 0u);
    // An output-less monitor is known by its name.
    EXPECT_EQ(m_platform->DisplayVendorNumber(m_monitor), 2399u);
    EXPECT_EQ(m_platform->DisplayModelNumber(m_monitor), 160u);
    EXPECT_EQ(m_platform->DisplaySerialNumber(m_monitor), 1902u);

    // A list of one when only one fits; the count alone without an array.
    uint32_t one[1] = {};
    uint32_t count = 0;
    EXPECT_EQ(m_platform->GetOnlineDisplayList(1, one, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(m_platform->GetOnlineDisplayList(32, nullptr, &count), 0);
    EXPECT_EQ(count, 2u);
}

TEST_F(X11DisplayPlatformTest, AMonitorWithAnOutputIsKnownByTheOutputsEdid)
{
    // Vendor 0x10AC big-endian, model 0xA0C4 and serial 0x0000076E
    // little-endian.
    std::vector<uint8_t> edid(128, 0);
    const uint8_t head[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00,
                            0x10, 0xAC, 0xC4, 0xA0, 0x6E, 0x07, 0x00, 0x00};
    std::copy(std::begin(head), std::end(head), edid.begin());
    SetScreenEdid(edid);
    EXPECT_EQ(m_platform->DisplayVendorNumber(m_screen), 0x10ACu);
    EXPECT_EQ(m_platform->DisplayModelNumber(m_screen), 0xA0C4u);
    EXPECT_EQ(m_platform->DisplaySerialNumber(m_screen), 1902u);
}

TEST_F(X11DisplayPlatformTest, AddingMovingAndRemovingTheMonitorAreHeardPerDisplay)
{
    m_platform->RegisterReconfigurationCallback(&Record, this);
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitToHear(m_monitor, DisplayAddFlag));
    // The begin call comes first; the output's monitor didn't change.
    ASSERT_GE(m_calls.size(), 2u);
    EXPECT_EQ(m_calls[0].id, m_monitor);
    EXPECT_EQ(m_calls[0].flags, DisplayBeginConfigurationFlag);
    EXPECT_FALSE(std::any_of(m_calls.begin(), m_calls.end(),
                             [&](const Call& call) { return call.id == m_screen; }));

    m_calls.clear();
    ASSERT_TRUE(m_tools->MoveMonitor(kVirtualMonitor, 1920, 360, 1280, 720));
    // Deleted and set again by another program: either step may be seen,
    // or only the move between them.
    ASSERT_TRUE(WaitUntil(
        [&] { return Heard(m_monitor, DisplayMovedFlag) || Heard(m_monitor, DisplayAddFlag); },
        10s));

    m_calls.clear();
    ASSERT_TRUE(m_tools->DeleteMonitor(kVirtualMonitor));
    ASSERT_TRUE(WaitToHear(m_monitor, DisplayRemoveFlag));

    // Unhooked, nothing more is heard.
    m_platform->RemoveReconfigurationCallback(&Record, this);
    m_calls.clear();
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    PumpEventsFor(500ms);
    EXPECT_TRUE(m_calls.empty());
}

TEST_F(X11DisplayPlatformTest, AMonitorOverAnotherMirrorsItAndIsUnMirroredToTheRight)
{
    m_platform->RegisterReconfigurationCallback(&Record, this);
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 0, 0, 1920, 1080));
    ASSERT_TRUE(WaitToHear(m_monitor, DisplayAddFlag | DisplayMirrorFlag));
    // The output's monitor is the original, the virtual one the copy.
    EXPECT_EQ(m_platform->DisplayMirrorsDisplay(m_monitor), m_screen);
    EXPECT_EQ(m_platform->DisplayMirrorsDisplay(m_screen), 0u);

    DisplayConfigRef config;
    ASSERT_EQ(m_platform->BeginDisplayConfiguration(&config), 0);
    EXPECT_EQ(m_platform->ConfigureDisplayMirrorOfDisplay(config.get(), m_monitor, 0), 0);
    EXPECT_EQ(
        m_platform->CompleteDisplayConfiguration(std::move(config), DisplayConfigureForAppOnly), 0);
    EXPECT_TRUE(MonitorAt(kVirtualMonitor, 1920, 0)) << m_tools->MonitorsText();
    EXPECT_EQ(m_platform->DisplayMirrorsDisplay(m_monitor), 0u);
    ASSERT_TRUE(WaitUntil(
        [&] {
            return Heard(m_monitor, DisplayMovedFlag | DisplayUnMirrorFlag) ||
                   Heard(m_monitor, DisplayAddFlag);
        },
        10s));
}

TEST_F(X11DisplayPlatformTest, ATransactionMovesTheOutputLessMonitorByReplacingIt)
{
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 300, 200, 1280, 720));
    EXPECT_EQ(MoveTo(m_monitor, 1920, 0), 0);
    EXPECT_TRUE(MonitorAt(kVirtualMonitor, 1920, 0)) << m_tools->MonitorsText();
    // Same name, same size, still without outputs.
    ListedMonitor monitor;
    ASSERT_TRUE(m_tools->FindMonitor(kVirtualMonitor, &monitor));
    EXPECT_EQ(monitor.width, 1280);
    EXPECT_EQ(monitor.height, 720);
    EXPECT_TRUE(monitor.outputs.empty());
    EXPECT_EQ(m_platform->DisplayVendorNumber(m_monitor), 2399u);
}

TEST_F(X11DisplayPlatformTest, ATransactionThatMovesNothingChangesNothingAndIsntHeard)
{
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    ASSERT_TRUE(WaitUntil([&] { return m_platform->KnownMonitors().size() == 2u; }, 10s));
    m_platform->RegisterReconfigurationCallback(&Record, this);
    EXPECT_EQ(MoveTo(m_monitor, 1920, 0), 0);
    EXPECT_EQ(MoveTo(m_screen, 0, 0), 0);
    PumpEventsFor(500ms);
    EXPECT_TRUE(m_calls.empty());
}

TEST_F(X11DisplayPlatformTest, TheScreenGrowsForTheArrangementAsFarAsTheServerAllows)
{
    ASSERT_TRUE(m_tools->SetScreenSize(1920, 1080));
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 0, 0, 1280, 720));
    EXPECT_EQ(MoveTo(m_monitor, 1920, 0), 0);
    EXPECT_TRUE(MonitorAt(kVirtualMonitor, 1920, 0));
    std::string text;
    m_tools->Run({"xrandr"}, &text);
    EXPECT_NE(text.find("current 3200 x 1080"), std::string::npos) << text;

    // Past the largest screen the server allows nothing is changed.
    m_log->Clear();
    EXPECT_EQ(MoveTo(m_monitor, 2600, 0), DisplayErrorCannotComplete);
    EXPECT_TRUE(MonitorAt(kVirtualMonitor, 1920, 0));
    EXPECT_TRUE(m_log->Contains(quorvan::EGroupValueWarning,
                                "Display arrangement refused: the X screen can't grow to "
                                "3880x1080 (at most 3840x1080)"));
}

TEST_F(X11DisplayPlatformTest, AMonitorWithAnOutputMovesByItsCrtc)
{
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    EXPECT_EQ(MoveTo(m_screen, 100, 0), 0);
    EXPECT_TRUE(MonitorAt("screen", 100, 0)) << m_tools->MonitorsText();
    EXPECT_EQ(MoveTo(m_screen, 0, 0), 0);
    EXPECT_TRUE(MonitorAt("screen", 0, 0)) << m_tools->MonitorsText();
}

TEST_F(X11DisplayPlatformTest, BadStagesAreRefused)
{
    DisplayConfigRef config;
    ASSERT_EQ(m_platform->BeginDisplayConfiguration(&config), 0);
    EXPECT_EQ(m_platform->ConfigureDisplayOrigin(config.get(), 12345678, 0, 0),
              DisplayErrorIllegalArgument);
    EXPECT_EQ(m_platform->ConfigureDisplayOrigin(nullptr, m_screen, 0, 0),
              DisplayErrorIllegalArgument);
    EXPECT_EQ(m_platform->ConfigureDisplayMirrorOfDisplay(config.get(), m_screen, m_screen),
              DisplayErrorNotImplemented);
    EXPECT_EQ(m_platform->CompleteDisplayConfiguration(nullptr, DisplayConfigureForAppOnly),
              DisplayErrorIllegalArgument);
    // Off the screen's origin X can't place a monitor.
    ASSERT_TRUE(m_tools->SetMonitor(kVirtualMonitor, 1920, 0, 1280, 720));
    EXPECT_EQ(MoveTo(m_monitor, -1280, 0), DisplayErrorIllegalArgument);
    EXPECT_TRUE(MonitorAt(kVirtualMonitor, 1920, 0));
}

TEST_F(X11DisplayPlatformTest, ALostConnectionIsLoggedOnceAndNothingSpins)
{
    m_platform->RegisterReconfigurationCallback(&Record, this);
    m_x.reset();
    m_server.Stop();
    ASSERT_TRUE(WaitUntil([&] { return m_platform->ConnectionLost(); }, 10s));
    const double before = CpuSeconds();
    PumpEventsFor(1s);
    // A notifier left on a dead socket would spin a whole core.
    EXPECT_LT(CpuSeconds() - before, 0.5);
    uint32_t count = 7;
    EXPECT_EQ(m_platform->GetOnlineDisplayList(32, nullptr, &count), DisplayErrorInvalidConnection);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(m_platform->DisplayVendorNumber(m_monitor), 0u);
    EXPECT_EQ(m_log->Count("The X connection is gone: display changes are no longer followed "
                           "and no virtual monitor is found"),
              1u);
    EXPECT_TRUE(m_calls.empty());
}

} // namespace
} // namespace velorane::test
