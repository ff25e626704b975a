#pragma once

#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Result.h"

#include <cstdint>

namespace quorvan {

// A repeating timer: first fire after initialDelay, then every period, until
// the object is destroyed. OnTimer runs on a timer thread, never on the
// caller's.
class ITimer : public virtual IRefCount
{
public:
    class ITimerCallback
    {
    public:
        virtual void OnTimer() = 0;

    protected:
        virtual ~ITimerCallback() = default;
    };

    ~ITimer() override = default;
    // Results: 0, 0x8000000C when already initialised, 0x80000003 for a null
    // callback, 0x80000000 when the platform timer can't be made.
    virtual RESULT Initialize(int64_t periodMs, ITimerCallback* callback,
                              int64_t initialDelayMs) = 0;
};

} // namespace quorvan
