#include "Tests/Support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace velorane::test {

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/velorane-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    m_path = buffer.data();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::File(const std::string& name) const
{
    return m_path + "/" + name;
}

std::string TempDir::WriteFile(const std::string& name, const std::string& contents) const
{
    const std::string path = File(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    return path;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

} // namespace velorane::test
