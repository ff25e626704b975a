#include "Tests/Fuzz/AudioFuzzSupport.h"

#include "Tests/Fuzz/FuzzSupport.h"

#include <QDataStream>

#include <mutex>

using quorvan::velorane::RelayCommandData;
using quorvan::velorane::relay::RelayAudioManager;
using quorvan::velorane::relay::RelayConfig;

namespace velorane::fuzz {

namespace {

// Commands come from the fuzzer's thread and from the manager's expiry
// thread (a driver that stops announcing); the speaker payload asks for a
// time-offset ping from inside its own writing.
std::recursive_mutex g_writeLock;

void WriteAndCheck(const RelayCommandData& command)
{
    std::lock_guard<std::recursive_mutex> hold(g_writeLock);
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream << static_cast<quint32>(command.service) << static_cast<quint32>(command.command);
    command.payloadFunctor(stream);
    const int payload = bytes.size() - 8;
    switch (command.command) {
    case quorvan::velorane::RelayCommandSpeakerData:
        // Nothing (no time stamp), or the count word and what it counts.
        if (payload > 0) {
            VELORANE_FUZZ_CHECK(payload >= 28);
            QDataStream reader(bytes.mid(8));
            reader.setByteOrder(QDataStream::LittleEndian);
            qint32 follows = 0;
            qint32 length = 0;
            reader >> follows >> length;
            VELORANE_FUZZ_CHECK(follows == payload - 4);
            VELORANE_FUZZ_CHECK(length == payload - 28);
        }
        break;
    case quorvan::velorane::RelayCommandTimeOffsetPing:
        VELORANE_FUZZ_CHECK(payload == 12);
        break;
    default:
        VELORANE_FUZZ_CHECK(payload == 4);
        break;
    }
}

} // namespace

RelayAudioManager& AudioManager()
{
    static RelayAudioManager* manager = [] {
        EnsureCoreApplication();
        RelayConfig config;
        config.kyrIp = "127.0.0.1";
        config.kyrPort = 47400;
        config.relayPassword = "fuzz";
        // Never destroyed: its threads run until the process ends.
        RelayAudioManager* made = RelayAudioManager::NewInstance(config).release();
        QObject::connect(made, &RelayAudioManager::SignalSendRelayCommand, &WriteAndCheck);
        return made;
    }();
    return *manager;
}

} // namespace velorane::fuzz
