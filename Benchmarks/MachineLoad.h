#pragma once

// How busy the machine was while a benchmark ran, apart from the benchmark:
// the CPU time all processors spent on anything but idling (from
// /proc/stat), less this process's own CPU time, as a share of one
// processor. A figure taken while other programs ran is marked as such.
//
// Threads: an object belongs to one thread at a time.

#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

namespace velorane::bench {

class MachineLoad
{
public:
    MachineLoad() { Restart(); }

    void Restart()
    {
        m_busyStart = BusySeconds();
        m_ownStart = OwnSeconds();
        m_wallStart = WallSeconds();
    }

    // Processors' worth of CPU that other programs took since Restart
    // (0.5: half a processor on average).
    double Others() const
    {
        const double wall = WallSeconds() - m_wallStart;
        if (wall <= 0) {
            return 0;
        }
        const double others = (BusySeconds() - m_busyStart) - (OwnSeconds() - m_ownStart);
        return others > 0 ? others / wall : 0;
    }

private:
    // All processors together, everything but idle and I/O wait.
    static double BusySeconds()
    {
        std::ifstream stat("/proc/stat");
        std::string line;
        std::getline(stat, line);
        std::istringstream fields(line);
        std::string name;
        long long user = 0, nice = 0, system = 0, idle = 0, wait = 0, irq = 0, softirq = 0,
                  steal = 0;
        fields >> name >> user >> nice >> system >> idle >> wait >> irq >> softirq >> steal;
        return static_cast<double>(user + nice + system + irq + softirq + steal) /
               static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    static double OwnSeconds()
    {
        timespec now{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }
    static double WallSeconds()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }

    double m_busyStart = 0;
    double m_ownStart = 0;
    double m_wallStart = 0;
};

} // namespace velorane::bench
