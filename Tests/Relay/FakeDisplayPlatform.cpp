#include "Tests/Relay/FakeDisplayPlatform.h"

#include <algorithm>

namespace velorane::test {

using quorvan::velorane::relay::DisplayConfig;
using quorvan::velorane::relay::DisplayConfigRef;
using quorvan::velorane::relay::DisplayErrorCannotComplete;
using quorvan::velorane::relay::DisplayErrorFailure;
using quorvan::velorane::relay::DisplayErrorIllegalArgument;
using quorvan::velorane::relay::DisplayErrorInvalidConnection;
using quorvan::velorane::relay::DisplayErrorSuccess;
using quorvan::velorane::relay::DisplayReconfigurationCallback;
using quorvan::velorane::relay::EDisplayConfigureOption;
using quorvan::velorane::relay::tDisplayBounds;

namespace {

std::string Text(const char* name, std::initializer_list<long long> arguments)
{
    std::string text = std::string(name) + "(";
    bool first = true;
    for (const long long argument : arguments) {
        text += (first ? "" : ",") + std::to_string(argument);
        first = false;
    }
    return text + ")";
}

} // namespace

namespace {

FakeDisplay Display(uint32_t id, double x, double width, double height, uint32_t vendor,
                    uint32_t model)
{
    FakeDisplay display;
    display.id = id;
    display.x = x;
    display.width = width;
    display.height = height;
    display.vendor = vendor;
    display.model = model;
    display.serial = 1902;
    return display;
}

} // namespace

FakeDisplay VirtualMonitorDisplay(uint32_t id, double x, double width, double height)
{
    return Display(id, x, width, height, 2399, 160);
}

// Only vendor and model tell it from the virtual monitor.
FakeDisplay PlainDisplay(uint32_t id, double x, double width, double height)
{
    return Display(id, x, width, height, 0x10AC, 0xA0C4);
}

void FakeDisplayScript::Fire(uint32_t displayId, uint32_t flags)
{
    const auto registered = callbacks;
    for (const auto& [callback, userInfo] : registered) {
        callback(displayId, flags, userInfo);
    }
}

size_t FakeDisplayScript::Count(const std::string& prefix) const
{
    return static_cast<size_t>(std::count_if(
        calls.begin(), calls.end(), [&](const auto& call) { return call.rfind(prefix, 0) == 0; }));
}

FakeDisplay* FakeDisplayScript::Find(uint32_t id)
{
    for (auto& display : displays) {
        if (display.id == id) {
            return &display;
        }
    }
    return nullptr;
}

FakeDisplayPlatform::FakeDisplayPlatform(std::shared_ptr<FakeDisplayScript> script)
    : m_script(std::move(script))
{
}

int32_t FakeDisplayPlatform::GetOnlineDisplayList(uint32_t maxDisplays, uint32_t* displays,
                                                  uint32_t* count)
{
    m_script->calls.push_back(displays ? "List(ids)" : "List(count)");
    if (m_script->listFails) {
        return DisplayErrorInvalidConnection;
    }
    const size_t written = displays ? std::min<size_t>(maxDisplays, m_script->displays.size())
                                    : m_script->displays.size();
    for (size_t index = 0; displays && index < written; ++index) {
        displays[index] = m_script->displays[index].id;
    }
    *count = static_cast<uint32_t>(written);
    return DisplayErrorSuccess;
}

tDisplayBounds FakeDisplayPlatform::DisplayBounds(uint32_t displayId)
{
    m_script->calls.push_back(Text("Bounds", {displayId}));
    const FakeDisplay* display = m_script->Find(displayId);
    return display ? tDisplayBounds{display->x, display->y, display->width, display->height}
                   : tDisplayBounds{};
}

uint32_t FakeDisplayPlatform::DisplayMirrorsDisplay(uint32_t displayId)
{
    m_script->calls.push_back(Text("Mirrors", {displayId}));
    const FakeDisplay* display = m_script->Find(displayId);
    return display ? display->mirrorOf : 0;
}

bool FakeDisplayPlatform::DisplayIsMain(uint32_t displayId)
{
    m_script->calls.push_back(Text("IsMain", {displayId}));
    const FakeDisplay* display = m_script->Find(displayId);
    return display && display->main;
}

uint32_t FakeDisplayPlatform::DisplayVendorNumber(uint32_t displayId)
{
    m_script->calls.push_back(Text("Vendor", {displayId}));
    const FakeDisplay* display = m_script->Find(displayId);
    return display ? display->vendor : 0;
}

uint32_t FakeDisplayPlatform::DisplayModelNumber(uint32_t displayId)
{
    m_script->calls.push_back(Text("Model", {displayId}));
    const FakeDisplay* display = m_script->Find(displayId);
    return display ? display->model : 0;
}

uint32_t FakeDisplayPlatform::DisplaySerialNumber(uint32_t displayId)
{
    m_script->calls.push_back(Text("Serial", {displayId}));
    const FakeDisplay* display = m_script->Find(displayId);
    return display ? display->serial : 0;
}

int32_t FakeDisplayPlatform::BeginDisplayConfiguration(DisplayConfigRef* config)
{
    m_script->calls.push_back("Begin()");
    if (m_script->configurationFails) {
        config->reset();
        return DisplayErrorFailure;
    }
    *config = std::make_unique<DisplayConfig>();
    return DisplayErrorSuccess;
}

int32_t FakeDisplayPlatform::ConfigureDisplayOrigin(DisplayConfig* config, uint32_t displayId,
                                                    int32_t x, int32_t y)
{
    m_script->calls.push_back(Text("Origin", {displayId, x, y}));
    if (m_script->configurationFails) {
        return DisplayErrorCannotComplete;
    }
    if (!config || !m_script->Find(displayId)) {
        return DisplayErrorIllegalArgument;
    }
    config->steps.push_back({DisplayConfig::Step::Origin, displayId, x, y, 0});
    return DisplayErrorSuccess;
}

int32_t FakeDisplayPlatform::ConfigureDisplayMirrorOfDisplay(DisplayConfig* config,
                                                             uint32_t displayId, uint32_t master)
{
    m_script->calls.push_back(Text("MirrorOf", {displayId, master}));
    if (m_script->configurationFails) {
        return DisplayErrorCannotComplete;
    }
    if (!config || !m_script->Find(displayId)) {
        return DisplayErrorIllegalArgument;
    }
    config->steps.push_back({DisplayConfig::Step::MirrorOf, displayId, 0, 0, master});
    return DisplayErrorSuccess;
}

int32_t FakeDisplayPlatform::CompleteDisplayConfiguration(DisplayConfigRef config,
                                                          EDisplayConfigureOption option)
{
    m_script->calls.push_back(Text("Complete", {option}));
    if (m_script->configurationFails) {
        return DisplayErrorCannotComplete;
    }
    if (!config) {
        return DisplayErrorIllegalArgument;
    }
    for (const auto& step : config->steps) {
        FakeDisplay* display = m_script->Find(step.displayId);
        if (step.kind == DisplayConfig::Step::Origin) {
            display->x = step.x;
            display->y = step.y;
        } else if (step.master == 0) {
            display->mirrorOf = 0;
        }
    }
    m_script->completed.push_back({config->steps, option});
    return DisplayErrorSuccess;
}

int32_t
FakeDisplayPlatform::RegisterReconfigurationCallback(DisplayReconfigurationCallback callback,
                                                     void* userInfo)
{
    m_script->calls.push_back("Register()");
    m_script->callbacks.emplace_back(callback, userInfo);
    return DisplayErrorSuccess;
}

int32_t FakeDisplayPlatform::RemoveReconfigurationCallback(DisplayReconfigurationCallback callback,
                                                           void* userInfo)
{
    m_script->calls.push_back("Remove()");
    auto& callbacks = m_script->callbacks;
    callbacks.erase(
        std::remove(callbacks.begin(), callbacks.end(), std::make_pair(callback, userInfo)),
        callbacks.end());
    return DisplayErrorSuccess;
}

} // namespace velorane::test
