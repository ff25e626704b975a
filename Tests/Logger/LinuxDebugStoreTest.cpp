#include "Common/Logger/Linux/Src/LinuxDebugStore.h"

#include <gtest/gtest.h>

#include <syslog.h>

using namespace quorvan;

namespace {

TEST(LinuxDebugStoreTest, SyslogPriorityByGroup)
{
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueInformation), LOG_NOTICE);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueWarning), LOG_WARNING);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueSevere), LOG_ERR);
    EXPECT_EQ(LOG_NOTICE, 5);
    EXPECT_EQ(LOG_WARNING, 4);
    EXPECT_EQ(LOG_ERR, 3);
}

TEST(LinuxDebugStoreTest, OtherGroupsGoToSyslogWithPrioritySeven)
{
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueConfig), 7);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueSpew), 7);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(EGroupValueAll), 7);
    EXPECT_EQ(LinuxDebugStore::SyslogPriority(static_cast<ELogGroups>(3)), 7);
}

TEST(LinuxDebugStoreTest, PrintsGroupFunctionMessageFileLineOnStandardOutput)
{
    CRefCountPtr<ILogStore> store(new LinuxDebugStore());
    testing::internal::CaptureStdout();
    store->OnLog(EGroupValueWarning, "Clients/Conference/main", "main", 0, 1, 12, "hello");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "* Warning     * main hello Clients/Conference/main 12\n");
}

TEST(LinuxDebugStoreTest, WithoutFileAndFunctionPrintsGroupAndMessage)
{
    CRefCountPtr<ILogStore> store(new LinuxDebugStore());
    testing::internal::CaptureStdout();
    store->OnLog(EGroupValueSevere, "", "", 0, 1, 12, "bare");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "* Severe      * bare\n");
}

TEST(LinuxDebugStoreTest, UnknownGroupPrintsAnEmptyName)
{
    EXPECT_EQ(LinuxDebugStore::FormatText(static_cast<ELogGroups>(3), "f", "g", 1, "m"),
              " g m f 1");
}

TEST(LinuxDebugStoreTest, CreateNativeOsStoreHandsOutOneReference)
{
    ILogStore* raw = nullptr;
    EXPECT_EQ(CreateNativeOsStore(&raw), 0);
    ASSERT_NE(raw, nullptr);
    CRefCountPtr<ILogStore> store(raw);
    EXPECT_EQ(store->GetRefCount(), 1);
    EXPECT_NE(dynamic_cast<LinuxDebugStore*>(raw), nullptr);
}

} // namespace
