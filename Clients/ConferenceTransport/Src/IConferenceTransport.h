#pragma once

// The abstract carrier of the relay protocol; TCP and USB derive from it.
// The object lives on the transport thread: SendWithPayload arrives there
// queued, whoever emits, so commands go out one at a time in the order they
// were emitted. DataCallback is emitted there and reaches its receivers on
// the main thread queued.

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

#include <QByteArray>
#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <cstdint>

namespace quorvan::velorane {

class IConferenceTransport : public QObject
{
    Q_OBJECT

public:
    explicit IConferenceTransport(QObject* parent = nullptr) : QObject(parent) {}
    ~IConferenceTransport() override = default;

    // Brings the link up; emits SignalConnectComplete on success.
    virtual bool Initialize() = 0;
    // Takes the link down; emits SignalDisconnectComplete when it was up.
    virtual bool Terminate() = 0;

public Q_SLOTS:
    virtual bool SendWithPayload(const RelayCommandData& commandData) = 0;
    virtual void slotThreadStarted() = 0;
    virtual void slotThreadFinished() = 0;

    bool Send(RelayService service, RelayCommand command);

Q_SIGNALS:
    void DataCallback(RelayService service, RelayCommand command, QByteArray data);
    void SignalConnectComplete();
    void SignalDisconnectComplete();
    void SignalConnectionFailed();
    void ShowErrorMessage(QString message);

protected:
    // A request: service and command little-endian, then whatever the
    // payload functor writes (its count word first). An empty functor
    // throws std::bad_function_call.
    QByteArray SerializeCommand(const RelayCommandData& commandData);
    // Parses at most one response from the start of data and returns how
    // many bytes it took: 0 while the message is incomplete or too short
    // for a header.
    uint32_t HandleResponse(uint32_t bytesReceived, QSharedPointer<const QByteArray> data);
};

} // namespace quorvan::velorane
