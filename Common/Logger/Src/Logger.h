#pragma once

// The process-wide logger: group and level filter, per-site rate limits, and
// an ordered list of stores. Every message of the relay passes through here.

#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Result.h"

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace quorvan {

enum ELogGroups : int32_t
{
    EGroupValueConfig = 1,
    EGroupValueInformation = 2,
    EGroupValueWarning = 4,
    EGroupValueSevere = 8,
    EGroupValueSpew = 16,
    EGroupValueAll = -1,
};

inline ELogGroups operator|(ELogGroups a, ELogGroups b)
{
    return static_cast<ELogGroups>(static_cast<int32_t>(a) | static_cast<int32_t>(b));
}
inline ELogGroups operator&(ELogGroups a, ELogGroups b)
{
    return static_cast<ELogGroups>(static_cast<int32_t>(a) & static_cast<int32_t>(b));
}

// The printed names, 15 characters each, as the stores print them.
extern const std::string EGroupConfig;
extern const std::string EGroupInformation;
extern const std::string EGroupWarning;
extern const std::string EGroupSevere;
extern const std::string EGroupSpew;
extern const std::string EGroupAll;

// The printed name of a group; any other value prints as the empty string.
const std::string& LogGroupName(ELogGroups group);

class ILogStore : public virtual IRefCount
{
public:
    ~ILogStore() override = default;
    // The time argument is the call-site time; stores take their own stamp.
    virtual void OnLog(ELogGroups group, const std::string& file, const std::string& function,
                       int64_t timeMs, uint32_t threadId, int32_t line,
                       const std::string& message) = 0;
    // Lets go of what the store holds open.
    virtual void Restart() = 0;
};

class ILogger : public virtual IRefCount
{
public:
    ~ILogger() override = default;
    virtual RESULT AddStore(CRefCountPtr<ILogStore>& store) = 0;
    virtual RESULT RemoveStore(CRefCountPtr<ILogStore>& store) = 0;
    virtual RESULT IsEnabled(ELogGroups group, uint32_t level, bool* enabled) = 0;
    virtual RESULT SetGroups(ELogGroups groups) = 0;
    virtual RESULT GetGroups(ELogGroups* groups) = 0;
    virtual RESULT SetLevel(uint32_t level) = 0;
    virtual RESULT GetLevel(uint32_t* level) = 0;
    virtual RESULT RestartStores() = 0;
    virtual RESULT Log(ELogGroups group, const std::string& file, const std::string& function,
                       int64_t timeMs, uint32_t threadId, int32_t line, const std::string& message,
                       bool bypassRateLimit) = 0;
};

using MetricHandler = std::function<void(uint64_t id, const std::string& name, double value)>;

// Creates the singleton on first use and adds a reference for the caller.
RESULT GetLoggerInstance(ILogger** logger);
RESULT ReleaseLoggerInstance();
RESULT LoggerInitialize(ELogGroups groups, uint32_t level);
RESULT LoggerAddCustom(CRefCountPtr<ILogStore>& store);
RESULT LoggerRemoveStore(CRefCountPtr<ILogStore>& store);
// The first handler stays for the life of the process.
bool LoggerInitializeMetricHandler(MetricHandler handler);
void LoggerAddMetric(uint64_t id, const std::string& name, double value);

// One log statement. Made at the site by the VLOG macros, used once, gone.
// A disabled statement formats nothing; Log never throws.
class LogMessage
{
public:
    LogMessage(ELogGroups group, uint32_t level, std::string_view file, int32_t line,
               std::string_view function, bool bypassRateLimit);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void LogV(const char* format, va_list args);
    RESULT LogResult(RESULT result, const char* format, ...) __attribute__((format(printf, 3, 4)));
    RESULT LogResult(RESULT result);

    bool Enabled() const { return m_enabled; }

private:
    void Dispatch(const std::string& message);

    CRefCountPtr<ILogger> m_logger;
    // The site's path and function are string literals that outlive the
    // statement, so they are kept as views and copied only when enabled.
    std::string_view m_file;
    int32_t m_line;
    uint32_t m_level;
    ELogGroups m_group;
    std::string_view m_function;
    bool m_bypassRateLimit;
    bool m_enabled = false;
};

namespace detail {
// "Common/Logger/Src/Logger.cpp" -> "Common/Logger/Src/Logger". The build
// maps the source root away, so __FILE__ is already relative.
constexpr std::string_view SourcePathWithoutExtension(std::string_view path)
{
    const auto slash = path.rfind('/');
    const auto dot = path.rfind('.');
    if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) {
        return path.substr(0, dot);
    }
    return path;
}
} // namespace detail

} // namespace quorvan

#define VELORANE_SOURCE_PATH (::quorvan::detail::SourcePathWithoutExtension(__FILE__))

// A log statement object for this site.
#define VLOG_MESSAGE(group, level, bypass)                                                         \
    ::quorvan::LogMessage((group), (level), VELORANE_SOURCE_PATH, __LINE__, __func__, (bypass))

// Log a printf-style text to a group at level 0. The arguments are evaluated
// only when the statement is enabled.
#define VLOG_LEVEL_BYPASS(group, level, bypass, ...)                                               \
    do {                                                                                           \
        ::quorvan::LogMessage veloraneLogStatement_((group), (level), VELORANE_SOURCE_PATH,        \
                                                    __LINE__, __func__, (bypass));                 \
        if (veloraneLogStatement_.Enabled()) {                                                     \
            veloraneLogStatement_.Log(__VA_ARGS__);                                                \
        }                                                                                          \
    } while (0)
#define VLOG(group, ...) VLOG_LEVEL_BYPASS((group), 0, false, __VA_ARGS__)
// Log at a given level.
#define VLOG_LEVEL(group, level, ...) VLOG_LEVEL_BYPASS((group), (level), false, __VA_ARGS__)
// Log past the rate limiter.
#define VLOG_BYPASS(group, level, ...) VLOG_LEVEL_BYPASS((group), (level), true, __VA_ARGS__)
// Log a result: a failure to Severe, a success to Spew at level 3. Evaluates
// to the result.
#define VLOG_RESULT(group, result, ...)                                                            \
    VLOG_MESSAGE((group), 0, false).LogResult((result), ##__VA_ARGS__)
