#pragma once

// A scripted display platform for the DisplayManager's tests: the displays
// are whatever the test writes into the script, every call is recorded as
// a line of text ("Vendor(7)", "Origin(7,3360,0)", "Complete(2)"), a
// completed transaction applies its origins to the scripted displays, and
// Fire makes the reconfiguration calls that the desktop would make.
//
// The script is shared, so a test keeps it after the platform has gone to
// a DisplayManager, and after that manager is deleted.
//
// Threads: the test's main thread.

#include "Clients/Conference/IDisplayPlatform.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace velorane::test {

struct FakeDisplay
{
    uint32_t id = 0;
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    uint32_t mirrorOf = 0;
    bool main = false;
    uint32_t vendor = 0;
    uint32_t model = 0;
    uint32_t serial = 0;
};

// The virtual monitor's identity numbers.
FakeDisplay VirtualMonitorDisplay(uint32_t id, double x, double width = 1280, double height = 720);
FakeDisplay PlainDisplay(uint32_t id, double x, double width = 1920, double height = 1080);

struct FakeDisplayScript
{
    struct Transaction
    {
        std::vector<quorvan::velorane::relay::DisplayConfig::Step> steps;
        int32_t option;
    };

    std::vector<FakeDisplay> displays;
    // The display list can't be had.
    bool listFails = false;
    // Every configuration call is refused: no transaction is opened, nothing
    // is staged and nothing is applied.
    bool configurationFails = false;
    std::vector<std::string> calls;
    std::vector<Transaction> completed;
    std::vector<std::pair<quorvan::velorane::relay::DisplayReconfigurationCallback, void*>>
        callbacks;

    // Calls every registered callback, as the desktop does for a change.
    void Fire(uint32_t displayId, uint32_t flags);
    // Calls whose text begins with prefix.
    size_t Count(const std::string& prefix) const;
    FakeDisplay* Find(uint32_t id);
};

class FakeDisplayPlatform : public quorvan::velorane::relay::IDisplayPlatform
{
public:
    explicit FakeDisplayPlatform(std::shared_ptr<FakeDisplayScript> script);

    int32_t GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                 uint32_t* count) override;
    quorvan::velorane::relay::tDisplayBounds DisplayBounds(uint32_t displayId) override;
    uint32_t DisplayMirrorsDisplay(uint32_t displayId) override;
    bool DisplayIsMain(uint32_t displayId) override;
    uint32_t DisplayVendorNumber(uint32_t displayId) override;
    uint32_t DisplayModelNumber(uint32_t displayId) override;
    uint32_t DisplaySerialNumber(uint32_t displayId) override;

    int32_t BeginDisplayConfiguration(quorvan::velorane::relay::DisplayConfigRef* config) override;
    int32_t ConfigureDisplayOrigin(quorvan::velorane::relay::DisplayConfig* config,
                                   uint32_t displayId, int32_t x, int32_t y) override;
    int32_t ConfigureDisplayMirrorOfDisplay(quorvan::velorane::relay::DisplayConfig* config,
                                            uint32_t displayId, uint32_t master) override;
    int32_t
    CompleteDisplayConfiguration(quorvan::velorane::relay::DisplayConfigRef config,
                                 quorvan::velorane::relay::EDisplayConfigureOption option) override;

    int32_t RegisterReconfigurationCallback(
        quorvan::velorane::relay::DisplayReconfigurationCallback callback, void* userInfo) override;
    int32_t
    RemoveReconfigurationCallback(quorvan::velorane::relay::DisplayReconfigurationCallback callback,
                                  void* userInfo) override;

private:
    std::shared_ptr<FakeDisplayScript> m_script;
};

} // namespace velorane::test
