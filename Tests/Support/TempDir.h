#pragma once

#include <string>

namespace velorane::test {

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it when
// the object goes.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // The folder, without a trailing "/".
    const std::string& Path() const { return m_path; }
    // Path() + "/" + name.
    std::string File(const std::string& name) const;
    // Writes a file under the folder (creating it), returns its path.
    std::string WriteFile(const std::string& name, const std::string& contents) const;

private:
    std::string m_path;
};

// Reads a whole file; empty if it can't be read.
std::string ReadFile(const std::string& path);

} // namespace velorane::test
