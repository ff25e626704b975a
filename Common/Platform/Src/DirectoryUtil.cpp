#include "Common/Platform/Src/DirectoryUtil.h"

#include "Common/Platform/Src/Platform.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace quorvan {

bool DirectoryUtil::DirectoryExists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

bool DirectoryUtil::CreateDirectoryTree(const std::string& path)
{
    std::string tree = path;
    if (!tree.empty() && tree.back() == '/') {
        tree.pop_back();
    }

    // Each prefix ending before a "/", then the whole path. The empty prefix
    // before the "/" of an absolute path fails to be made and does no harm.
    std::string::size_type slash = 0;
    while (true) {
        slash = tree.find('/', slash);
        const std::string prefix = tree.substr(0, slash);
        if (access(prefix.c_str(), R_OK) != 0) {
            if (errno != ENOENT) {
                return false;
            }
            mkdir(prefix.c_str(), 0700);
        }
        if (slash == std::string::npos) {
            break;
        }
        ++slash;
    }
    return DirectoryExists(tree);
}

// The path goes to the shell as it stands.
bool DirectoryUtil::Delete(const std::string& path)
{
    const std::string command = "rm -R " + path;
    return std::system(command.c_str()) == 0;
}

std::string DirectoryUtil::DataDirectory(const std::string& /*organisation*/,
                                         const std::string& application,
                                         const std::string& subfolder, bool create,
                                         bool /*allUsers*/)
{
    std::string directory = platform::UserDataBaseDirectory();
    if (!application.empty()) {
        directory += "/" + application;
    }
    if (!subfolder.empty()) {
        directory += "/" + subfolder;
    }
    if (create) {
        CreateDirectoryTree(directory);
    }
    return directory;
}

bool DirectoryUtil::GetKnownFolder(KnownFolder /*folder*/, std::string& /*path*/)
{
    return false;
}

void DirectoryUtil::CheckForAltUsername(const std::string& /*name*/) {}

} // namespace quorvan
