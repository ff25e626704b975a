#pragma once

#include <QFile>
#include <QString>

namespace simcommon {

// Appends one record per line to a file, or writes it to standard output,
// and flushes each line so that a test can read the file at any moment.
class Recorder
{
public:
    // An empty path selects standard output.
    bool Open(const QString& path, QString* error);
    void Line(const QString& text);

private:
    QFile m_file;
};

} // namespace simcommon
