// The client link: a stream of commands from the client application cut
// into readyRead-sized pieces at points the fuzzer chooses, each handed to
// the relay's IpcClient exactly as its readyRead handler hands what it
// read. The client frames them and acts on at most one message per piece.
//
// The IpcClient is never started: its thread doesn't run and its socket
// stays unconnected, so this thread stands in for the IPC thread.
// Checked: at most one order per piece, and desktop pixels never hold more
// bytes than have arrived.

#include "Clients/Conference/IpcClient.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <QObject>
#include <QSharedPointer>

#include <cstdint>

using quorvan::velorane::relay::IpcClient;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    velorane::fuzz::EnsureCoreApplication();
    FuzzedDataProvider input(data, size);
    const std::vector<QByteArray> pieces = velorane::fuzz::SplitStream(input);

    IpcClient client;
    int64_t received = 0;
    int orders = 0;
    QObject::connect(&client, &IpcClient::SignalQuitApplication, [&] { ++orders; });
    QObject::connect(&client, &IpcClient::SignalConnectUsb, [&] { ++orders; });
    QObject::connect(&client, &IpcClient::SignalStartScrape, [&] { ++orders; });
    QObject::connect(&client, &IpcClient::SignalDesktopPixels,
                     [&](QSharedPointer<QByteArray> pixels) {
                         ++orders;
                         VELORANE_FUZZ_CHECK(pixels);
                         VELORANE_FUZZ_CHECK(pixels->size() <= received);
                     });

    for (const QByteArray& piece : pieces) {
        received += piece.size();
        const int before = orders;
        client.ReceiveBytes(piece);
        VELORANE_FUZZ_CHECK(orders - before <= 1);
    }
    return 0;
}
