#include "Common/Platform/Linux/Src/LocalSocketPath.h"

#include <cstdlib>

namespace quorvan::platform {

namespace {

std::string Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

std::string WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

} // namespace

std::string LocalSocketDirectory()
{
    // A relative runtime folder is invalid by the base-directory rules and
    // is passed over like an empty one.
    const std::string runtime = Environment("XDG_RUNTIME_DIR");
    if (!runtime.empty() && runtime.front() == '/') {
        return WithoutTrailingSlashes(runtime);
    }
    const std::string temporary = Environment("TMPDIR");
    if (!temporary.empty()) {
        return WithoutTrailingSlashes(temporary);
    }
    return "/tmp";
}

std::string LocalSocketPath(const std::string& name)
{
    if (!name.empty() && name.front() == '/') {
        return name;
    }
    const std::string directory = LocalSocketDirectory();
    return directory == "/" ? "/" + name : directory + "/" + name;
}

} // namespace quorvan::platform
