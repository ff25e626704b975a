#include "Common/Logger/Src/QtDebugLoggerStore.h"

#include "Common/Platform/Src/Time.h"

#include <QByteArray>
#include <QDebug>
#include <QMessageLogger>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quorvan {

namespace {
// The same month-first stamp as the log file's first column.
QString LocalTimestamp()
{
    const Date now = LocalTime::Now();
    char text[32];
    std::snprintf(text, sizeof(text), "%02d/%02d/%04d %02d:%02d:%02d.%03d", now.month, now.day,
                  now.year, now.hour, now.minute, now.second, now.millisecond);
    return QString::fromLatin1(text);
}
} // namespace

QString QtDebugLoggerStore::FormatText(const std::string& file, const std::string& function,
                                       int32_t line, const std::string& message)
{
    // One multi-argument pass, so a '%1' inside a message is not expanded.
    return QStringLiteral("VeloraneLog %1 [%2] [%3:%4:%5]")
        .arg(QString::fromUtf8(message.data(), static_cast<int>(message.size())), LocalTimestamp(),
             QString::fromUtf8(file.data(), static_cast<int>(file.size())),
             QString::fromUtf8(function.data(), static_cast<int>(function.size())),
             QString::number(line));
}

void QtDebugLoggerStore::OnLog(ELogGroups, const std::string& file, const std::string& function,
                               int64_t, uint32_t, int32_t line, const std::string& message)
{
    // Lines that came from Qt begin with 'q' ("qDebug: ..."): they are not
    // sent back. An empty message throws here, which ends the dispatch.
    if (message.at(0) == 'q') {
        return;
    }
    const QString text = FormatText(file, function, line, message);
    QMessageLogger(nullptr, 0, nullptr, "default").debug().noquote() << text;
}

RESULT LoggerCreateQtDebuggerLoggerStore()
{
    CRefCountPtr<ILogStore> store(new QtDebugLoggerStore());
    const RESULT result = LoggerAddCustom(store);
    qInstallMessageHandler(qLogHandler);
    VLOG_RESULT(EGroupValueSevere, result);
    return result;
}

} // namespace quorvan

void qLogHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    using namespace quorvan;

    // Our own lines, coming back from QtDebugLoggerStore, stop here.
    if (message.startsWith(QLatin1String("VeloraneLog"), Qt::CaseSensitive)) {
        return;
    }
    const std::string file = context.file ? context.file : "<Unknown File>";
    const std::string function = context.function ? context.function : "qml";
    const QByteArray text = message.toLocal8Bit();

    ELogGroups group;
    const char* format;
    switch (type) {
    case QtDebugMsg:
        group = EGroupValueInformation;
        format = "qDebug: %s";
        break;
    case QtWarningMsg:
        group = EGroupValueWarning;
        format = "qWarning: %s";
        break;
    case QtCriticalMsg:
        group = EGroupValueSevere;
        format = "qCritical: %s";
        break;
    case QtFatalMsg:
        group = EGroupValueSevere;
        format = "qFatal: %s";
        break;
    case QtInfoMsg:
        group = EGroupValueInformation;
        format = "qInfo: %s";
        break;
    default:
        return;
    }
    {
        LogMessage statement(group, 0, file, context.line, function, false);
        statement.Log(format, text.constData());
    }
    if (type == QtFatalMsg) {
        std::abort();
    }
}
