// A reply from the virtual display process as the relay's blocking request
// takes it in: ParseData tells whether the bytes hold a whole message, and
// ParseReplyMessage takes the reply apart with the outputs of the request
// that was asked (chosen by the last byte: none, a rectangle, or a found
// flag and a rectangle).
//
// Checked: a framed size never passes the bytes held, and the outputs are
// only written as the reply's own command says.

#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Tests/Fuzz/FuzzSupport.h"

#include <cstdint>
#include <cstring>

using namespace quorvan::velorane::virtualmonitor;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    velorane::fuzz::EnsureCoreApplication();
    FuzzedDataProvider input(data, size);
    const uint8_t asked = input.ConsumeIntegral<uint8_t>() % 3;
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    QByteArray reply(bytes.data(), static_cast<int>(bytes.size()));

    IpcClient client;
    int messageSize = -12345;
    if (client.ParseData(reply, messageSize)) {
        VELORANE_FUZZ_CHECK(messageSize <= reply.size());
    } else {
        VELORANE_FUZZ_CHECK(messageSize == -12345);
    }

    int result = 0x5A5A5A5A;
    tVmRect rect{7, 7, 7, 7};
    bool found = false;
    bool parsed = false;
    switch (asked) {
    case 0:
        parsed = IpcClient::ParseReplyMessage(&reply, &result);
        break;
    case 1:
        parsed = IpcClient::ParseReplyMessage(&reply, &result, &rect);
        break;
    default:
        parsed = IpcClient::ParseReplyMessage(&reply, &result, &found, &rect);
        break;
    }
    if (!parsed) {
        // Refused at the header: nothing was written.
        VELORANE_FUZZ_CHECK(result == 0x5A5A5A5A);
        VELORANE_FUZZ_CHECK((rect == tVmRect{7, 7, 7, 7}));
    }
    // A reply whose header is consistent parses, whatever its command.
    if (reply.size() >= 11 && reply.size() == messageSize && reply.at(6) == 1) {
        VELORANE_FUZZ_CHECK(parsed);
    }
    return 0;
}
