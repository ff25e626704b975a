#pragma once

#include "Common/Platform/Src/FileUtil.h"

#include <set>

namespace quorvan {

// Collects what a folder walk reports, kept sorted by Compare; equal keys
// are all kept. Used on one thread at a time.
template <typename Compare> class FileFinder : public IFileEntry
{
public:
    using Files = std::multiset<FileEntry, Compare>;

    void AddFile(const FileEntry& entry) override { m_files.insert(entry); }

    const Files& GetFiles() const { return m_files; }

private:
    Files m_files;
};

} // namespace quorvan
