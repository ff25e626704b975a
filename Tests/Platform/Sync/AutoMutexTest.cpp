#include "Common/Platform/Src/Mutex.h"
#include "Common/Platform/Src/Result.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

namespace {

using quorvan::CAutoFastMutex;
using quorvan::CAutoMutex;
using quorvan::CFastMutex;
using quorvan::Mutex;
using quorvan::ResultGeneralFailure;
using quorvan::Success;

// Whether another thread can take the lock right now (it gives it back).
bool FreeForOthers(Mutex& mutex)
{
    return std::async(std::launch::async,
                      [&mutex] {
                          if (mutex.Lock("", 0) != Success) {
                              return false;
                          }
                          mutex.Unlock();
                          return true;
                      })
        .get();
}

TEST(AutoMutexTest, ConstructorLocks)
{
    Mutex mutex;
    CAutoMutex hold(mutex, "", 0xFFFFFFFF);
    EXPECT_TRUE(hold.Locked());
    EXPECT_FALSE(FreeForOthers(mutex));
}

TEST(AutoMutexTest, DestructorUnlocksWhenLocked)
{
    Mutex mutex;
    {
        CAutoMutex hold(mutex);
        EXPECT_TRUE(hold.Locked());
    }
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(AutoMutexTest, LockOnHeldHolderFailsAndLeavesTheLock)
{
    Mutex mutex;
    CAutoMutex hold(mutex, "", 0xFFFFFFFF);
    EXPECT_EQ(hold.Lock("", 0xFFFFFFFF), ResultGeneralFailure);
    EXPECT_TRUE(hold.Locked());
    // Not nested: one Unlock frees the lock completely.
    EXPECT_EQ(hold.Unlock(), Success);
    EXPECT_FALSE(hold.Locked());
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(AutoMutexTest, UnlockOnUnheldHolderFailsAndLeavesTheLock)
{
    Mutex mutex;
    ASSERT_EQ(mutex.Lock("", 0xFFFFFFFF), Success);
    {
        CAutoMutex hold(mutex, "", 0xFFFFFFFF);
        EXPECT_EQ(hold.Unlock(), Success);
        EXPECT_EQ(hold.Unlock(), ResultGeneralFailure);
        EXPECT_FALSE(hold.Locked());
        // The lock taken outside the holder is still ours.
        EXPECT_FALSE(FreeForOthers(mutex));
    }
    // The destructor of an unlocked holder doesn't unlock either.
    EXPECT_FALSE(FreeForOthers(mutex));
    EXPECT_EQ(mutex.Unlock(), Success);
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(AutoMutexTest, LockAfterUnlockRelocks)
{
    Mutex mutex;
    CAutoMutex hold(mutex);
    EXPECT_EQ(hold.Unlock(), Success);
    EXPECT_TRUE(FreeForOthers(mutex));
    EXPECT_EQ(hold.Lock("", 0), Success);
    EXPECT_TRUE(hold.Locked());
    EXPECT_FALSE(FreeForOthers(mutex));
}

TEST(AutoMutexTest, FailedLockLeavesHolderUnlocked)
{
    Mutex mutex;
    std::promise<void> held;
    std::promise<void> release;
    auto other = std::async(std::launch::async, [&] {
        mutex.Lock("", 0xFFFFFFFF);
        held.set_value();
        release.get_future().wait();
        mutex.Unlock();
    });
    held.get_future().wait();
    {
        CAutoMutex hold(mutex, "", 0);
        EXPECT_FALSE(hold.Locked());
        EXPECT_EQ(hold.Unlock(), ResultGeneralFailure);
        EXPECT_EQ(hold.Lock("", 0), ResultGeneralFailure);
        EXPECT_FALSE(hold.Locked());
    }
    release.set_value();
    other.get();
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(AutoFastMutexTest, LockUnlockAndDestructor)
{
    CFastMutex fast;
    {
        CAutoFastMutex hold(fast);
        EXPECT_TRUE(hold.Locked());
        EXPECT_EQ(hold.Lock(""), ResultGeneralFailure);
        EXPECT_EQ(hold.Unlock(), Success);
        EXPECT_FALSE(hold.Locked());
        EXPECT_EQ(hold.Unlock(), ResultGeneralFailure);
        EXPECT_EQ(hold.Lock(nullptr), Success);
        EXPECT_TRUE(hold.Locked());
    }
    // The destructor let go: another thread gets the lock at once.
    auto other = std::async(std::launch::async, [&fast] {
        CAutoFastMutex hold(fast, "");
        return hold.Locked();
    });
    EXPECT_EQ(other.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_TRUE(other.get());
}

TEST(AutoFastMutexTest, UnlockedHolderDestructorLeavesOuterLock)
{
    CFastMutex fast;
    ASSERT_EQ(fast.Lock(""), Success);
    {
        CAutoFastMutex hold(fast);
        EXPECT_EQ(hold.Unlock(), Success);
    }
    // Still held once by us: another thread blocks until we unlock.
    std::atomic<bool> got{false};
    auto other = std::async(std::launch::async, [&] {
        CAutoFastMutex hold(fast);
        got = hold.Locked();
    });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_FALSE(got.load());
    EXPECT_EQ(fast.Unlock(), Success);
    EXPECT_EQ(other.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    other.get();
    EXPECT_TRUE(got.load());
}

} // namespace
