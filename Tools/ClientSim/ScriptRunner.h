#pragma once

#include "ClientAction.h"

#include <QByteArray>
#include <QLocalSocket>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QVector>

namespace clientsim {

class H264Stream;

// Plays the --send script on one connection, in order. Waits, the pause
// inside a split write and a pixels-h264 run hold the script back, so that
// what follows them goes out after them. A write to a link that has gone is
// skipped; a pixels-h264 run ends at the first such write.
class ScriptRunner : public QObject
{
    Q_OBJECT

public:
    ScriptRunner(QVector<ClientAction> actions, QLocalSocket* socket, QObject* parent);

    void Start();

private:
    void RunNext();
    void StartStream(const ClientAction& action);
    void OnStreamMessage(const QByteArray& message);
    void OnStreamFinished();
    // Applies a pending merge and split to one block of bytes.
    void Emit(const QByteArray& block);
    void Write(const QByteArray& bytes);
    void FlushMerge();

    QVector<ClientAction> m_actions;
    QPointer<QLocalSocket> m_socket;
    int m_next = 0;
    int m_splitFirst = -1; // bytes in the first write of the next block
    int m_mergeLeft = 0;   // blocks still to collect into m_merged
    QByteArray m_merged;
    QByteArray m_splitRest; // written when m_pause fires
    QTimer m_pause;
    H264Stream* m_stream = nullptr; // the pixels-h264 run under way
};

} // namespace clientsim
