#include "Tests/Support/ScopedEnv.h"

#include <cstdlib>

namespace velorane::test {

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : m_name(std::move(name))
{
    if (const char* old = std::getenv(m_name.c_str())) {
        m_old = old;
    }
    if (value) {
        setenv(m_name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

ScopedEnv::~ScopedEnv()
{
    if (m_old) {
        setenv(m_name.c_str(), m_old->c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

} // namespace velorane::test
