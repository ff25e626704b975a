#pragma once

// Holds descriptors on /dev/null until the process can open no more (with
// the soft limit lowered to limit), or until one lands at stopAt; gives them
// back and restores the limit when it ends. What a process meets when its
// descriptors run out.
//
// Threads: the thread that makes it; other threads of the process find no
// descriptor while it holds them.

#include <sys/resource.h>

#include <vector>

namespace velorane::test {

class HeldDescriptors
{
public:
    HeldDescriptors(rlim_t limit, int stopAt);
    ~HeldDescriptors();
    HeldDescriptors(const HeldDescriptors&) = delete;
    HeldDescriptors& operator=(const HeldDescriptors&) = delete;

    void Release();

private:
    rlimit m_saved{};
    std::vector<int> m_held;
};

} // namespace velorane::test
