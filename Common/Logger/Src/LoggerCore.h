#pragma once

// The logger behind the singleton: group and level filter, per-site rate
// limits, ordered dispatch to the stores.
//
// Threads: any thread calls Log. The rate table's shape is guarded by
// m_tableLock, held only for the look-up and the insertion. An entry's
// windows are touched without the lock: the key holds the thread id, so an
// entry belongs to one thread, and entries are never moved or removed. The
// store list, groups and level change only during start-up.

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Mutex.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace quorvan {

struct RateLimitEntry
{
    std::deque<int64_t> shortWindow;
    std::deque<int64_t> longWindow;
    int64_t markTime = 0;
    int64_t resumeTime = 0;
};

class Logger : public virtual ILogger, public IRefCountImpl
{
public:
    // Wall-clock UTC milliseconds; replaceable so the limits can be tested
    // without waiting minutes.
    using Clock = std::function<int64_t()>;

    static constexpr size_t kMaxTrackedKeys = 10000;
    static constexpr int64_t kShortWindowMs = 5000;
    static constexpr int64_t kLongWindowMs = 60000;
    static constexpr size_t kShortWindowLimit = 5;
    static constexpr size_t kLongWindowLimit = 50;
    static constexpr int64_t kShortSuspensionMs = 60000;
    static constexpr int64_t kLongSuspensionMs = 600000;

    explicit Logger(Clock clock = nullptr);
    ~Logger() override;

    RESULT AddStore(CRefCountPtr<ILogStore>& store) override;
    RESULT RemoveStore(CRefCountPtr<ILogStore>& store) override;
    RESULT IsEnabled(ELogGroups group, uint32_t level, bool* enabled) override;
    RESULT SetGroups(ELogGroups groups) override;
    RESULT GetGroups(ELogGroups* groups) override;
    RESULT SetLevel(uint32_t level) override;
    RESULT GetLevel(uint32_t* level) override;
    RESULT RestartStores() override;
    RESULT Log(ELogGroups group, const std::string& file, const std::string& function,
               int64_t timeMs, uint32_t threadId, int32_t line, const std::string& message,
               bool bypassRateLimit) override;

    // How many keys the rate table tracks.
    size_t TrackedKeys();

private:
    // Returns the warning text to send after the message, or null; false
    // when the message is to be dropped.
    bool RateLimit(const std::string& file, const std::string& function, uint32_t threadId,
                   int32_t line, const char** warning);

    CFastMutex m_tableLock;
    std::unordered_map<std::string, RateLimitEntry> m_table;
    std::atomic<int32_t> m_groups{static_cast<int32_t>(EGroupValueAll)};
    std::atomic<uint32_t> m_level{0};
    std::vector<ILogStore*> m_stores;
    Clock m_clock;
};

} // namespace quorvan
