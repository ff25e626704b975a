#include "Common/Logger/Linux/Src/LinuxDebugStore.h"

#include "Common/Platform/Src/StringUtil.h"

#include <cstdio>
#include <syslog.h>

namespace quorvan {

int LinuxDebugStore::SyslogPriority(ELogGroups group)
{
    switch (static_cast<int32_t>(group)) {
    case EGroupValueInformation:
        return LOG_NOTICE;
    case EGroupValueWarning:
        return LOG_WARNING;
    case EGroupValueSevere:
        return LOG_ERR;
    default:
        return LOG_DEBUG;
    }
}

std::string LinuxDebugStore::FormatText(ELogGroups group, const std::string& file,
                                        const std::string& function, int32_t line,
                                        const std::string& message)
{
    const std::string& groupName = LogGroupName(group);
    if (file.empty() && function.empty()) {
        return utf8::format("%s %s", groupName.c_str(), message.c_str());
    }
    return utf8::format("%s %s %s %s %d", groupName.c_str(), function.c_str(), message.c_str(),
                        file.c_str(), line);
}

void LinuxDebugStore::OnLog(ELogGroups group, const std::string& file, const std::string& function,
                            int64_t, uint32_t, int32_t line, const std::string& message)
{
    const std::string text = FormatText(group, file, function, line, message);
    // One write a line: two calls would let another thread's line in
    // between the text and its line feed.
    const std::string lineText = text + '\n';
    std::fwrite(lineText.data(), 1, lineText.size(), stdout);
    std::fflush(stdout);
    syslog(SyslogPriority(group), "%s - Velorane Logger", text.c_str());
}

RESULT CreateNativeOsStore(ILogStore** store)
{
    *store = new LinuxDebugStore();
    VLOG_RESULT(EGroupValueSevere, Success);
    return Success;
}

} // namespace quorvan
