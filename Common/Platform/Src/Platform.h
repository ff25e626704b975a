#pragma once

// What the common layer needs from the operating system. The Linux provider
// lives in Common/Platform/Linux/Src; nothing else in the common code makes
// platform calls.

#include "Common/Platform/Src/Date.h"
#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/Scheduler.h"

#include <cstdint>
#include <string>

namespace quorvan {
class ITimer;
class UUID;

namespace platform {

// Wall-clock milliseconds since the epoch (seconds * 1000.0 + microseconds /
// 1000.0 + 0.5, truncated).
int64_t UTCMilliseconds();
// The same number: the local-time path cancels out.
int64_t LocalMilliseconds();
// A monotonic clock in milliseconds.
int64_t MonotonicMilliseconds();
// A monotonic clock in nanoseconds.
int64_t MonotonicNanoseconds();
Date UTCNow();
Date LocalNow();
Date UTCToDate(int64_t milliseconds);
Date LocalToDate(int64_t milliseconds);

// No meaning on this platform; always 0.
unsigned long GetTickCount();
// A placeholder: this layer installs no signal handler.
void InstallSignalHandlers();

// Makes a TimerImpl with one reference for the caller; returns 0.
RESULT CreateTimerInstance(ITimer*& timer);

// The folder under which applications keep the user's data:
// $XDG_DATA_HOME, or $HOME/.local/share when that is unset or empty. No
// trailing "/".
std::string UserDataBaseDirectory();

// The platform's thread, lock and event objects, as the Scheduler hands
// them out; each returns a new object owned by the caller.
Scheduler::Thread* NewThread(Scheduler::Runnable* runnable, long priority, bool autoDelete);
Scheduler::Mutex* NewMutex();
Scheduler::FastMutex* NewFastMutex();
Scheduler::Event* NewEvent(bool manualReset, bool initiallySignalled);
// pthread_self(); callers narrow it to 32 bits.
unsigned long CurrentThreadId();
std::string StackTrace(unsigned threadId);

// RFC 4122 version 4 from the kernel's random source.
UUID GenerateUuid();

} // namespace platform
} // namespace quorvan
