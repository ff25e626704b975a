#pragma once

#include <QHash>
#include <QSet>
#include <QString>
#include <QtGlobal>

namespace vdisplaysim {

struct Rect
{
    qint32 x = 0;
    qint32 y = 0;
    qint32 width = 0;
    qint32 height = 0;
};

// --split COMMAND=N@MS: the first N bytes of the reply, the rest MS ms later.
struct SplitFault
{
    int headBytes = 0;
    int pauseMs = 0;
};

// Everything vdisplay-sim takes from VDISPLAY_SIM_OPTIONS and its command
// line. The per-command maps are keyed by the command number (0..65535).
struct VDisplayOptions
{
    QString serverName = QStringLiteral("VIRTUAL_MONITOR_SERVER");
    QString conferenceServer = QStringLiteral("CONFERENCE_SERVER");
    bool conference = false;       // -c: connect to the conference server
    bool exitAfterDestroy = false; // already resolved for -c
    QString recordFile;            // empty: records go to standard output
    QString pidFile;               // empty: none
    int timeLimitSec = 60;
    int delayMs = 0;

    bool calibrateFound = true;
    Rect calibrateRect{0, 0, 1280, 720};
    Rect cageRect{0, 0, 1920, 1080};

    QHash<quint16, qint32> results;
    QSet<quint16> silent;
    QHash<quint16, int> cuts;
    QHash<quint16, SplitFault> splits;
};

} // namespace vdisplaysim
