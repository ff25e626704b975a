#pragma once

// A stand-in for a local-socket server, on plain POSIX sockets and a thread
// of its own, so that a test can block its main thread in a client and
// still be answered. It frames requests by their leading big-endian size,
// records each, and answers as the test's responder says: a whole reply,
// part of it, a reply in two writes, or nothing.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velorane::test {

using Bytes = std::vector<uint8_t>;

struct ScriptedReply
{
    Bytes bytes;
    // Bytes written at once; the rest, if any, after splitDelay, unless
    // holdBack is set, in which case the rest never goes out.
    size_t firstPart = SIZE_MAX;
    std::chrono::milliseconds splitDelay{0};
    bool holdBack = false;
    // Nothing is written at all.
    bool silent = false;
};

struct ScriptedRequest
{
    int connection = 0;
    Bytes bytes;
};

class ScriptedLocalServer
{
public:
    using Responder = std::function<ScriptedReply(int connection, const Bytes& request)>;

    // Listens at path (a socket file); any old file there is removed.
    ScriptedLocalServer(std::string path, Responder responder);
    ~ScriptedLocalServer();
    ScriptedLocalServer(const ScriptedLocalServer&) = delete;
    ScriptedLocalServer& operator=(const ScriptedLocalServer&) = delete;

    bool Listening() const { return m_listenFd >= 0; }
    std::vector<ScriptedRequest> Requests() const;
    // Connections accepted so far.
    int Connections() const { return m_connections.load(); }
    // Connections whose peer has closed.
    int Closed() const { return m_closed.load(); }
    bool WaitForRequests(size_t count, std::chrono::milliseconds timeout) const;
    bool WaitForClosed(int count, std::chrono::milliseconds timeout) const;

private:
    void Run();
    void Serve(int fd, int connection);
    bool WriteAll(int fd, const uint8_t* data, size_t size);

    std::string m_path;
    Responder m_responder;
    int m_listenFd = -1;
    int m_wakeFds[2] = {-1, -1};
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_connections{0};
    std::atomic<int> m_closed{0};
    mutable std::mutex m_lock;
    std::vector<ScriptedRequest> m_requests;
    std::thread m_thread;
};

// Big-endian writers for building expected messages in tests.
void AppendBigEndian32(Bytes& bytes, uint32_t value);
void AppendBigEndian16(Bytes& bytes, uint16_t value);

} // namespace velorane::test
