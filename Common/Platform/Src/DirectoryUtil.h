#pragma once

#include <string>

namespace quorvan {

// Folders a platform may know by role. None is known on Linux.
enum class KnownFolder
{
    Documents,
    Desktop,
    Downloads,
    ApplicationData,
    Temporary,
};

// Folder operations; true means success. Delete goes through the shell
// without quoting. Stateless, so any thread may call; DataDirectory reads the
// environment and must not run while another thread changes it.
struct DirectoryUtil
{
    static bool DirectoryExists(const std::string& path);
    // Makes every missing folder of the path with mode 0700; true when the
    // whole path exists at the end.
    static bool CreateDirectoryTree(const std::string& path);
    static bool Delete(const std::string& path);
    // The user's data folder, then "/" + application and "/" + subfolder for
    // those not empty, with no trailing "/". organisation and allUsers play no
    // part on Linux.
    static std::string DataDirectory(const std::string& organisation,
                                     const std::string& application, const std::string& subfolder,
                                     bool create, bool allUsers);
    // Always false here, leaving path alone.
    static bool GetKnownFolder(KnownFolder folder, std::string& path);
    // Nothing to do on Linux.
    static void CheckForAltUsername(const std::string& name);
};

} // namespace quorvan
