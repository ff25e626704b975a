#pragma once

// The emulators' copy of the rule by which the relay places its local
// sockets: the per-user runtime folder ($XDG_RUNTIME_DIR, when set to an
// absolute path), else the temporary folder ($TMPDIR, else /tmp). A name
// that already is an absolute path stays as it is. Both ends of a link must
// run with the same two variables.

#include <QDir>
#include <QString>
#include <QtGlobal>

namespace simcommon {

inline QString LocalSocketPath(const QString& name)
{
    if (name.startsWith(QLatin1Char('/'))) {
        return name;
    }
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const QString folder =
        runtime.startsWith(QLatin1Char('/')) ? QDir::cleanPath(runtime) : QDir::tempPath();
    return folder == QLatin1String("/") ? folder + name : folder + QLatin1Char('/') + name;
}

} // namespace simcommon
