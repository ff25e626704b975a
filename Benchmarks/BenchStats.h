#pragma once

// Small measuring helpers the benchmarks share: CPU clocks of this process
// and its threads, and quantiles of a sample.
//
// Threads: free functions; each reads only what it is given or the calling
// thread's own clock.

#include <algorithm>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

namespace velorane::bench {

inline double CpuSeconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// CPU time of the calling thread, in seconds.
inline double OwnCpuSeconds()
{
    return CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
}

// CPU time of the whole process, in seconds.
inline double ProcessCpuSeconds()
{
    return CpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
}

// CPU time of one thread of this process, in seconds; 0 for an unknown one.
inline double ThreadCpuSeconds(long tid)
{
    if (tid == 0) {
        return 0;
    }
    std::ifstream schedstat("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    double nanoseconds = 0;
    schedstat >> nanoseconds;
    return nanoseconds * 1e-9;
}

// The q-quantile (0 to 1) of a sample, interpolated between neighbours; 0
// for an empty one.
inline double Quantile(std::vector<double> values, double q)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const double position = q * static_cast<double>(values.size() - 1);
    const auto below = static_cast<size_t>(position);
    const size_t above = std::min(below + 1, values.size() - 1);
    const double weight = position - static_cast<double>(below);
    return values[below] * (1 - weight) + values[above] * weight;
}

} // namespace velorane::bench
