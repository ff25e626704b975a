#pragma once

#include "Tools/Common/H264Encoder.h"

#include <QByteArray>
#include <QObject>
#include <QTimer>

namespace clientsim {

// Sends a run of DesktopPixels messages, each carrying one H.264 access
// unit of the test picture as a frame payload with the picture size behind
// it: frame numbers from 0, the first at once, then one every kIntervalMs.
// Lives on the script's thread and is deleted by whoever made it.
class H264Stream : public QObject
{
    Q_OBJECT

public:
    static constexpr int kIntervalMs = 66;

    H264Stream(int count, int width, int height, QObject* parent);

    void Start();
    // Ends the run early. SignalFinished is emitted once, however the run
    // ends.
    void Stop();

Q_SIGNALS:
    // One complete DesktopPixels message to write.
    void SignalMessage(const QByteArray& message);
    // All messages are out, or the encoder failed.
    void SignalFinished();

private:
    void SendNext();
    void Finish();

    int m_count;
    int m_width;
    int m_height;
    int m_sent = 0;
    bool m_finished = false;
    simcommon::H264Encoder m_encoder;
    QTimer m_timer;
};

} // namespace clientsim
