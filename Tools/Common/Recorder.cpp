#include "Tools/Common/Recorder.h"

#include <cstdio>

namespace simcommon {

bool Recorder::Open(const QString& path, QString* error)
{
    if (path.isEmpty()) {
        return true;
    }
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        *error = QStringLiteral("can't open record file %1: %2").arg(path, m_file.errorString());
        return false;
    }
    return true;
}

void Recorder::Line(const QString& text)
{
    const QByteArray line = text.toUtf8() + '\n';
    if (m_file.isOpen()) {
        m_file.write(line);
        m_file.flush();
        return;
    }
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fflush(stdout);
}

} // namespace simcommon
