#include "Common/Logger/Src/Logger.h"

#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/StringUtil.h"
#include "Common/Platform/Src/Time.h"

#include <cinttypes>
#include <cstdio>

namespace quorvan {

LogMessage::LogMessage(ELogGroups group, uint32_t level, std::string_view file, int32_t line,
                       std::string_view function, bool bypassRateLimit)
    : m_file(file), m_line(line), m_level(level), m_group(group), m_function(function),
      m_bypassRateLimit(bypassRateLimit)
{
    GetLoggerInstance(&m_logger);
    bool enabled = false;
    m_logger->IsEnabled(m_group, m_level, &enabled);
    m_enabled = enabled;
}

LogMessage::~LogMessage() = default;

void LogMessage::Dispatch(const std::string& message)
{
    const uint32_t threadId = static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId());
    const int64_t now = LocalTime::Milliseconds();
    m_logger->Log(m_group, std::string(m_file), std::string(m_function), now, threadId, m_line,
                  message, m_bypassRateLimit);
}

void LogMessage::LogV(const char* format, va_list args)
{
    if (!m_enabled) {
        return;
    }
    // A log statement never throws: a failing format, clock or store costs
    // the message, never the caller.
    try {
        va_list copy;
        va_copy(copy, args);
        std::string text;
        try {
            text = utf8::formatV(format, copy);
        } catch (...) {
            va_end(copy);
            throw;
        }
        va_end(copy);
        Dispatch(text);
    } catch (...) {
    }
}

void LogMessage::Log(const char* format, ...)
{
    if (!m_enabled) {
        return;
    }
    va_list args;
    va_start(args, format);
    LogV(format, args);
    va_end(args);
}

namespace {
std::string ResultPrefix(RESULT result)
{
    char hex[16];
    std::snprintf(hex, sizeof(hex), "%x", static_cast<uint32_t>(result));
    return std::string("RETURN Result: 0x") + hex + " - ";
}
} // namespace

RESULT LogMessage::LogResult(RESULT result, const char* format, ...)
{
    // A failure goes to Severe at the site's level, a success to Spew at 3.
    if (result < 0) {
        m_group = EGroupValueSevere;
    } else {
        m_group = EGroupValueSpew;
        m_level = 3;
    }
    bool enabled = false;
    m_logger->IsEnabled(m_group, m_level, &enabled);
    m_enabled = enabled;
    if (!m_enabled) {
        return result;
    }

    va_list args;
    va_start(args, format);
    std::string text = utf8::formatV(format, args);
    va_end(args);

    std::string message = ResultPrefix(result);
    message += text.empty() ? std::string(RESULT_TO_STRING(result)) : text;
    Dispatch(message);
    return result;
}

RESULT LogMessage::LogResult(RESULT result)
{
    if (result < 0) {
        m_group = EGroupValueSevere;
    } else {
        m_group = EGroupValueSpew;
        m_level = 3;
    }
    bool enabled = false;
    m_logger->IsEnabled(m_group, m_level, &enabled);
    m_enabled = enabled;
    if (!m_enabled) {
        return result;
    }

    std::string message = ResultPrefix(result);
    message += RESULT_TO_STRING(result);
    message += ' ';
    Dispatch(message);
    return result;
}

} // namespace quorvan
