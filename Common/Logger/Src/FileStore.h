#pragma once

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Date.h"
#include "Common/Platform/Src/FileUtil.h"
#include "Common/Platform/Src/RefCount.h"
#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/ThreadContext.h"

#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

namespace quorvan {

// The log store that leaves the lasting record: one tab-separated line per
// message in <directory><name>_<year>_<MM>_<DD>_<NN>.log, a new file once
// the current one has grown past maxFileSize, at most 7 such files kept.
//
// Threads: OnLog and Restart may be called on any thread; there they only
// post to m_writer. The writer thread alone touches m_stream, m_fileIndex,
// m_lastFileName and the files after the constructor has returned. The
// writer's queue holds 100 messages; a poster that finds it full blocks.
class FileStore : public ILogStore, public IRefCountImpl
{
public:
    // The local calendar time; the store reads its dates and stamps here.
    using LocalClock = std::function<Date()>;

    // What a log file's name is made of, as the store reads it back.
    struct NameParts
    {
        std::string prefix;
        std::string date;
        int32_t index = 0;
    };

    // Orders files oldest first: by prefix, then date, then index.
    struct FileCompareName
    {
        bool operator()(const FileEntry& a, const FileEntry& b) const;
    };

    FileStore(const std::string& name, const std::string& path, uint64_t maxFileSize);
    // The same with another clock; any thread may call it.
    FileStore(const std::string& name, const std::string& path, uint64_t maxFileSize,
              LocalClock clock);
    ~FileStore() override;
    FileStore(const FileStore&) = delete;
    FileStore& operator=(const FileStore&) = delete;

    void OnLog(ELogGroups group, const std::string& file, const std::string& function,
               int64_t timeMs, uint32_t threadId, int32_t line,
               const std::string& message) override;
    void Restart() override;

    // Returns once everything posted before has been written. Not for the
    // writer thread itself, where it returns at once.
    void Flush();

    // The folder of the files, always ending in a separator.
    const std::string& GetDirectory() const { return m_directory; }

    // The fourth underscore from the end starts date and index; a name with
    // fewer gives empty strings and index 0.
    static NameParts ParseFileName(const std::string& fileName);

private:
    bool IsWriterThread() const;
    bool OpenExistingOrCreateNewFile();
    bool LimitResources();
    void WriteLine(ELogGroups group, const std::string& file, const std::string& function,
                   uint32_t threadId, int32_t line, const std::string& message);
    std::string TodayPrefix() const;

    std::string m_lastFileName;
    CRefCountPtr<ThreadContext> m_writer;
    uint32_t m_fileIndex = 0;
    std::string m_name;
    std::string m_directory;
    uint64_t m_maxFileSize;
    std::ofstream m_stream;
    LocalClock m_clock;
};

// Makes a file store with one reference for the caller, who adds it to the
// logger. Returns 0.
RESULT CreateFileStore(const std::string& name, const std::string& path, uint64_t maxSize,
                       ILogStore** store);
// Makes a file store and hands it to the logger, keeping no reference.
// Returns the result of adding it.
RESULT LoggerCreateFileStore(const std::string& name, const std::string& path, uint64_t maxSize);

} // namespace quorvan
