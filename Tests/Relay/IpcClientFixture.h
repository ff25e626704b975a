#pragma once

// The client application's side of the local link, for the IpcClient
// tests: a QLocalServer under the relay's socket name in a temporary folder
// of the test's own (the name is fixed, so each test gets its own TMPDIR),
// the relay's IpcClient on its thread, and a record of what it emitted.
//
// Threads: the test body runs on the main thread, which owns the server,
// its end of the socket and the record; the client's signals reach the
// record queued and are delivered by WaitUntil and SendToRelay.
// m_readyReads is counted on the IPC thread, after the client's own
// readyRead slot has parsed.

#include "Clients/Conference/IpcClient.h"
#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/ScopedEnv.h"
#include "Tests/Support/TempDir.h"

#include <QByteArray>
#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <QSharedPointer>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace velorane::test {

using quorvan::velorane::relay::IpcClient;

// Gives the test a logger of its own, so that the rate limits of one test
// don't silence the next when a single process runs them all.
struct FreshLogger
{
    FreshLogger();
};

class IpcClientFixture : public ::testing::Test
{
protected:
    static void SetUpTestSuite();

    IpcClientFixture();
    void TearDown() override;

    // Builds the client and hooks the record to it, without starting it.
    void MakeClient();
    // Builds and starts the client and waits until both ends are connected
    // and the client's thread has finished its connect.
    void StartConnectedClient();
    // Terminates and destroys the client, and drops the server's end.
    void StopClient();

    // Pumps this thread's events until done() holds or the time is up.
    static bool WaitUntil(const std::function<bool()>& done,
                          std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Writes from the client application's side, waits until the relay has
    // read and parsed once, and delivers what that emitted.
    void SendToRelay(const QByteArray& bytes);
    // Waits until count bytes have come from the relay and returns all
    // that has come.
    QByteArray ReceiveFromRelay(int count);

    // The path of the relay's socket in this test's folder.
    std::string SocketPath() const;

    TempDir m_tempDir;
    ScopedEnv m_tmpDirEnv;
    FreshLogger m_freshLogger;
    ScopedLogCapture m_capture;
    std::unique_ptr<QLocalServer> m_server;
    QLocalSocket* m_peer = nullptr;
    std::unique_ptr<IpcClient> m_client;

    QObject m_recordContext;
    std::shared_ptr<std::atomic<int>> m_readyReads = std::make_shared<std::atomic<int>>(0);
    int m_quits = 0;
    int m_connectUsbs = 0;
    int m_startScrapes = 0;
    std::vector<QSharedPointer<QByteArray>> m_pixels;
};

// Bytes from hex text; spaces are ignored.
QByteArray Hex(const char* text);
// A message without data: size field and command, big-endian.
QByteArray Header(int32_t size, int32_t command);

} // namespace velorane::test
