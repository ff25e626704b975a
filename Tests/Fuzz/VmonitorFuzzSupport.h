#pragma once

// What the virtual monitor server targets share: taking a stream of
// replies apart with the relay's own parser, as the relay reads them.
//
// Threads: libFuzzer's one thread.

#include "Common/VirtualMonitor/Src/VmRect.h"

#include <QByteArray>

#include <cstdint>
#include <vector>

namespace velorane::fuzz {

struct tParsedReply
{
    uint16_t command = 0;
    int result = 0;
    // RequestCalibrate's found flag; the rectangle of it and of
    // SetCursorCage.
    bool found = false;
    quorvan::velorane::virtualmonitor::tVmRect rect;
};

// Takes every whole reply off the front of the stream with
// IpcClient::ParseData and ParseReplyMessage, and ends the run when one of
// them doesn't parse. What is left at the end, shorter than a reply or
// than the size it announces, is counted in *leftover.
std::vector<tParsedReply> ParseReplies(QByteArray stream, int* leftover = nullptr);

} // namespace velorane::fuzz
