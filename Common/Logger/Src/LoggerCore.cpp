#include "Common/Logger/Src/LoggerCore.h"

#include "Common/Platform/Src/Time.h"

#include <algorithm>

namespace quorvan {

namespace {
const char* const kShortWarning = "WARNING -- The above log message has been detected 5 times in "
                                  "one second and will be suspended for 1 minute";
const char* const kLongWarning = "WARNING -- The above log message has been detected 50 times "
                                 "in the last minute and will be suspended for 10 minutes";
} // namespace

Logger::Logger(Clock clock) : m_clock(std::move(clock))
{
    m_table.max_load_factor(1.0f);
    if (!m_clock) {
        m_clock = [] { return UTCTime::Milliseconds(); };
    }
}

// The stores' references are not given back: the logger lives until the
// process ends, and the stores with it.
Logger::~Logger() = default;

RESULT Logger::AddStore(CRefCountPtr<ILogStore>& store)
{
    ILogStore* raw = store.Get();
    auto it = std::find(m_stores.begin(), m_stores.end(), raw);
    if (it != m_stores.end()) {
        m_stores.erase(it);
    }
    m_stores.push_back(raw);
    if (raw) {
        raw->AddRef();
    }
    return Success;
}

RESULT Logger::RemoveStore(CRefCountPtr<ILogStore>& store)
{
    ILogStore* raw = store.Get();
    auto it = std::find(m_stores.begin(), m_stores.end(), raw);
    if (it != m_stores.end()) {
        m_stores.erase(it);
        if (raw) {
            raw->Release();
        }
    }
    return Success;
}

RESULT Logger::IsEnabled(ELogGroups group, uint32_t level, bool* enabled)
{
    const int32_t wanted = static_cast<int32_t>(group);
    const int32_t groups = m_groups.load(std::memory_order_relaxed);
    *enabled = (groups & wanted) == wanted && m_level.load(std::memory_order_relaxed) >= level;
    return Success;
}

RESULT Logger::SetGroups(ELogGroups groups)
{
    m_groups.store(static_cast<int32_t>(groups), std::memory_order_relaxed);
    return Success;
}

RESULT Logger::GetGroups(ELogGroups* groups)
{
    *groups = static_cast<ELogGroups>(m_groups.load(std::memory_order_relaxed));
    return Success;
}

RESULT Logger::SetLevel(uint32_t level)
{
    m_level.store(level, std::memory_order_relaxed);
    return Success;
}

RESULT Logger::GetLevel(uint32_t* level)
{
    *level = m_level.load(std::memory_order_relaxed);
    return Success;
}

RESULT Logger::RestartStores()
{
    for (ILogStore* store : m_stores) {
        store->Restart();
    }
    return Success;
}

size_t Logger::TrackedKeys()
{
    CAutoFastMutex lock(m_tableLock);
    return m_table.size();
}

bool Logger::RateLimit(const std::string& file, const std::string& function, uint32_t threadId,
                       int32_t line, const char** warning)
{
    // One site on one thread is one key, whatever it prints.
    std::string key = std::to_string(threadId);
    key += '-';
    key += std::to_string(line);
    key += file;
    key += function;

    RateLimitEntry* entry = nullptr;
    size_t size = 0;
    {
        CAutoFastMutex lock(m_tableLock);
        auto it = m_table.find(key);
        if (it != m_table.end()) {
            entry = &it->second;
        }
        size = m_table.size();
    }

    if (!entry) {
        // A full table leaves new keys untracked: their messages always pass.
        if (size < kMaxTrackedKeys) {
            RateLimitEntry fresh;
            fresh.markTime = m_clock();
            CAutoFastMutex lock(m_tableLock);
            m_table.emplace(std::move(key), std::move(fresh));
        }
        // The message that creates the entry is delivered and not counted.
        return true;
    }

    const int64_t now = m_clock();
    if (now < entry->resumeTime) {
        return false;
    }

    entry->shortWindow.push_back(now);
    while (!entry->shortWindow.empty() && now - entry->shortWindow.front() >= kShortWindowMs) {
        entry->shortWindow.pop_front();
    }
    entry->longWindow.push_back(now);
    while (!entry->longWindow.empty() && now - entry->longWindow.front() >= kLongWindowMs) {
        entry->longWindow.pop_front();
    }

    // The short window is five seconds although its warning says one: the
    // text is what people have learnt to grep for.
    if (entry->shortWindow.size() >= kShortWindowLimit) {
        entry->resumeTime = now + kShortSuspensionMs;
        entry->markTime = entry->resumeTime;
        *warning = kShortWarning;
    } else if (entry->longWindow.size() >= kLongWindowLimit) {
        entry->resumeTime = now + kLongSuspensionMs;
        entry->markTime = entry->resumeTime;
        *warning = kLongWarning;
    }
    return true;
}

RESULT Logger::Log(ELogGroups group, const std::string& file, const std::string& function,
                   int64_t timeMs, uint32_t threadId, int32_t line, const std::string& message,
                   bool bypassRateLimit)
{
    const char* warning = nullptr;
    if (!bypassRateLimit && !(file.empty() && function.empty())) {
        if (!RateLimit(file, function, threadId, line, &warning)) {
            return Success;
        }
    }

    // A store that throws ends the dispatch there; the caller swallows it.
    for (ILogStore* store : m_stores) {
        store->OnLog(group, file, function, timeMs, threadId, line, message);
    }
    if (warning) {
        const std::string text(warning);
        for (ILogStore* store : m_stores) {
            store->OnLog(group, file, function, timeMs, threadId, line, text);
        }
    }
    return Success;
}

} // namespace quorvan
