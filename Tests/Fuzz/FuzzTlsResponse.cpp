// The relay's responses over TLS: the byte stream from the Kyr cut into
// readyRead-sized pieces at points the fuzzer chooses, each handed to the
// TCP transport exactly as its readyRead handler hands what it read. The
// transport frames them and dispatches at most one response per piece.
//
// The transport is set up on this thread as the transport thread would set
// it up, with no address, so its socket exists and never connects.
// Checked: a dispatched payload never holds more than has arrived, at most
// one response is dispatched per piece, and once the transport has ended
// the link for its size no more bytes are handed in (the socket is gone).

#include "Clients/ConferenceTransport/Src/TcpCommunication.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <QObject>

#include <cstdint>

using quorvan::velorane::TcpCommunication;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    velorane::fuzz::EnsureCoreApplication();
    FuzzedDataProvider input(data, size);
    const std::vector<QByteArray> pieces = velorane::fuzz::SplitStream(input);

    TcpCommunication transport;
    transport.slotThreadStarted();

    int64_t received = 0;
    int dispatched = 0;
    bool ended = false;
    QObject::connect(&transport, &TcpCommunication::DataCallback,
                     [&](RelayService, RelayCommand, QByteArray payload) {
                         ++dispatched;
                         VELORANE_FUZZ_CHECK(12 + payload.size() <= received);
                     });
    QObject::connect(&transport, &TcpCommunication::SignalConnectionFailed, [&] { ended = true; });

    for (const QByteArray& piece : pieces) {
        received += piece.size();
        const int before = dispatched;
        transport.ReceiveBytes(piece);
        VELORANE_FUZZ_CHECK(dispatched - before <= 1);
        if (ended) {
            break;
        }
    }
    transport.slotThreadFinished();
    return 0;
}
