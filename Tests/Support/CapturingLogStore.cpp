#include "Tests/Support/CapturingLogStore.h"

#include <algorithm>

namespace velorane::test {

using quorvan::ELogGroups;

void CapturingLogStore::OnLog(ELogGroups group, const std::string& file,
                              const std::string& function, int64_t timeMs, uint32_t threadId,
                              int32_t line, const std::string& message)
{
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_lines.push_back(CapturedLine{group, file, function, timeMs, threadId, line, message});
    }
    m_changed.notify_all();
}

void CapturingLogStore::Restart()
{
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_restarts;
}

std::vector<CapturedLine> CapturingLogStore::Lines() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_lines;
}

std::vector<std::string> CapturingLogStore::Messages() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    std::vector<std::string> messages;
    messages.reserve(m_lines.size());
    for (const auto& line : m_lines) {
        messages.push_back(line.message);
    }
    return messages;
}

size_t CapturingLogStore::Count(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return static_cast<size_t>(std::count_if(
        m_lines.begin(), m_lines.end(), [&](const CapturedLine& l) { return l.message == text; }));
}

bool CapturingLogStore::Contains(ELogGroups group, const std::string& text) const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return std::any_of(m_lines.begin(), m_lines.end(), [&](const CapturedLine& l) {
        return l.group == group && l.message == text;
    });
}

bool CapturingLogStore::WaitFor(const std::string& text, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, timeout, [&] {
        return std::any_of(m_lines.begin(), m_lines.end(),
                           [&](const CapturedLine& l) { return l.message == text; });
    });
}

int CapturingLogStore::Restarts() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_restarts;
}

void CapturingLogStore::Clear()
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_lines.clear();
}

ScopedLogCapture::ScopedLogCapture() : m_capturing(new CapturingLogStore()), m_store(m_capturing)
{
    quorvan::LoggerAddCustom(m_store);
}

ScopedLogCapture::~ScopedLogCapture()
{
    quorvan::LoggerRemoveStore(m_store);
}

} // namespace velorane::test
