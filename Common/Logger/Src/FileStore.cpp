#include "Common/Logger/Src/FileStore.h"

#include "Common/Logger/Src/FileFinder.h"
#include "Common/Platform/Src/Directory.h"
#include "Common/Platform/Src/Scheduler.h"
#include "Common/Platform/Src/StringUtil.h"
#include "Common/Platform/Src/Time.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

namespace quorvan {

namespace {

// The writer keeps up to this many messages; a poster that finds them all
// there waits, without limit, for the writer to finish one.
constexpr uint32_t kWriterMaxQueued = 100;
constexpr int32_t kWriterFullTimeout = -1;
constexpr int kOpenAttempts = 5;
constexpr size_t kFilesKept = 7;

// A stream in a failed state has no position; it counts as the largest one,
// so that it is always over the limit and gets replaced.
uint64_t WritePosition(std::ofstream& stream)
{
    if (stream.fail()) {
        return UINT64_MAX;
    }
    return static_cast<uint64_t>(static_cast<int64_t>(stream.tellp()));
}

// The index field is read as a decimal from its start, like atoi, but
// clamped instead of overflowing.
int32_t ParseIndex(const char* text)
{
    const long value = std::strtol(text, nullptr, 10);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    if (value < INT32_MIN) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(value);
}

std::vector<FileEntry> ListLogFiles(const std::string& directory)
{
    FileFinder<FileStore::FileCompareName> finder;
    Directory(&finder, "", ".log").ListDirectories(directory, "", false);
    return std::vector<FileEntry>(finder.GetFiles().begin(), finder.GetFiles().end());
}

bool StartsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

FileStore::FileStore(const std::string& name, const std::string& path, uint64_t maxFileSize)
    : FileStore(name, path, maxFileSize, [] { return LocalTime::Now(); })
{
}

FileStore::FileStore(const std::string& name, const std::string& path, uint64_t maxFileSize,
                     LocalClock clock)
    : m_name(name), m_directory(path), m_maxFileSize(maxFileSize), m_clock(std::move(clock))
{
    if (m_directory.empty() || (m_directory.back() != '/' && m_directory.back() != '\\')) {
        m_directory += '/';
    }

    // A restart on the same day goes on in the newest file of the day.
    const std::string prefix = TodayPrefix();
    for (const FileEntry& entry : ListLogFiles(m_directory)) {
        if (!StartsWith(entry.name, prefix)) {
            continue;
        }
        const int32_t index = ParseFileName(entry.name).index;
        if (index > 0 && static_cast<uint32_t>(index) > m_fileIndex) {
            m_fileIndex = static_cast<uint32_t>(index);
        }
    }

    m_writer = CRefCountPtr<ThreadContext>(new ThreadContext(kWriterMaxQueued, kWriterFullTimeout));
}

FileStore::~FileStore()
{
    // The writer's closures use this object: stop it before any member goes.
    m_writer.Reset();
}

bool FileStore::IsWriterThread() const
{
    return static_cast<uint32_t>(GetScheduler()->GetCurrentThreadId()) == m_writer->GetThreadId();
}

std::string FileStore::TodayPrefix() const
{
    const Date today = m_clock();
    return utf8::format("%s_%d_%02d_%02d", m_name.c_str(), today.year, today.month, today.day);
}

void FileStore::OnLog(ELogGroups group, const std::string& file, const std::string& function,
                      int64_t timeMs, uint32_t threadId, int32_t line, const std::string& message)
{
    if (!IsWriterThread()) {
        // The copy is all the logging thread pays for; the writer does the rest.
        auto writeLater = [this, group, file, function, timeMs, threadId, line, message] {
            OnLog(group, file, function, timeMs, threadId, line, message);
        };
        m_writer->Post(std::move(writeLater), nullptr);
        return;
    }

    // The limit is tested before writing, so a file may pass it by one line.
    if (m_stream.is_open() && WritePosition(m_stream) > m_maxFileSize) {
        m_stream.close();
        ++m_fileIndex;
        OpenExistingOrCreateNewFile();
        LimitResources();
    }
    if (!m_stream.is_open()) {
        OpenExistingOrCreateNewFile();
        LimitResources();
    }
    if (!m_stream.is_open()) {
        // Nowhere to write: the message is lost, and nobody is told.
        return;
    }
    WriteLine(group, file, function, threadId, line, message);
}

void FileStore::WriteLine(ELogGroups group, const std::string& file, const std::string& function,
                          uint32_t threadId, int32_t line, const std::string& message)
{
    // Stamped when written, not when logged.
    const Date now = m_clock();
    const std::string stamp =
        utf8::format("%02d/%02d/%04d %02d:%02d:%02d.%03d", now.month, now.day, now.year, now.hour,
                     now.minute, now.second, now.millisecond);
    std::string text = utf8::format("%s\t%d\t", stamp.c_str(), static_cast<int32_t>(threadId));
    const std::string& groupName = LogGroupName(group);
    if (function.empty() && file.empty()) {
        text += utf8::format("%s\t%s\n", groupName.c_str(), message.c_str());
    } else {
        text += utf8::format("%s\t%s\t%s\t%s\t%d\n", groupName.c_str(), function.c_str(),
                             message.c_str(), file.c_str(), line);
    }
    m_stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    m_stream.flush();
}

void FileStore::Restart()
{
    if (!IsWriterThread()) {
        m_writer->Post([this] { Restart(); }, nullptr);
        return;
    }
    // The next message opens the file again, under today's date.
    m_stream.close();
}

void FileStore::Flush()
{
    if (IsWriterThread()) {
        return;
    }
    std::unique_ptr<Scheduler::Event> written(GetScheduler()->CreateEvent(false, false));
    m_writer->Post([] {}, written.get());
}

bool FileStore::OpenExistingOrCreateNewFile()
{
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        const Date today = m_clock();
        const std::string path =
            utf8::format("%s%s_%d_%02d_%02d_%02d.log", m_directory.c_str(), m_name.c_str(),
                         today.year, today.month, today.day, static_cast<int>(m_fileIndex));
        // A stream still open here is not trusted: it goes the failure way.
        if (m_stream.is_open()) {
            m_stream.setstate(std::ios::failbit);
        } else {
            m_stream.open(path, std::ios::out | std::ios::app | std::ios::binary);
        }
        if (m_stream.is_open() && WritePosition(m_stream) <= m_maxFileSize) {
            return true;
        }
        if (m_stream.is_open()) {
            m_stream.close();
        }
        ++m_fileIndex;
        m_lastFileName = path;
    }
    return true;
}

bool FileStore::LimitResources()
{
    std::vector<FileEntry> ours;
    for (FileEntry& entry : ListLogFiles(m_directory)) {
        if (StartsWith(entry.name, m_name)) {
            ours.push_back(std::move(entry));
        }
    }
    if (ours.size() <= kFilesKept) {
        return true;
    }

    // Oldest first: the newest 7 stay.
    const size_t excess = ours.size() - kFilesKept;
    for (size_t i = 0; i < excess; ++i) {
        FileUtil::Delete(ours[i]);
    }

    // A file dated after today, left by a clock that was set back, goes too.
    const Date today = m_clock();
    const std::string todayDate = utf8::format("%d_%02d_%02d", today.year, today.month, today.day);
    for (size_t i = excess; i < ours.size(); ++i) {
        if (todayDate < ParseFileName(ours[i].name).date) {
            FileUtil::Delete(ours[i]);
        }
    }
    return true;
}

FileStore::NameParts FileStore::ParseFileName(const std::string& fileName)
{
    NameParts parts;
    size_t underscore = fileName.size();
    for (int found = 0; found < 4; ++found) {
        if (underscore == 0) {
            return parts;
        }
        underscore = fileName.rfind('_', underscore - 1);
        if (underscore == std::string::npos) {
            return parts;
        }
    }
    // The name itself may hold underscores; date and index never do.
    parts.prefix = fileName.substr(0, underscore);
    const std::string rest = fileName.substr(underscore + 1);
    const size_t last = rest.rfind('_');
    parts.date = rest.substr(0, last);
    parts.index = ParseIndex(rest.c_str() + last + 1);
    return parts;
}

bool FileStore::FileCompareName::operator()(const FileEntry& a, const FileEntry& b) const
{
    const NameParts left = ParseFileName(a.name);
    const NameParts right = ParseFileName(b.name);
    if (left.prefix != right.prefix) {
        return left.prefix < right.prefix;
    }
    if (left.date != right.date) {
        return left.date < right.date;
    }
    return left.index < right.index;
}

RESULT CreateFileStore(const std::string& name, const std::string& path, uint64_t maxSize,
                       ILogStore** store)
{
    if (!store) {
        return VLOG_RESULT(EGroupValueSevere, ResultInvalidPointer);
    }
    *store = new FileStore(name, path, maxSize);
    return VLOG_RESULT(EGroupValueSevere, Success);
}

RESULT LoggerCreateFileStore(const std::string& name, const std::string& path, uint64_t maxSize)
{
    CRefCountPtr<ILogStore> store(new FileStore(name, path, maxSize));
    const RESULT result = LoggerAddCustom(store);
    // The logger holds its own reference now.
    store.Reset();
    return VLOG_RESULT(EGroupValueSevere, result);
}

} // namespace quorvan
