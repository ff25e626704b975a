#pragma once

// What the virtual monitor tests share: the one QCoreApplication, a private
// folder for the local sockets of each test.

#include "Tests/Support/CapturingLogStore.h"
#include "Tests/Support/RawLocalClient.h"
#include "Tests/Support/ScopedEnv.h"
#include "Tests/Support/ScriptedLocalServer.h"
#include "Tests/Support/TempDir.h"

#include <QByteArray>
#include <QCoreApplication>

#include <gtest/gtest.h>

#include <string>

namespace velorane::test {

inline QCoreApplication* VirtualMonitorTestApplication()
{
    static int argc = 1;
    static char argv0[] = "virtual_monitor_tests";
    static char* argv[] = {argv0, nullptr};
    static QCoreApplication* application = new QCoreApplication(argc, argv);
    return application;
}

inline QByteArray ToQByteArray(const Bytes& bytes)
{
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

inline Bytes ToBytes(const QByteArray& bytes)
{
    return Bytes(bytes.begin(), bytes.end());
}

// Qt names a local socket by its plain name inside the temporary folder,
// which each test points at a folder of its own.
class LocalSocketTest : public ::testing::Test
{
protected:
    LocalSocketTest() { VirtualMonitorTestApplication(); }

    std::string SocketPath(const std::string& name) const { return m_dir.File(name); }

    TempDir m_dir;
    ScopedEnv m_tmpdir{"TMPDIR", m_dir.Path()};
    ScopedLogCapture m_log;
};

} // namespace velorane::test
