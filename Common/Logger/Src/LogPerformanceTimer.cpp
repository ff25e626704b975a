#include "Common/Logger/Src/LogPerformanceTimer.h"

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Platform.h"

#include <cstdint>
#include <cstdio>

namespace quorvan {

LogPerformanceTimer::LogPerformanceTimer(std::string name, int32_t logInterval,
                                         int32_t metricInterval, bool timestampsEnabled,
                                         bool informational)
    : m_logInterval(logInterval), m_name(std::move(name)), m_timestampsEnabled(timestampsEnabled),
      m_informational(informational), m_metricInterval(metricInterval)
{
}

void LogPerformanceTimer::Figures::Add(double ms)
{
    ++count;
    sum += ms;
    if (minimum < 0.0 || minimum > ms) {
        minimum = ms;
    }
    if (ms > maximum) {
        maximum = ms;
    }
}

// A timer in a tight loop must never be suspended, so its lines pass the
// rate limiter.
void LogPerformanceTimer::Write(const std::string& text)
{
    const ELogGroups group = m_informational ? EGroupValueInformation : EGroupValueSpew;
    const uint32_t level = m_informational ? 0 : 1;
    VLOG_BYPASS(group, level, "%s", text.c_str());
}

int64_t LogPerformanceTimer::GetStartTime()
{
    const int64_t now = platform::MonotonicNanoseconds();
    if (m_startTime == 0) {
        m_startTime = now;
    }
    if (m_timestampsEnabled && now > m_startTime) {
        const int32_t elapsed = static_cast<int32_t>(static_cast<uint32_t>(now - m_startTime));
        char tail[96];
        std::snprintf(tail, sizeof(tail), " START TIMESTAMP - Number %d - Time %d ", m_number,
                      elapsed);
        Write(m_name + tail);
    }
    return now;
}

void LogPerformanceTimer::LogTime(int64_t start)
{
    if (start == 0) {
        return;
    }
    const int64_t now = platform::MonotonicNanoseconds();
    if (m_timestampsEnabled) {
        const int32_t elapsed = static_cast<int32_t>(static_cast<uint32_t>(now - m_startTime));
        char tail[96];
        std::snprintf(tail, sizeof(tail), " END   TIMESTAMP - Number %d - Time %d ", m_number,
                      elapsed);
        Write(m_name + tail);
    }
    LogInterval(static_cast<double>(now - start) / 1000000.0);
}

void LogPerformanceTimer::LogInterval(double milliseconds)
{
    m_metric.Add(milliseconds);
    if (m_metricInterval != 0 && m_metric.count >= static_cast<uint64_t>(m_metricInterval)) {
        const uint64_t id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(this));
        LoggerAddMetric(id, m_name + ": average (ms)",
                        m_metric.sum / static_cast<double>(m_metric.count));
        LoggerAddMetric(id, m_name + ": minimum (ms)", m_metric.minimum);
        LoggerAddMetric(id, m_name + ": maximum (ms)", m_metric.maximum);
        m_metric.Reset();
    }

    m_log.Add(milliseconds);
    if (m_logInterval != 0 && m_log.count >= static_cast<uint64_t>(m_logInterval)) {
        const ELogGroups group = m_informational ? EGroupValueInformation : EGroupValueSpew;
        const uint32_t level = m_informational ? 0 : 1;
        VLOG_BYPASS(group, level, "%s %.2f (ms) AVG - %.2f (ms) MIN - %.2f (ms) MAX",
                    m_name.c_str(), m_log.sum / static_cast<double>(m_log.count), m_log.minimum,
                    m_log.maximum);
        m_log.Reset();
    }
    ++m_number;
}

} // namespace quorvan
