// The two-way bridge between the logger and Qt's message system.

#include "Common/Logger/Src/QtDebugLoggerStore.h"
#include "Tests/Support/CapturingLogStore.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <stdexcept>

using namespace quorvan;
using velorane::test::ScopedLogCapture;

namespace {

QStringList g_qtMessages;
void RecordingHandler(QtMsgType, const QMessageLogContext&, const QString& message)
{
    g_qtMessages << message;
}

class QtRecorder
{
public:
    QtRecorder() : m_previous(qInstallMessageHandler(RecordingHandler)) { g_qtMessages.clear(); }
    ~QtRecorder() { qInstallMessageHandler(m_previous); }

private:
    QtMessageHandler m_previous;
};

TEST(QtDebugLoggerStoreTest, SendsOurLinesToQtAsDebugText)
{
    QtRecorder recorder;
    CRefCountPtr<ILogStore> store(new QtDebugLoggerStore());
    store->OnLog(EGroupValueInformation, "Clients/Conference/main", "main", 0, 1, 12,
                 "hello %1 world");
    ASSERT_EQ(g_qtMessages.size(), 1);
    const std::string text = g_qtMessages[0].toStdString();
    EXPECT_TRUE(std::regex_match(
        text, std::regex("VeloraneLog hello %1 world \\[[0-9]{2}/[0-9]{2}/[0-9]{4} "
                         "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\] "
                         "\\[Clients/Conference/main:main:12\\]")))
        << text;
}

TEST(QtDebugLoggerStoreTest, MessageBeginningWithLowerCaseQDoesNotReachQt)
{
    QtRecorder recorder;
    CRefCountPtr<ILogStore> store(new QtDebugLoggerStore());
    store->OnLog(EGroupValueWarning, "f", "g", 0, 1, 1, "qWarning: from Qt");
    store->OnLog(EGroupValueWarning, "f", "g", 0, 1, 1, "quiet, also ours");
    EXPECT_TRUE(g_qtMessages.isEmpty());
    store->OnLog(EGroupValueWarning, "f", "g", 0, 1, 1, "Quiet with a capital");
    EXPECT_EQ(g_qtMessages.size(), 1);
}

TEST(QtDebugLoggerStoreTest, EmptyMessageThrowsAndEndsTheDispatch)
{
    QtRecorder recorder;
    CRefCountPtr<ILogStore> store(new QtDebugLoggerStore());
    EXPECT_THROW(store->OnLog(EGroupValueWarning, "f", "g", 0, 1, 1, ""), std::out_of_range);
    EXPECT_TRUE(g_qtMessages.isEmpty());
}

TEST(QtDebugLoggerStoreTest, WarningWithNullContextIsLoggedWithUnknownFileAndQml)
{
    ScopedLogCapture capture;
    QMessageLogContext context;
    qLogHandler(QtWarningMsg, context, QStringLiteral("careful"));
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].group, EGroupValueWarning);
    EXPECT_EQ(lines[0].file, "<Unknown File>");
    EXPECT_EQ(lines[0].function, "qml");
    EXPECT_EQ(lines[0].line, 0);
    EXPECT_EQ(lines[0].message, "qWarning: careful");
}

TEST(QtDebugLoggerStoreTest, ContextFileFunctionAndLineAreKept)
{
    ScopedLogCapture capture;
    QMessageLogContext context("widget.cpp", 77, "paint", "default");
    qLogHandler(QtCriticalMsg, context, QStringLiteral("broken"));
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].group, EGroupValueSevere);
    EXPECT_EQ(lines[0].file, "widget.cpp");
    EXPECT_EQ(lines[0].function, "paint");
    EXPECT_EQ(lines[0].line, 77);
    EXPECT_EQ(lines[0].message, "qCritical: broken");
}

TEST(QtDebugLoggerStoreTest, EachMessageTypeHasItsGroupAndPrefix)
{
    ScopedLogCapture capture;
    QMessageLogContext context;
    qLogHandler(QtDebugMsg, context, QStringLiteral("d"));
    qLogHandler(QtInfoMsg, context, QStringLiteral("i"));
    qLogHandler(QtWarningMsg, context, QStringLiteral("w"));
    qLogHandler(QtCriticalMsg, context, QStringLiteral("c"));
    const auto lines = capture->Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].message, "qDebug: d");
    EXPECT_EQ(lines[0].group, EGroupValueInformation);
    EXPECT_EQ(lines[1].message, "qInfo: i");
    EXPECT_EQ(lines[1].group, EGroupValueInformation);
    EXPECT_EQ(lines[2].message, "qWarning: w");
    EXPECT_EQ(lines[2].group, EGroupValueWarning);
    EXPECT_EQ(lines[3].message, "qCritical: c");
    EXPECT_EQ(lines[3].group, EGroupValueSevere);
}

TEST(QtDebugLoggerStoreTest, MessageBeginningWithVeloraneLogIsNotLogged)
{
    ScopedLogCapture capture;
    QMessageLogContext context;
    qLogHandler(QtWarningMsg, context, QStringLiteral("VeloraneLog anything"));
    qLogHandler(QtDebugMsg, context, QStringLiteral("VeloraneLog"));
    EXPECT_TRUE(capture->Lines().empty());
    // The test is case-sensitive.
    qLogHandler(QtDebugMsg, context, QStringLiteral("velorane log"));
    EXPECT_EQ(capture->Lines().size(), 1u);
}

// Writes each line's group number and message to standard error, where a
// death test reads what was logged before the end.
class StandardErrorStore : public virtual ILogStore, public IRefCountImpl
{
public:
    void OnLog(ELogGroups group, const std::string&, const std::string&, int64_t, uint32_t, int32_t,
               const std::string& message) override
    {
        std::fprintf(stderr, "logged %d|%s\n", static_cast<int>(group), message.c_str());
    }
    void Restart() override {}
};

TEST(QtDebugLoggerStoreTest, FatalMessageIsLoggedThenAborts)
{
    EXPECT_DEATH(
        {
            qInstallMessageHandler(nullptr);
            CRefCountPtr<ILogStore> store(new StandardErrorStore());
            LoggerAddCustom(store);
            QMessageLogContext context;
            qLogHandler(QtFatalMsg, context, QStringLiteral("the end"));
        },
        "logged 8\\|qFatal: the end");
}

TEST(QtDebugLoggerStoreTest, InstalledBridgeTakesQtMessagesWithoutLooping)
{
    ScopedLogCapture capture;
    ASSERT_EQ(LoggerCreateQtDebuggerLoggerStore(), 0);
    qWarning("from Qt %d", 3);
    // Our own line goes to Qt and comes back to the handler, which drops it.
    VLOG(EGroupValueInformation, "ours");
    const auto messages = capture->Messages();
    EXPECT_EQ(capture->Count("qWarning: from Qt 3"), 1u);
    EXPECT_EQ(capture->Count("ours"), 1u);
    for (const auto& message : messages) {
        EXPECT_EQ(message.find("VeloraneLog"), std::string::npos) << message;
    }
    qInstallMessageHandler(nullptr);
}

} // namespace
