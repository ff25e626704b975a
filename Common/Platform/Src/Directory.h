#pragma once

#include "Common/Platform/Src/FileUtil.h"

#include <string>

namespace quorvan {

// Walks a folder and reports what it finds.
class BaseDirectory
{
public:
    // Looks at folder + subfolder; both are concatenated as they stand, so a
    // folder is expected to end in "/".
    virtual void ListDirectories(const std::string& folder, const std::string& subfolder,
                                 bool recursive) = 0;
    virtual ~BaseDirectory() = default;
};

// Reports the regular files of a folder to a sink. A non-empty folder filter
// must occur in the subfolder being listed, a non-empty file filter anywhere
// in the file's name (a substring, not an ending). Used on one thread at a
// time.
class Directory : public BaseDirectory
{
public:
    Directory(IFileEntry* sink, std::string folderFilter, std::string fileFilter);

    void ListDirectories(const std::string& folder, const std::string& subfolder,
                         bool recursive) override;

private:
    // Not owned; may be null, then nothing is reported.
    IFileEntry* m_sink;
    std::string m_folderFilter;
    std::string m_fileFilter;
};

} // namespace quorvan
