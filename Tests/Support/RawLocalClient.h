#pragma once

// A client on a plain POSIX local socket, so that a test can speak to a Qt
// server without Qt's socket code on its own side. Header only: the support
// library itself has no Qt.

#include <QByteArray>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace velorane::test {

class RawLocalClient
{
public:
    explicit RawLocalClient(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof(address.sun_path)) {
            return;
        }
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd >= 0 &&
            ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    ~RawLocalClient() { Close(); }
    RawLocalClient(const RawLocalClient&) = delete;
    RawLocalClient& operator=(const RawLocalClient&) = delete;

    bool Connected() const { return m_fd >= 0; }
    void Close()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    bool Write(const QByteArray& bytes)
    {
        return m_fd >= 0 && ::send(m_fd, bytes.constData(), static_cast<size_t>(bytes.size()),
                                   MSG_NOSIGNAL) == bytes.size();
    }
    // Whatever arrives within the time, without waiting once count bytes
    // are in.
    QByteArray Read(size_t count, std::chrono::milliseconds timeout)
    {
        QByteArray received;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (m_fd >= 0 && static_cast<size_t>(received.size()) < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() < 0) {
                break;
            }
            // Qt's side needs its events to write: the caller's thread must
            // not be the server's.
            pollfd fds{m_fd, POLLIN, 0};
            if (::poll(&fds, 1, static_cast<int>(left.count())) <= 0) {
                break;
            }
            char chunk[4096];
            const ssize_t got = ::recv(m_fd, chunk, sizeof(chunk), 0);
            if (got <= 0) {
                break;
            }
            received.append(chunk, static_cast<int>(got));
        }
        return received;
    }
    // Whatever is there now, without waiting.
    QByteArray ReadAvailable() { return Read(SIZE_MAX, std::chrono::milliseconds(0)); }

private:
    int m_fd = -1;
};

} // namespace velorane::test
