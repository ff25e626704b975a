#include "Common/Platform/Src/Platform.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace quorvan::platform {

namespace {

std::string Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

// The home folder from the password database, for a process started
// without HOME.
std::string PasswordHome()
{
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
        !found->pw_dir) {
        return std::string();
    }
    return found->pw_dir;
}

} // namespace

std::string UserDataBaseDirectory()
{
    std::string base = Environment("XDG_DATA_HOME");
    // The XDG rules take only an absolute path; a relative one is ignored
    // like an empty one.
    if (base.empty() || base.front() != '/') {
        std::string home = Environment("HOME");
        if (home.empty()) {
            home = PasswordHome();
        }
        while (home.size() > 1 && home.back() == '/') {
            home.pop_back();
        }
        base = (home == "/" ? std::string() : home) + "/.local/share";
    }
    // Callers append "/" + name, and the bare folder is returned as it is.
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    return base;
}

} // namespace quorvan::platform
