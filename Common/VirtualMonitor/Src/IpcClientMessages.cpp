// The message operations of IpcClient: building requests and replies and
// taking replies apart. They touch no socket.

#include "Common/Logger/Src/Logger.h"
#include "Common/VirtualMonitor/Src/IpcClient.h"

#include <QDataStream>
#include <QIODevice>

namespace quorvan::velorane::virtualmonitor {

namespace {

void WriteRect(QDataStream& stream, const tVmRect& rect)
{
    stream << static_cast<qint32>(rect.x) << static_cast<qint32>(rect.y)
           << static_cast<qint32>(rect.width) << static_cast<qint32>(rect.height);
}

void ReadRect(QDataStream& stream, tVmRect& rect)
{
    qint32 x = 0;
    qint32 y = 0;
    qint32 width = 0;
    qint32 height = 0;
    stream >> x >> y >> width >> height;
    rect.x = x;
    rect.y = y;
    rect.width = width;
    rect.height = height;
}

// The size goes in last, over the placeholder at the start.
void WriteSize(QDataStream& stream, qint32 size)
{
    stream.device()->seek(0);
    stream << size;
}

} // namespace

void IpcClient::BuildRequestMessageFrom(QByteArray* message, Command command,
                                        MessageArguments arguments)
{
    if (!message) {
        VLOG(EGroupValueWarning,
             "Incoming QByteArray parameter is NULL. Unable to build request message");
        return;
    }
    try {
        bool known = IsKnownCommand(command);
        {
            QDataStream stream(message, QIODevice::WriteOnly);
            stream << static_cast<qint32>(kHeaderSize) << static_cast<qint16>(command)
                   << static_cast<qint8>(kMessageTypeRequest);
            if (known) {
                qint32 size = kHeaderSize;
                switch (command) {
                case CreateConference: {
                    const int width = arguments.NextInt();
                    const int height = arguments.NextInt();
                    stream << static_cast<qint32>(width) << static_cast<qint32>(height);
                    size = 15;
                    break;
                }
                case ReservedRect:
                    WriteRect(stream, arguments.NextRect());
                    size = 23;
                    break;
                case SetCursorCage: {
                    const bool enable = arguments.NextInt() != 0;
                    const long long windowId = arguments.NextLongLong();
                    stream << enable << static_cast<qint64>(windowId);
                    size = 16;
                    break;
                }
                case SetResolution: {
                    const int width = arguments.NextInt();
                    const int height = arguments.NextInt();
                    const int tag = arguments.NextInt();
                    stream << static_cast<qint32>(width) << static_cast<qint32>(height)
                           << static_cast<qint8>(tag);
                    size = 16;
                    break;
                }
                default:
                    break;
                }
                WriteSize(stream, size);
            }
        }
        if (!known) {
            *message = QByteArray();
            VLOG(EGroupValueWarning, "Uknown command %hu", static_cast<unsigned short>(command));
        }
    } catch (...) {
        // What was written before the bad argument is no message at all.
        *message = QByteArray();
        VLOG(EGroupValueSevere, "Incorrect number or incorrect type of arguments supplied");
    }
}

void IpcClient::BuildReplyMessageFrom(QByteArray* message, Command command, int result,
                                      MessageArguments arguments)
{
    if (!message) {
        VLOG(EGroupValueWarning,
             "Incoming QByteArray parameter is NULL. Unable to build reply message");
        return;
    }
    try {
        QDataStream stream(message, QIODevice::WriteOnly);
        stream << static_cast<qint32>(kReplyHeaderSize) << static_cast<qint16>(command)
               << static_cast<qint8>(kMessageTypeReply) << static_cast<qint32>(result);
        if (command == SetCursorCage) {
            WriteRect(stream, arguments.NextRect());
            WriteSize(stream, 27);
        } else if (command == RequestCalibrate) {
            const bool found = arguments.NextInt() != 0;
            stream << found;
            qint32 size = 12;
            if (found) {
                WriteRect(stream, arguments.NextRect());
                size = 28;
            }
            WriteSize(stream, size);
        }
    } catch (...) {
        // What was written before the bad argument is no message at all.
        *message = QByteArray();
        VLOG(EGroupValueSevere, "Incorrect number or incorrect type of arguments supplied");
    }
}

bool IpcClient::ParseReplyMessageFrom(QByteArray* message, int* result, MessageArguments arguments)
{
    if (!message) {
        VLOG(EGroupValueWarning, "QByteArray is NULL");
        return false;
    }
    if (message->size() < kHeaderSize) {
        VLOG(EGroupValueWarning,
             "Reply message is malformed. Size of message %d is less than minimum size %d",
             message->size(), kHeaderSize);
        return false;
    }
    // A failure past the header is reported and the reply still counts as
    // taken apart: whatever was read stands.
    try {
        QDataStream stream(message, QIODevice::ReadOnly);
        qint32 size = 0;
        stream >> size;
        if (size != message->size()) {
            VLOG(EGroupValueWarning,
                 "Reply message is malformed. Size of message %d isn't equal to size specified "
                 "in message header %d",
                 message->size(), size);
            return false;
        }
        qint16 command = 0;
        qint8 messageType = 0;
        stream >> command >> messageType;
        if (messageType != kMessageTypeReply) {
            VLOG(EGroupValueWarning, "Reply message is the wrong message type %d", messageType);
            return false;
        }
        qint32 replyResult = 0;
        stream >> replyResult;
        if (!result) {
            throw MessageArgumentError("no place for the result");
        }
        *result = replyResult;
        const auto replyCommand = static_cast<uint16_t>(command);
        if (replyCommand == SetCursorCage) {
            ReadRect(stream, arguments.NextRectToFill());
        } else if (replyCommand == RequestCalibrate) {
            bool& found = arguments.NextBoolToFill();
            stream >> found;
            if (found) {
                ReadRect(stream, arguments.NextRectToFill());
            }
        }
    } catch (...) {
        VLOG(EGroupValueSevere, "Incorrect number or incorrect type of arguments supplied");
    }
    return true;
}

bool IpcClient::ParseData(const QByteArray& buffer, int& messageSize)
{
    if (buffer.size() < kHeaderSize) {
        return false;
    }
    QByteArray shared = buffer;
    QDataStream stream(&shared, QIODevice::ReadOnly);
    qint32 size = 0;
    stream >> size;
    if (buffer.size() >= size) {
        messageSize = size;
        return true;
    }
    return false;
}

} // namespace quorvan::velorane::virtualmonitor
