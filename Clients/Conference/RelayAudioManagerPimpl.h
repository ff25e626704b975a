#pragma once

// The state and threads of RelayAudioManager.
//
// Threads: the driver thread runs FromDriverThreadFunc, OnSpeakerData,
// OnDriverAnnounce and OnAudioStart; the expiry thread runs
// DriverExpireThreadFunc and OnAudioStop; the transport thread runs the
// speaker payload (the encoder, the rate meter, the ping counter); the GUI
// thread runs OnAudioData and what it calls. m_running, m_audioActive,
// m_lastAnnounce and m_timeOffset are the values that cross threads, and
// they are atomic; nothing else is shared.

#include "Clients/Conference/RelayAudioManager.h"
#include "Common/Audio/Src/ByteBuffer.h"
#include "Common/Audio/Src/IAudioEncoder.h"
#include "Common/Audio/Src/SpeakerRateMeter.h"
#include "Common/Audio/Src/TimeOffsetFilter.h"
#include "Common/Network/Src/UdpClient.h"

#include <QDataStream>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

class QTimer;

namespace quorvan::velorane::relay {

class RelayAudioManager::Pimpl
{
public:
    Pimpl(RelayAudioManager& owner, const RelayConfig& config);
    ~Pimpl();
    Pimpl(const Pimpl&) = delete;
    Pimpl& operator=(const Pimpl&) = delete;

    void SendDriverIpAndPort(uint32_t ip, uint16_t port, const std::string& text);
    void FromDriverThreadFunc();
    // One datagram from the driver, as the driver thread received it.
    void OnDriverDatagram(const uint8_t* data, size_t size);
    void DriverExpireThreadFunc();
    // size is the datagram's length less the command byte; buffer stands
    // at the time stamp.
    void OnSpeakerData(int size, ByteBuffer<const uint8_t>& buffer);
    void OnDriverAnnounce();
    void OnAudioStart();
    void OnAudioStop();
    void OnMicData(uint64_t timestamp, int frames, const int16_t* samples);
    void ForwardMicData(ByteBuffer<const uint8_t>& buffer);
    void HandleTimeOffsetPing(const QByteArray& data);
    void OnAudioData(RelayService service, RelayCommand command, const QByteArray& data);

private:
    // The speaker payload, written when the command is serialised. datagram
    // holds the time stamp and the samples, handed over from the driver
    // thread.
    void WriteSpeakerPayload(QDataStream& stream, int size, int count,
                             const std::vector<uint8_t>& datagram);
    void OnMicrophoneResponse(const QByteArray& data);

public:
    // The microphone poll timer, a child of the owner; null until the first
    // microphone response.
    QTimer* m_usb_timer = nullptr;
    // Speaker packets since the last time-offset ping.
    uint64_t m_pingCounter = 0;
    // Kyr time minus ours, ms: written on the GUI thread, read on the
    // transport thread.
    std::atomic<int64_t> m_timeOffset{0};
    // The newest ping samples and their ranking (GUI thread).
    TimeOffsetFilter m_offsetFilter;
    RelayAudioManager& m_owner;
    RelayConfig m_config;
    std::atomic<bool> m_running{false};
    std::unique_ptr<std::thread> m_fromDriverThread;
    std::unique_ptr<std::thread> m_expireThread;
    UdpClient m_driverControl;
    std::unique_ptr<UdpClient> m_driverClient;
    std::atomic<bool> m_audioActive{false};
    // Monotonic time of the last announce, in microseconds.
    std::atomic<int64_t> m_lastAnnounce{0};
    std::unique_ptr<IAudioEncoder> m_encoder;
    SpeakerRateMeter m_rate;
};

} // namespace quorvan::velorane::relay
