#pragma once

// Turns repeated time measurements into log lines and metrics. One timer
// belongs to one thread at a time: its counters have no lock.

#include <cstdint>
#include <string>

namespace quorvan {

class LogPerformanceTimer
{
public:
    // name becomes part of a format string: it must not hold a '%'.
    LogPerformanceTimer(std::string name, int32_t logInterval, int32_t metricInterval,
                        bool timestampsEnabled, bool informational);

    // The present time in nanoseconds; the first call fixes the start time.
    int64_t GetStartTime();
    // Ends an interval begun at start (nanoseconds); 0 means none began.
    void LogTime(int64_t start);
    void LogInterval(double milliseconds);

    int32_t Number() const { return m_number; }

private:
    struct Figures
    {
        uint64_t count = 0;
        double sum = 0.0;
        double minimum = -1.0;
        double maximum = -1.0;

        void Add(double ms);
        void Reset() { *this = Figures(); }
    };

    void Write(const std::string& text);

    int64_t m_startTime = 0;
    int32_t m_logInterval;
    int32_t m_number = 0;
    std::string m_name;
    bool m_timestampsEnabled;
    bool m_informational;
    int32_t m_metricInterval;
    Figures m_metric;
    Figures m_log;
};

} // namespace quorvan
