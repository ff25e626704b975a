#pragma once

// Joins the logger and Qt's message system both ways: the store hands our
// lines to Qt's debug output, and qLogHandler takes Qt's messages into the
// logger. Both run on whichever thread logged or printed; no state.

#include "Common/Logger/Src/Logger.h"

#include <QtGlobal>

class QMessageLogContext;
class QString;

namespace quorvan {

class QtDebugLoggerStore : public virtual ILogStore, public IRefCountImpl
{
public:
    void OnLog(ELogGroups group, const std::string& file, const std::string& function,
               int64_t timeMs, uint32_t threadId, int32_t line,
               const std::string& message) override;
    void Restart() override {}

    // The text sent to Qt: "VeloraneLog <message> [<time>] [<file>:<function>:<line>]".
    static QString FormatText(const std::string& file, const std::string& function, int32_t line,
                              const std::string& message);
};

// Adds a QtDebugLoggerStore to the logger and installs qLogHandler.
// Returns the result of adding.
RESULT LoggerCreateQtDebuggerLoggerStore();

} // namespace quorvan

void qLogHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
