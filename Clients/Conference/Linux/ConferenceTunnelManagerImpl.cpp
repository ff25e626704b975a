#include "Clients/Conference/Linux/ConferenceTunnelManagerImpl.h"

#include "Common/Logger/Src/Logger.h"

#include <QString>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>
#include <vector>

namespace quorvan::velorane::relay {

namespace {

// The keys the relay counts as its own. A line holding any of them anywhere
// is dropped at the merge, so MyPassword=1 or NoSSL=0 go as well.
const char* const kOwnKeys[] = {"KyrIP=", "Password=", "SSL=", "ForceSoftDecoder="};

bool IsOwnLine(const std::string& line)
{
    for (const char* key : kOwnKeys) {
        if (line.find(key) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> RelayLines(const ConferenceTunnelConfig& config)
{
    // Both values in one pass: a chained arg() would take a "%0" or "%1"
    // inside the address for the port's place marker.
    return {
        QStringLiteral("KyrIP=%1:%2")
            .arg(QString::fromStdString(config.kyrIp), QString::number(config.port, 10))
            .toStdString(),
        QStringLiteral("Password=%1").arg(QString::fromStdString(config.password)).toStdString(),
        "ForceSoftDecoder=1"};
}

// The file's lines as a line-by-line read gives them: a last line without
// a line feed counts, a final line feed doesn't start another line. Empty
// when the file can't be opened.
std::vector<std::string> ReadLines(const std::string& path)
{
    std::vector<std::string> lines;
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return lines;
    }
    std::string content;
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        content.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);

    size_t start = 0;
    while (start < content.size()) {
        const size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(content.substr(start));
            break;
        }
        lines.push_back(content.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// Makes the file afresh, for this user alone, each line with its line
// feed. Silent when it can't: someone else's file in the way stays theirs.
void WriteNewFile(const std::string& path, const std::vector<std::string>& lines)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    std::string content;
    for (const std::string& line : lines) {
        content += line;
        content += '\n';
    }
    size_t written = 0;
    while (written < content.size()) {
        const ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
    }
    ::close(fd);
}

} // namespace

LinuxConferenceTunnelManager::LinuxConferenceTunnelManager(const ConferenceTunnelConfig& config,
                                                           QObject* parent)
    : LinuxConferenceTunnelManager(config, parent, kConferenceTunnelFilePath)
{
}

LinuxConferenceTunnelManager::LinuxConferenceTunnelManager(const ConferenceTunnelConfig& config,
                                                           QObject* parent, std::string path)
    : ConferenceTunnelManager(config, parent), m_path(std::move(path))
{
}

RESULT LinuxConferenceTunnelManager::Connect()
{
    std::vector<std::string> lines = RelayLines(m_config);

    struct stat status;
    if (::lstat(m_path.c_str(), &status) != 0) {
        WriteNewFile(m_path, lines);
        return Success;
    }

    // Only a plain file is read and replaced; whatever else stands at the
    // path (a link another user placed, a directory) is never followed.
    if (!S_ISREG(status.st_mode)) {
        VLOG(EGroupValueWarning, "Couldn't remove the file");
        return Success;
    }

    for (std::string& line : ReadLines(m_path)) {
        if (!IsOwnLine(line)) {
            lines.push_back(std::move(line));
        }
    }

    if (::unlink(m_path.c_str()) != 0) {
        VLOG(EGroupValueWarning, "Couldn't remove the file");
        return Success;
    }
    WriteNewFile(m_path, lines);
    return Success;
}

RESULT LinuxConferenceTunnelManager::Disconnect()
{
    return Success;
}

} // namespace quorvan::velorane::relay
