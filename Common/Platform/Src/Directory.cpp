#include "Common/Platform/Src/Directory.h"

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace quorvan {

namespace {

// What an entry is, from the directory listing when the file system says,
// otherwise from the entry itself. Links are taken as themselves and never
// followed, so a walk cannot loop.
unsigned char EntryType(const std::string& path, const dirent& entry)
{
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type;
    }
    struct stat status
    {
    };
    if (lstat(path.c_str(), &status) != 0) {
        return DT_UNKNOWN;
    }
    if (S_ISDIR(status.st_mode)) {
        return DT_DIR;
    }
    if (S_ISREG(status.st_mode)) {
        return DT_REG;
    }
    return DT_UNKNOWN;
}

// Size and time of a file, read from the opened file. False when it can't be
// opened, for example when it went away since the listing.
bool ReadFileEntry(const std::string& path, FileEntry& entry)
{
    // Non-blocking, so that a file replaced by a pipe meanwhile can't hang us.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat status
    {
    };
    const bool ok = fstat(fd, &status) == 0;
    close(fd);
    if (!ok) {
        return false;
    }
    entry.size = static_cast<uint64_t>(status.st_size);
    entry.modified =
        static_cast<int64_t>(status.st_mtim.tv_sec) * 1000 + status.st_mtim.tv_nsec / 1000000;
    return true;
}

} // namespace

Directory::Directory(IFileEntry* sink, std::string folderFilter, std::string fileFilter)
    : m_sink(sink), m_folderFilter(std::move(folderFilter)), m_fileFilter(std::move(fileFilter))
{
}

// The recursion passes the folder listed so far as the new folder and only
// the entry's name as the new subfolder: the folder filter is therefore
// tested against the innermost subfolder alone.
void Directory::ListDirectories(const std::string& folder, const std::string& subfolder,
                                bool recursive)
{
    const std::string directory = folder + subfolder;
    DIR* handle = opendir(directory.c_str());
    if (!handle) {
        return;
    }
    while (const dirent* entry = readdir(handle)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string path = directory + name;
        const unsigned char type = EntryType(path, *entry);
        if (type == DT_DIR && recursive) {
            ListDirectories(directory, name + "/", recursive);
        }
        if (!m_folderFilter.empty() && subfolder.find(m_folderFilter) == std::string::npos) {
            continue;
        }
        if (type != DT_REG) {
            continue;
        }
        if (!m_fileFilter.empty() && name.find(m_fileFilter) == std::string::npos) {
            continue;
        }
        FileEntry file;
        file.name = name;
        file.directory = directory;
        if (!ReadFileEntry(path, file)) {
            continue;
        }
        if (m_sink) {
            m_sink->AddFile(file);
        }
    }
    closedir(handle);
}

} // namespace quorvan
