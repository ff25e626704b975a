#pragma once

// A log store for tests: records every message with its group, function,
// file and line, so a test can assert exactly what a class logged. Any
// thread may log into it; the lock guards the recorded lines.

#include "Common/Logger/Src/Logger.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace velorane::test {

struct CapturedLine
{
    quorvan::ELogGroups group;
    std::string file;
    std::string function;
    int64_t timeMs;
    uint32_t threadId;
    int32_t line;
    std::string message;
};

class CapturingLogStore : public virtual quorvan::ILogStore, public quorvan::IRefCountImpl
{
public:
    void OnLog(quorvan::ELogGroups group, const std::string& file, const std::string& function,
               int64_t timeMs, uint32_t threadId, int32_t line,
               const std::string& message) override;
    void Restart() override;

    std::vector<CapturedLine> Lines() const;
    std::vector<std::string> Messages() const;
    // Lines whose message equals text exactly.
    size_t Count(const std::string& text) const;
    bool Contains(quorvan::ELogGroups group, const std::string& text) const;
    // Waits until a line with this exact text has arrived.
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout) const;
    int Restarts() const;
    void Clear();

private:
    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    std::vector<CapturedLine> m_lines;
    int m_restarts = 0;
};

// Adds a CapturingLogStore to the process's logger for the life of the
// object, and takes it out again.
class ScopedLogCapture
{
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    CapturingLogStore& Store() { return *m_capturing; }
    CapturingLogStore* operator->() { return m_capturing; }

private:
    CapturingLogStore* m_capturing;
    quorvan::CRefCountPtr<quorvan::ILogStore> m_store;
};

} // namespace velorane::test
