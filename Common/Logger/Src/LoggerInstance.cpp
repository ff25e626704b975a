// The logger singleton and the metric handler, both behind one lock.

#include "Common/Logger/Src/Logger.h"
#include "Common/Logger/Src/LoggerCore.h"
#include "Common/Platform/Src/Mutex.h"

#include <atomic>

namespace quorvan {

namespace {

struct LoggerGlobals
{
    Mutex lock;
    ILogger* instance = nullptr;
    MetricHandler metricHandler;
};

// Made on first use and never destroyed, so that a thread that logs while
// the process exits still finds it.
LoggerGlobals& Globals()
{
    static LoggerGlobals* globals = new LoggerGlobals();
    return *globals;
}

// Made during static initialisation, on one thread, before main runs.
const bool kGlobalsReady = (Globals(), true);

// Every log statement asks for the instance, so each thread keeps its own
// counted reference and takes the global lock only when the instance has
// changed since (ReleaseLoggerInstance bumps the generation). A thread that
// still holds an old instance keeps it alive through its reference.
std::atomic<uint64_t> g_generation{0};

struct ThreadCache
{
    CRefCountPtr<ILogger> logger;
    uint64_t generation = 0;
};

ThreadCache& Cache()
{
    thread_local ThreadCache cache;
    return cache;
}

} // namespace

RESULT GetLoggerInstance(ILogger** logger)
{
    ThreadCache& cache = Cache();
    if (cache.logger && cache.generation == g_generation.load(std::memory_order_acquire)) {
        cache.logger->AddRef();
        *logger = cache.logger.Get();
        return Success;
    }

    LoggerGlobals& globals = Globals();
    CAutoMutex lock(globals.lock);
    if (!globals.instance) {
        globals.instance = new Logger();
    }
    // One reference for the caller, one for this thread's cache.
    globals.instance->AddRef();
    globals.instance->AddRef();
    cache.logger = CRefCountPtr<ILogger>(globals.instance);
    cache.generation = g_generation.load(std::memory_order_relaxed);
    *logger = globals.instance;
    return Success;
}

RESULT ReleaseLoggerInstance()
{
    LoggerGlobals& globals = Globals();
    CAutoMutex lock(globals.lock);
    if (globals.instance) {
        g_generation.fetch_add(1, std::memory_order_release);
        Cache().logger.Reset();
        globals.instance->Release();
        globals.instance = nullptr;
    }
    return Success;
}

RESULT LoggerInitialize(ELogGroups groups, uint32_t level)
{
    CRefCountPtr<ILogger> logger;
    GetLoggerInstance(&logger);
    const RESULT result = logger->SetGroups(groups);
    logger->SetLevel(level);
    return result;
}

RESULT LoggerAddCustom(CRefCountPtr<ILogStore>& store)
{
    CRefCountPtr<ILogger> logger;
    GetLoggerInstance(&logger);
    return logger->AddStore(store);
}

RESULT LoggerRemoveStore(CRefCountPtr<ILogStore>& store)
{
    CRefCountPtr<ILogger> logger;
    GetLoggerInstance(&logger);
    return logger->RemoveStore(store);
}

bool LoggerInitializeMetricHandler(MetricHandler handler)
{
    LoggerGlobals& globals = Globals();
    CAutoMutex lock(globals.lock);
    if (globals.metricHandler) {
        return false;
    }
    globals.metricHandler = std::move(handler);
    return true;
}

void LoggerAddMetric(uint64_t id, const std::string& name, double value)
{
    LoggerGlobals& globals = Globals();
    MetricHandler handler;
    {
        CAutoMutex lock(globals.lock);
        handler = globals.metricHandler;
    }
    // Called outside the lock: a handler may log.
    if (handler) {
        handler(id, name, value);
    }
}

} // namespace quorvan
