#include "ScriptRunner.h"

#include "Console.h"
#include "H264Stream.h"

#include <utility>

namespace clientsim {

namespace {

constexpr int kSplitPauseMs = 100;

} // namespace

ScriptRunner::ScriptRunner(QVector<ClientAction> actions, QLocalSocket* socket, QObject* parent)
    : QObject(parent), m_actions(std::move(actions)), m_socket(socket)
{
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, [this] {
        Write(m_splitRest);
        m_splitRest.clear();
        RunNext();
    });
}

void ScriptRunner::Start()
{
    RunNext();
}

void ScriptRunner::RunNext()
{
    while (m_next < m_actions.size() && !m_pause.isActive() && m_stream == nullptr) {
        const ClientAction& action = m_actions[m_next++];
        switch (action.kind) {
        case ClientAction::Kind::Write:
            Emit(action.bytes);
            break;
        case ClientAction::Kind::SplitNext:
            m_splitFirst = action.number;
            break;
        case ClientAction::Kind::MergeNext:
            m_mergeLeft = 2;
            break;
        case ClientAction::Kind::Wait:
            m_pause.start(action.number);
            break;
        case ClientAction::Kind::PixelsH264:
            StartStream(action);
            break;
        case ClientAction::Kind::Disconnect:
            FlushMerge();
            if (m_socket) {
                m_socket->flush();
                m_socket->disconnectFromServer();
            }
            break;
        }
    }
    if (m_next >= m_actions.size() && !m_pause.isActive() && m_stream == nullptr) {
        // A merge still waiting for its second message sends what it has.
        FlushMerge();
    }
}

// The run's messages are written as they are: a pending split or merge
// waits for the next ordinary message.
void ScriptRunner::StartStream(const ClientAction& action)
{
    m_stream = new H264Stream(action.number, action.width, action.height, this);
    connect(m_stream, &H264Stream::SignalMessage, this, &ScriptRunner::OnStreamMessage);
    // Queued, so that a run that ends inside Start doesn't re-enter RunNext.
    connect(m_stream, &H264Stream::SignalFinished, this, &ScriptRunner::OnStreamFinished,
            Qt::QueuedConnection);
    m_stream->Start();
}

void ScriptRunner::OnStreamMessage(const QByteArray& message)
{
    if (!m_socket || m_socket->state() != QLocalSocket::ConnectedState) {
        PrintErr(QStringLiteral("link is closed; pixels-h264 stopped"));
        m_stream->Stop();
        return;
    }
    Write(message);
}

void ScriptRunner::OnStreamFinished()
{
    m_stream->deleteLater();
    m_stream = nullptr;
    RunNext();
}

void ScriptRunner::Emit(const QByteArray& block)
{
    if (m_mergeLeft > 0) {
        m_merged += block;
        if (--m_mergeLeft > 0) {
            return;
        }
        Emit(std::exchange(m_merged, QByteArray()));
        return;
    }
    if (m_splitFirst >= 0) {
        const int first = m_splitFirst;
        m_splitFirst = -1;
        Write(block.left(first));
        m_splitRest = block.mid(first);
        m_pause.start(kSplitPauseMs);
        return;
    }
    Write(block);
}

void ScriptRunner::FlushMerge()
{
    if (m_mergeLeft == 0) {
        return;
    }
    m_mergeLeft = 0;
    if (!m_merged.isEmpty()) {
        Emit(std::exchange(m_merged, QByteArray()));
    }
}

void ScriptRunner::Write(const QByteArray& bytes)
{
    if (bytes.isEmpty()) {
        return;
    }
    if (!m_socket || m_socket->state() != QLocalSocket::ConnectedState) {
        PrintErr(QStringLiteral("link is closed; %1 bytes not sent").arg(bytes.size()));
        return;
    }
    m_socket->write(bytes);
    m_socket->flush();
}

} // namespace clientsim
