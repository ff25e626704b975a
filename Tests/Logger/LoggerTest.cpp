// The logger's filter, its store list and its dispatch order.

#include "Common/Logger/Src/LoggerCore.h"
#include "Tests/Support/CapturingLogStore.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace quorvan;
using velorane::test::CapturingLogStore;

namespace {

class ThrowingStore : public virtual ILogStore, public IRefCountImpl
{
public:
    void OnLog(ELogGroups, const std::string&, const std::string&, int64_t, uint32_t, int32_t,
               const std::string&) override
    {
        throw std::runtime_error("store failed");
    }
    void Restart() override {}
};

CRefCountPtr<ILogStore> MakeCapture(CapturingLogStore** raw)
{
    *raw = new CapturingLogStore();
    return CRefCountPtr<ILogStore>(*raw);
}

TEST(LoggerTest, StartsWithAllGroupsAndLevelZero)
{
    CRefCountPtr<Logger> logger(new Logger());
    ELogGroups groups = EGroupValueConfig;
    uint32_t level = 99;
    EXPECT_EQ(logger->GetGroups(&groups), 0);
    EXPECT_EQ(logger->GetLevel(&level), 0);
    EXPECT_EQ(groups, EGroupValueAll);
    EXPECT_EQ(level, 0u);
}

TEST(LoggerTest, IsEnabledNeedsEveryGroupBitAndALevelNotAboveThreshold)
{
    CRefCountPtr<Logger> logger(new Logger());
    bool enabled = false;
    logger->SetGroups(EGroupValueInformation | EGroupValueWarning);
    logger->SetLevel(1);

    EXPECT_EQ(logger->IsEnabled(EGroupValueInformation, 0, &enabled), 0);
    EXPECT_TRUE(enabled);
    logger->IsEnabled(EGroupValueInformation, 1, &enabled);
    EXPECT_TRUE(enabled);
    logger->IsEnabled(EGroupValueInformation, 2, &enabled);
    EXPECT_FALSE(enabled);
    logger->IsEnabled(EGroupValueSevere, 0, &enabled);
    EXPECT_FALSE(enabled);
    // The level compares without sign: a huge site level is never enabled.
    logger->IsEnabled(EGroupValueWarning, 0xFFFFFFFFu, &enabled);
    EXPECT_FALSE(enabled);
}

TEST(LoggerTest, GroupValueThreeMatchesOnlyWithBothBitsAndPrintsEmpty)
{
    CRefCountPtr<Logger> logger(new Logger());
    const ELogGroups three = static_cast<ELogGroups>(3);
    bool enabled = false;
    logger->SetGroups(EGroupValueConfig | EGroupValueInformation);
    logger->IsEnabled(three, 0, &enabled);
    EXPECT_TRUE(enabled);
    logger->SetGroups(EGroupValueInformation);
    logger->IsEnabled(three, 0, &enabled);
    EXPECT_FALSE(enabled);
    EXPECT_EQ(LogGroupName(three), "");
}

TEST(LoggerTest, PrintedGroupNamesAreFifteenCharacters)
{
    EXPECT_EQ(LogGroupName(EGroupValueConfig), "* Config      *");
    EXPECT_EQ(LogGroupName(EGroupValueInformation), "* Information *");
    EXPECT_EQ(LogGroupName(EGroupValueWarning), "* Warning     *");
    EXPECT_EQ(LogGroupName(EGroupValueSevere), "* Severe      *");
    EXPECT_EQ(LogGroupName(EGroupValueSpew), "* Spew        *");
    EXPECT_EQ(LogGroupName(EGroupValueAll), "* All         *");
    for (const std::string* name : {&EGroupConfig, &EGroupInformation, &EGroupWarning,
                                    &EGroupSevere, &EGroupSpew, &EGroupAll}) {
        EXPECT_EQ(name->size(), 15u) << *name;
    }
    EXPECT_EQ(LogGroupName(static_cast<ELogGroups>(32)), "");
}

TEST(LoggerTest, GroupOperatorsCombineBits)
{
    EXPECT_EQ(static_cast<int>(EGroupValueConfig | EGroupValueSevere), 9);
    EXPECT_EQ(static_cast<int>(EGroupValueAll & EGroupValueSpew), 16);
}

TEST(LoggerTest, AddingAListedStoreMovesItLastWithOneMoreReference)
{
    CRefCountPtr<Logger> logger(new Logger());
    CapturingLogStore* first = nullptr;
    CapturingLogStore* second = nullptr;
    auto a = MakeCapture(&first);
    auto b = MakeCapture(&second);
    logger->AddStore(a);
    logger->AddStore(b);
    EXPECT_EQ(a->GetRefCount(), 2);

    EXPECT_EQ(logger->AddStore(a), 0);
    EXPECT_EQ(a->GetRefCount(), 3);

    // One entry each, a now after b: b sees the message first.
    logger->Log(EGroupValueInformation, "", "", 0, 1, 1, "once", false);
    EXPECT_EQ(first->Count("once"), 1u);
    EXPECT_EQ(second->Count("once"), 1u);

    // Both stores record into one shared order.
    struct OrderStore : public virtual ILogStore, public IRefCountImpl
    {
        explicit OrderStore(std::string* trace, char tag) : m_trace(trace), m_tag(tag) {}
        void OnLog(ELogGroups, const std::string&, const std::string&, int64_t, uint32_t, int32_t,
                   const std::string&) override
        {
            *m_trace += m_tag;
        }
        void Restart() override {}
        std::string* m_trace;
        char m_tag;
    };
    std::string trace;
    CRefCountPtr<Logger> ordered(new Logger());
    CRefCountPtr<ILogStore> x(new OrderStore(&trace, 'x'));
    CRefCountPtr<ILogStore> y(new OrderStore(&trace, 'y'));
    ordered->AddStore(x);
    ordered->AddStore(y);
    ordered->AddStore(x);
    ordered->Log(EGroupValueInformation, "", "", 0, 1, 1, "m", false);
    EXPECT_EQ(trace, "yx");
    ordered->RemoveStore(x);
    ordered->RemoveStore(y);
    // The second AddStore's reference is not given back by one RemoveStore.
    x->Release();

    logger->RemoveStore(a);
    logger->RemoveStore(b);
    EXPECT_EQ(a->GetRefCount(), 2);
    a->Release();
}

TEST(LoggerTest, RemovingAStoreReleasesItsReference)
{
    CRefCountPtr<Logger> logger(new Logger());
    CapturingLogStore* raw = nullptr;
    auto store = MakeCapture(&raw);
    logger->AddStore(store);
    ASSERT_EQ(store->GetRefCount(), 2);
    EXPECT_EQ(logger->RemoveStore(store), 0);
    EXPECT_EQ(store->GetRefCount(), 1);
    logger->Log(EGroupValueInformation, "", "", 0, 1, 1, "after removal", false);
    EXPECT_EQ(raw->Count("after removal"), 0u);
}

TEST(LoggerTest, RemovingAnUnlistedStoreChangesNothing)
{
    CRefCountPtr<Logger> logger(new Logger());
    CapturingLogStore* listedRaw = nullptr;
    CapturingLogStore* unlistedRaw = nullptr;
    auto listed = MakeCapture(&listedRaw);
    auto unlisted = MakeCapture(&unlistedRaw);
    logger->AddStore(listed);
    EXPECT_EQ(logger->RemoveStore(unlisted), 0);
    EXPECT_EQ(unlisted->GetRefCount(), 1);
    EXPECT_EQ(listed->GetRefCount(), 2);
    logger->Log(EGroupValueInformation, "", "", 0, 1, 1, "still here", false);
    EXPECT_EQ(listedRaw->Count("still here"), 1u);
    logger->RemoveStore(listed);
}

TEST(LoggerTest, ThrowingStoreEndsTheDispatchThere)
{
    CRefCountPtr<Logger> logger(new Logger());
    CapturingLogStore* beforeRaw = nullptr;
    CapturingLogStore* afterRaw = nullptr;
    auto before = MakeCapture(&beforeRaw);
    CRefCountPtr<ILogStore> thrower(new ThrowingStore());
    auto after = MakeCapture(&afterRaw);
    logger->AddStore(before);
    logger->AddStore(thrower);
    logger->AddStore(after);
    EXPECT_THROW(logger->Log(EGroupValueInformation, "", "", 0, 1, 1, "m", false),
                 std::runtime_error);
    EXPECT_EQ(beforeRaw->Count("m"), 1u);
    EXPECT_EQ(afterRaw->Count("m"), 0u);
    logger->RemoveStore(before);
    logger->RemoveStore(thrower);
    logger->RemoveStore(after);
}

TEST(LoggerTest, DirectLogBypassesTheGroupFilter)
{
    CRefCountPtr<Logger> logger(new Logger());
    CapturingLogStore* raw = nullptr;
    auto store = MakeCapture(&raw);
    logger->AddStore(store);
    logger->SetGroups(EGroupValueSevere);
    logger->Log(EGroupValueSpew, "f", "g", 5, 9, 3, "spew", false);
    ASSERT_EQ(raw->Lines().size(), 1u);
    const auto line = raw->Lines()[0];
    EXPECT_EQ(line.group, EGroupValueSpew);
    EXPECT_EQ(line.file, "f");
    EXPECT_EQ(line.function, "g");
    EXPECT_EQ(line.timeMs, 5);
    EXPECT_EQ(line.threadId, 9u);
    EXPECT_EQ(line.line, 3);
    logger->RemoveStore(store);
}

TEST(LoggerTest, WarningGoesToEveryStoreAfterTheMessage)
{
    int64_t now = 1000;
    CRefCountPtr<Logger> logger(new Logger([&] { return now; }));
    CapturingLogStore* aRaw = nullptr;
    CapturingLogStore* bRaw = nullptr;
    auto a = MakeCapture(&aRaw);
    auto b = MakeCapture(&bRaw);
    logger->AddStore(a);
    logger->AddStore(b);
    for (int i = 0; i < 6; ++i) {
        ++now;
        logger->Log(EGroupValueWarning, "file", "fn", now, 3, 10, "m", false);
    }
    for (CapturingLogStore* s : {aRaw, bRaw}) {
        const auto lines = s->Lines();
        ASSERT_EQ(lines.size(), 7u);
        EXPECT_EQ(lines[5].message, "m");
        EXPECT_EQ(lines[6].group, EGroupValueWarning);
        EXPECT_EQ(lines[6].message.rfind("WARNING -- The above log message", 0), 0u);
    }
    logger->RemoveStore(a);
    logger->RemoveStore(b);
}

TEST(LoggerTest, RestartStoresRestartsEachStoreInOrder)
{
    CRefCountPtr<Logger> logger(new Logger());
    CapturingLogStore* raw = nullptr;
    auto store = MakeCapture(&raw);
    logger->AddStore(store);
    EXPECT_EQ(logger->RestartStores(), 0);
    EXPECT_EQ(raw->Restarts(), 1);
    logger->RemoveStore(store);
}

} // namespace
