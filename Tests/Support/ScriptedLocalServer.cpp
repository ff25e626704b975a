#include "Tests/Support/ScriptedLocalServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace velorane::test {

namespace {
constexpr int kPollMs = 20;

uint32_t ReadBigEndian32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
} // namespace

void AppendBigEndian32(Bytes& bytes, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

void AppendBigEndian16(Bytes& bytes, uint16_t value)
{
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    bytes.push_back(static_cast<uint8_t>(value));
}

ScriptedLocalServer::ScriptedLocalServer(std::string path, Responder responder)
    : m_path(std::move(path)), m_responder(std::move(responder))
{
    ::unlink(m_path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path) || ::pipe(m_wakeFds) != 0) {
        return;
    }
    std::memcpy(address.sun_path, m_path.c_str(), m_path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 8) != 0) {
        ::close(fd);
        return;
    }
    m_listenFd = fd;
    m_thread = std::thread([this] { Run(); });
}

ScriptedLocalServer::~ScriptedLocalServer()
{
    m_stop = true;
    if (m_wakeFds[1] >= 0) {
        const char byte = 0;
        [[maybe_unused]] ssize_t written = ::write(m_wakeFds[1], &byte, 1);
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_listenFd >= 0) {
        ::close(m_listenFd);
        ::unlink(m_path.c_str());
    }
    for (int fd : m_wakeFds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

std::vector<ScriptedRequest> ScriptedLocalServer::Requests() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_requests;
}

bool ScriptedLocalServer::WaitForRequests(size_t count, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Requests().size() < count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool ScriptedLocalServer::WaitForClosed(int count, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Closed() < count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool ScriptedLocalServer::WriteAll(int fd, const uint8_t* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::send(fd, data, size, MSG_NOSIGNAL);
        if (written <= 0) {
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// One connection at a time, as the relay makes them: one exchange each.
void ScriptedLocalServer::Run()
{
    while (!m_stop) {
        pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakeFds[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) <= 0 || m_stop) {
            continue;
        }
        if (fds[0].revents & POLLIN) {
            const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                Serve(fd, ++m_connections);
                ::close(fd);
                ++m_closed;
            }
        }
    }
}

void ScriptedLocalServer::Serve(int fd, int connection)
{
    Bytes buffer;
    while (!m_stop) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {m_wakeFds[0], POLLIN, 0}};
        if (::poll(fds, 2, kPollMs) < 0 || m_stop) {
            return;
        }
        if (!(fds[0].revents & (POLLIN | POLLHUP))) {
            continue;
        }
        uint8_t chunk[4096];
        const ssize_t got = ::recv(fd, chunk, sizeof(chunk), 0);
        if (got <= 0) {
            return;
        }
        buffer.insert(buffer.end(), chunk, chunk + got);
        while (buffer.size() >= 4) {
            const uint32_t size = ReadBigEndian32(buffer.data());
            if (size < 4 || size > (1u << 20)) {
                return;
            }
            if (buffer.size() < size) {
                break;
            }
            Bytes request(buffer.begin(), buffer.begin() + size);
            buffer.erase(buffer.begin(), buffer.begin() + size);
            {
                std::lock_guard<std::mutex> lock(m_lock);
                m_requests.push_back({connection, request});
            }
            const ScriptedReply reply = m_responder(connection, request);
            if (reply.silent) {
                continue;
            }
            const size_t first = std::min(reply.firstPart, reply.bytes.size());
            if (!WriteAll(fd, reply.bytes.data(), first)) {
                return;
            }
            if (first < reply.bytes.size() && !reply.holdBack) {
                std::this_thread::sleep_for(reply.splitDelay);
                if (!WriteAll(fd, reply.bytes.data() + first, reply.bytes.size() - first)) {
                    return;
                }
            }
        }
    }
}

} // namespace velorane::test
