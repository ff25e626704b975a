#pragma once

// The tunnel file on Linux: /var/tmp/relaycam.ini, rewritten at each
// connection with the relay's three lines first and every foreign line
// after them, in their old order.
//
// /var/tmp is shared by every user and the file holds the password in clear
// text, so the file is made afresh with mode 0600 and O_EXCL, and nothing at
// the path is ever followed: a symbolic link, a directory or anything else
// that isn't a plain file is left alone like a file that can't be removed.
//
// Threads: the main thread.

#include "Clients/Conference/ConferenceTunnelManager.h"

#include <string>

namespace quorvan::velorane::relay {

// Where the tunnel component looks. Fixed at build time.
constexpr const char* kConferenceTunnelFilePath = "/var/tmp/relaycam.ini";

class LinuxConferenceTunnelManager : public ConferenceTunnelManager
{
    Q_OBJECT

public:
    LinuxConferenceTunnelManager(const ConferenceTunnelConfig& config, QObject* parent);
    // For tests: the same manager writing another path.
    LinuxConferenceTunnelManager(const ConferenceTunnelConfig& config, QObject* parent,
                                 std::string path);

    const std::string& Path() const { return m_path; }

public Q_SLOTS:
    // Writes the file. Always 0: the one failure worth a line is a file
    // that can't be removed, and that is logged.
    RESULT Connect() override;
    // Leaves the file, password included, for the tunnel component.
    RESULT Disconnect() override;

private:
    std::string m_path;
};

} // namespace quorvan::velorane::relay
