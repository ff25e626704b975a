#pragma once

// Moves audio between the local audio driver (UDP on 127.0.0.1) and the
// Kyr: speaker audio from the driver goes out Opus-encoded in relay
// commands, with time stamps corrected by a measured clock offset;
// microphone audio is polled from the Kyr and handed to the driver. It also
// tells the driver the Kyr's address and password.
//
// Threads: made, signalled into and destroyed on the GUI thread
// (OnAudioData, the microphone poll timer). Its Pimpl runs a driver receive
// thread and an expiry thread, and the speaker payload is written on the
// transport thread when the command is serialised; all of them emit
// SignalSendRelayCommand, which Qt queues to the transport.

#include "Clients/Conference/RelayConfig.h"
#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

#include <QByteArray>
#include <QObject>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace quorvan::velorane::relay {

class RelayAudioManager : public QObject
{
    Q_OBJECT

public:
    // Opens the driver sockets and starts both threads. A socket that can't
    // be made throws UdpUtilRuntimeError to the caller.
    static std::unique_ptr<RelayAudioManager> NewInstance(const RelayConfig& config);
    ~RelayAudioManager() override;

    // What the driver thread does with each datagram it receives on
    // kyrPort + 8. Public so that a datagram can be handed in without the
    // socket (the fuzz targets do); the socket's own path goes through here
    // unchanged. The caller's thread then stands in for the driver thread.
    void OnDriverDatagram(const uint8_t* data, size_t size);

    class Pimpl;

Q_SIGNALS:
    void SignalSendRelayCommand(RelayCommandData commandData);

public Q_SLOTS:
    // Sends AudioStart, at each connection to the Kyr, whether a driver is
    // there or not.
    void StartSharing();
    void OnAudioData(RelayService service, RelayCommand command, QByteArray data);

private Q_SLOTS:
    void RequestAudioData();
    void RequestTimeOffsetPing();

private:
    explicit RelayAudioManager(const RelayConfig& config);

    std::unique_ptr<Pimpl> m_pimpl;
};

} // namespace quorvan::velorane::relay
