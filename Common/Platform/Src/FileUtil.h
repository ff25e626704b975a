#pragma once

#include <cstdint>
#include <string>

namespace quorvan {

// One file as a folder walk reports it.
struct FileEntry
{
    // The file name, without a folder.
    std::string name;
    // The folder, ending in "/" when the walk was given one that does.
    std::string directory;
    // Bytes.
    uint64_t size = 0;
    // Last modification, milliseconds since the epoch.
    int64_t modified = 0;
};

// Receives the files a folder walk finds.
class IFileEntry
{
public:
    virtual void AddFile(const FileEntry& entry) = 0;
    virtual ~IFileEntry() = default;
};

// File operations; true means success. Stateless: any thread may call. Copy goes through the shell
// without quoting, so a path with a blank or a shell character in it does not copy.
struct FileUtil
{
    static bool FileExists(const std::string& path);
    static bool Delete(const std::string& path);
    static bool Delete(const FileEntry& entry);
    static bool Copy(const std::string& from, const std::string& to);
    static bool Copy(const FileEntry& from, const FileEntry& to);
    static bool Move(const std::string& from, const std::string& to);
    static bool Move(const FileEntry& from, const FileEntry& to);
};

} // namespace quorvan
