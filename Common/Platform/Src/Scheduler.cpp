#include "Common/Platform/Src/Scheduler.h"

#include <atomic>

namespace quorvan {

namespace {

// The first GetScheduler normally runs during static initialisation, on one
// thread; the pointer is atomic anyway so that a late first call from two
// threads at once still yields one scheduler.
std::atomic<Scheduler*> g_scheduler{nullptr};

} // namespace

Scheduler* GetScheduler()
{
    Scheduler* current = g_scheduler.load(std::memory_order_acquire);
    if (current) {
        return current;
    }
    Scheduler* created = new DefaultScheduler();
    if (g_scheduler.compare_exchange_strong(current, created, std::memory_order_acq_rel,
                                            std::memory_order_acquire)) {
        return created;
    }
    delete created;
    return current;
}

bool SetScheduler(Scheduler* scheduler)
{
    Scheduler* expected = nullptr;
    return g_scheduler.compare_exchange_strong(expected, scheduler, std::memory_order_acq_rel,
                                               std::memory_order_acquire);
}

} // namespace quorvan
