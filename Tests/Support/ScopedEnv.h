#pragma once

#include <optional>
#include <string>

namespace velorane::test {

// Sets (or with nullopt unsets) an environment variable for the life of the
// object and puts the old value back afterwards. Tests are single-threaded
// when they touch the environment.
class ScopedEnv
{
public:
    ScopedEnv(std::string name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

} // namespace velorane::test
