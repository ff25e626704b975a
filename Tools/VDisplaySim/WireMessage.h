#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace vdisplaysim {

// Every message starts with int32 size (of the whole message), int16
// command and int8 type; a reply goes on with int32 result. Big-endian,
// no padding.
namespace wire {

constexpr int kHeaderSize = 7;
constexpr int kReplyHeaderSize = 11;
constexpr int kMaxSize = 1024 * 1024; // anything larger is taken as garbage
constexpr qint8 kRequest = 0;
constexpr qint8 kReply = 1;
constexpr qint32 kGeneralFailure = static_cast<qint32>(0x80000000u);

// Readers take big-endian fields at an offset; bytes past the end of data
// read as zero.
qint8 ReadInt8(const QByteArray& data, int offset);
qint16 ReadInt16(const QByteArray& data, int offset);
qint32 ReadInt32(const QByteArray& data, int offset);
qint64 ReadInt64(const QByteArray& data, int offset);

void AppendInt8(QByteArray* data, qint8 value);
void AppendInt32(QByteArray* data, qint32 value);

// A whole reply: header with the size filled in, result, then payload.
QByteArray BuildReply(quint16 command, qint32 result, const QByteArray& payload);

} // namespace wire

} // namespace vdisplaysim
