#include "Tests/Fuzz/VmonitorFuzzSupport.h"

#include "Common/VirtualMonitor/Src/Command.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"
#include "Tests/Fuzz/FuzzSupport.h"

namespace velorane::fuzz {

using namespace quorvan::velorane::virtualmonitor;

std::vector<tParsedReply> ParseReplies(QByteArray stream, int* leftover)
{
    std::vector<tParsedReply> replies;
    IpcClient parser;
    int messageSize = 0;
    while (parser.ParseData(stream, messageSize) && messageSize >= kReplyHeaderSize) {
        QByteArray message = stream.left(messageSize);
        stream = stream.mid(messageSize);
        tParsedReply reply;
        // The command, big-endian at offset 4, picks the outputs.
        reply.command = static_cast<uint16_t>((static_cast<uint8_t>(message[4]) << 8) |
                                              static_cast<uint8_t>(message[5]));
        bool parsed = false;
        if (reply.command == SetCursorCage) {
            parsed = IpcClient::ParseReplyMessage(&message, &reply.result, &reply.rect);
        } else if (reply.command == RequestCalibrate) {
            parsed =
                IpcClient::ParseReplyMessage(&message, &reply.result, &reply.found, &reply.rect);
        } else {
            parsed = IpcClient::ParseReplyMessage(&message, &reply.result);
        }
        VELORANE_FUZZ_CHECK(parsed);
        replies.push_back(reply);
    }
    if (leftover) {
        *leftover = stream.size();
    }
    return replies;
}

} // namespace velorane::fuzz
