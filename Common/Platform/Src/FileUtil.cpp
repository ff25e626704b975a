#include "Common/Platform/Src/FileUtil.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace quorvan {

namespace {

std::string PathOf(const FileEntry& entry)
{
    return entry.directory + entry.name;
}

} // namespace

bool FileUtil::FileExists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

bool FileUtil::Delete(const std::string& path)
{
    return std::remove(path.c_str()) == 0;
}

bool FileUtil::Delete(const FileEntry& entry)
{
    return Delete(PathOf(entry));
}

// The paths go to the shell as they stand; callers pass plain log paths.
bool FileUtil::Copy(const std::string& from, const std::string& to)
{
    const std::string command = "cp " + from + " " + to;
    return std::system(command.c_str()) == 0;
}

bool FileUtil::Copy(const FileEntry& from, const FileEntry& to)
{
    return Copy(PathOf(from), PathOf(to));
}

bool FileUtil::Move(const std::string& from, const std::string& to)
{
    return std::rename(from.c_str(), to.c_str()) == 0;
}

bool FileUtil::Move(const FileEntry& from, const FileEntry& to)
{
    return Move(PathOf(from), PathOf(to));
}

} // namespace quorvan
