#pragma once

// The store for people watching a run: each message on standard output and
// in the system log. Runs on the logging thread; no state of its own.

#include "Common/Logger/Src/Logger.h"

namespace quorvan {

class LinuxDebugStore : public virtual ILogStore, public IRefCountImpl
{
public:
    void OnLog(ELogGroups group, const std::string& file, const std::string& function,
               int64_t timeMs, uint32_t threadId, int32_t line,
               const std::string& message) override;
    void Restart() override {}

    // The syslog priority of a group: Information 5, Warning 4, Severe 3,
    // anything else 7.
    static int SyslogPriority(ELogGroups group);
    // The text both outputs carry.
    static std::string FormatText(ELogGroups group, const std::string& file,
                                  const std::string& function, int32_t line,
                                  const std::string& message);
};

// Makes the native store with one reference for the caller. Returns 0.
RESULT CreateNativeOsStore(ILogStore** store);

} // namespace quorvan
