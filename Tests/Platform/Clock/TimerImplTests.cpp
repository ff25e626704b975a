#include "Common/Platform/Linux/Src/TimerImpl.h"
#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/Result.h"
#include "Tests/Support/WithoutNewThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace quorvan {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto Patience = std::chrono::seconds(5);

// Counts its calls and lets the test wait for a number of them.
class CountingCallback : public ITimer::ITimerCallback
{
public:
    void OnTimer() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fireTimes.push_back(Clock::now());
        m_threads.push_back(std::this_thread::get_id());
        if (m_stopped.load()) {
            ++m_callsAfterStop;
        }
        m_changed.notify_all();
    }

    // True when at least count calls came within the patience.
    bool WaitFor(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, Patience, [&] { return m_fireTimes.size() >= count; });
    }

    size_t Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_fireTimes.size();
    }

    Clock::time_point FireTime(size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_fireTimes.at(index);
    }

    std::vector<std::thread::id> Threads()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

    // From now on every call counts as a call after the timer was stopped.
    void MarkStopped() { m_stopped.store(true); }

    int CallsAfterStop()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_callsAfterStop;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Clock::time_point> m_fireTimes;
    std::vector<std::thread::id> m_threads;
    std::atomic<bool> m_stopped{false};
    int m_callsAfterStop = 0;
};

ITimer* MakeTimer()
{
    ITimer* timer = nullptr;
    EXPECT_EQ(platform::CreateTimerInstance(timer), Success);
    return timer;
}

TEST(ClockTimer, CreateTimerInstanceHandsOutOneReference)
{
    ITimer* timer = nullptr;
    EXPECT_EQ(platform::CreateTimerInstance(timer), 0);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(timer->GetRefCount(), 1);
    EXPECT_EQ(timer->Release(), 0);
}

TEST(ClockTimer, FiresFirstAfterTheInitialDelayThenRepeatedly)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(timer->Initialize(20, &callback, 150), Success);

    ASSERT_TRUE(callback.WaitFor(3));
    EXPECT_GE(callback.FireTime(0) - start, milliseconds(150));
    // The third call comes two periods after the first was due, at the least.
    EXPECT_GE(callback.FireTime(2) - start, milliseconds(190));
    timer->Release();
}

TEST(ClockTimer, RepeatsEveryPeriod)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(timer->Initialize(10, &callback, 0), Success);

    ASSERT_TRUE(callback.WaitFor(6));
    EXPECT_GE(callback.FireTime(5) - start, milliseconds(50));
    for (size_t i = 1; i < 6; ++i) {
        EXPECT_GE(callback.FireTime(i), callback.FireTime(i - 1));
    }
    timer->Release();
}

TEST(ClockTimer, OnTimerRunsOnATimerThread)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    ASSERT_EQ(timer->Initialize(5, &callback, 0), Success);
    ASSERT_TRUE(callback.WaitFor(2));
    timer->Release();

    for (const std::thread::id id : callback.Threads()) {
        EXPECT_NE(id, std::this_thread::get_id());
    }
}

TEST(ClockTimer, DestructionStopsTheCallbacks)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    ASSERT_EQ(timer->Initialize(1, &callback, 0), Success);
    ASSERT_TRUE(callback.WaitFor(3));

    EXPECT_EQ(timer->Release(), 0);
    callback.MarkStopped();
    const size_t countAtStop = callback.Count();

    // A stopped timer stays quiet however long we look; 20 periods is plenty.
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(callback.CallsAfterStop(), 0);
    EXPECT_EQ(callback.Count(), countAtStop);
}

TEST(ClockTimer, DestructionReturnsPromptlyDuringALongWait)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    ASSERT_EQ(timer->Initialize(60000, &callback, 60000), Success);

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(timer->Release(), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(callback.Count(), 0u);
}

TEST(ClockTimer, InitializeTwiceIsRefusedAndTheFirstTimerGoesOn)
{
    CountingCallback first;
    CountingCallback second;
    ITimer* timer = MakeTimer();
    ASSERT_EQ(timer->Initialize(5, &first, 0), Success);

    EXPECT_EQ(timer->Initialize(5, &second, 0), ResultCode(0x8000000Cu));
    const size_t countAtRefusal = first.Count();
    EXPECT_TRUE(first.WaitFor(countAtRefusal + 3));
    timer->Release();
    EXPECT_EQ(second.Count(), 0u);
}

TEST(ClockTimer, NullCallbackIsRefusedAndALaterCallStillWorks)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    EXPECT_EQ(timer->Initialize(5, nullptr, 0), ResultCode(0x80000003u));

    EXPECT_EQ(timer->Initialize(5, &callback, 0), Success);
    EXPECT_TRUE(callback.WaitFor(2));
    timer->Release();
}

// The timer's thread can't be had: the general failure, and the timer stays
// uninitialised, so that the same call answers the same again.
TEST(ClockTimer, TimerThatCantBeMadeIsTheGeneralFailure)
{
    const int result = ::velorane::test::RunWithoutNewThreads([] {
        CountingCallback callback;
        ITimer* timer = MakeTimer();
        if (timer->Initialize(5, &callback, 0) != ResultCode(0x80000000u)) {
            return 1;
        }
        if (timer->Initialize(5, &callback, 0) != ResultCode(0x80000000u)) {
            return 2;
        }
        std::this_thread::sleep_for(milliseconds(50));
        const int calls = static_cast<int>(callback.Count());
        timer->Release();
        return calls == 0 ? 0 : 3;
    });
    if (result == ::velorane::test::kThreadLimitNotHeld) {
        GTEST_SKIP() << "this machine lets the process start threads whatever its limit";
    }
    EXPECT_EQ(result, 0);
}

TEST(ClockTimer, DestroyingAnUninitialisedTimerReleasesIt)
{
    ITimer* timer = MakeTimer();
    EXPECT_EQ(timer->AddRef(), 2);
    EXPECT_EQ(timer->Release(), 1);
    EXPECT_EQ(timer->Release(), 0);
}

TEST(ClockTimer, ZeroPeriodFiresOnce)
{
    CountingCallback callback;
    ITimer* timer = MakeTimer();
    ASSERT_EQ(timer->Initialize(0, &callback, 5), Success);
    ASSERT_TRUE(callback.WaitFor(1));

    std::this_thread::sleep_for(milliseconds(50));
    timer->Release();
    EXPECT_EQ(callback.Count(), 1u);
}

// Releases the timer from its own OnTimer, as an owner that stops in its
// callback would.
class SelfReleasingCallback : public ITimer::ITimerCallback
{
public:
    void OnTimer() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_calls;
        if (m_timer) {
            m_countAtRelease = m_timer->Release();
            m_timer = nullptr;
            m_released.notify_all();
        }
    }

    // Starts over with a new timer and no calls counted.
    void SetTimer(ITimer* timer)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_timer = timer;
        m_calls = 0;
        m_countAtRelease = -1;
    }

    bool WaitForRelease()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_released.wait_for(lock, Patience, [&] { return m_countAtRelease >= 0; });
    }

    int Calls()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    int64_t CountAtRelease()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_countAtRelease;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    ITimer* m_timer = nullptr;
    int m_calls = 0;
    int64_t m_countAtRelease = -1;
};

TEST(ClockTimer, ReleaseFromInsideOnTimerStopsTheTimer)
{
    // Outlives any late call, whatever the timer does.
    static SelfReleasingCallback callback;
    ITimer* timer = MakeTimer();
    callback.SetTimer(timer);
    ASSERT_EQ(timer->Initialize(1, &callback, 0), Success);

    ASSERT_TRUE(callback.WaitForRelease());
    EXPECT_EQ(callback.CountAtRelease(), 0);
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(callback.Calls(), 1);
}

} // namespace
} // namespace quorvan
