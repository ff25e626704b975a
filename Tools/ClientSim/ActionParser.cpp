#include "ActionParser.h"

#include "LinkMessage.h"
#include "Tools/Common/H264Encoder.h"

#include <QFile>
#include <QRegularExpression>
#include <QStringList>

#include <cstdint>

namespace clientsim {

namespace {

// Largest file or generated bitstream a DesktopPixels message may carry.
constexpr qint64 kMaxPixelBytes = 64 * 1024 * 1024;
// Picture size of pixels-h264 without WxH.
constexpr int kDefaultWidth = 1280;
constexpr int kDefaultHeight = 720;

bool ReadNumber(const QString& text, qint64 low, qint64 high, qint64* value)
{
    bool ok = false;
    const qint64 number = text.toLongLong(&ok, 0);
    if (!ok || number < low || number > high) {
        return false;
    }
    *value = number;
    return true;
}

bool Fail(const QString& text, const QString& why, QString* error)
{
    *error = QStringLiteral("--send %1: %2").arg(text, why);
    return false;
}

bool ParsePixelsFrame(const QString& text, const QStringList& fields, ClientAction* action,
                      QString* error)
{
    if (fields.size() != 3 && fields.size() != 5) {
        return Fail(text, QStringLiteral("expected pixels-frame:NUMBER:LENGTH[:W:H]"), error);
    }
    qint64 number = 0;
    qint64 length = 0;
    qint64 width = 0;
    qint64 height = 0;
    if (!ReadNumber(fields[1], INT32_MIN, INT32_MAX, &number)) {
        return Fail(text, QStringLiteral("NUMBER must be a 32-bit integer"), error);
    }
    if (!ReadNumber(fields[2], 0, kMaxPixelBytes, &length)) {
        return Fail(text, QStringLiteral("LENGTH must be from 0 to %1").arg(kMaxPixelBytes), error);
    }
    const bool withSize = fields.size() == 5;
    if (withSize && (!ReadNumber(fields[3], INT32_MIN, INT32_MAX, &width) ||
                     !ReadNumber(fields[4], INT32_MIN, INT32_MAX, &height))) {
        return Fail(text, QStringLiteral("W and H must be 32-bit integers"), error);
    }
    action->bytes = LinkMessage::Build(
        LinkMessage::kDesktopPixels,
        LinkMessage::FramePayload(static_cast<qint32>(number), static_cast<int>(length), withSize,
                                  static_cast<qint32>(width), static_cast<qint32>(height)));
    return true;
}

// pixels-h264:COUNT[:WxH]; the size is fitted to the encoder when the
// stream starts.
bool ParsePixelsH264(const QString& text, const QString& argument, ClientAction* action,
                     QString* error)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(\\d{1,6})(?::(\\d{1,5})x(\\d{1,5}))?$"));
    const QRegularExpressionMatch match = pattern.match(argument);
    const int count = match.captured(1).toInt();
    if (!match.hasMatch() || count < 1 || count > 100000) {
        return Fail(text,
                    QStringLiteral("expected pixels-h264:COUNT[:WxH], COUNT from 1 to 100000"),
                    error);
    }
    QString why;
    if (!simcommon::H264Encoder::IsAvailable(&why)) {
        return Fail(text, why, error);
    }
    action->kind = ClientAction::Kind::PixelsH264;
    action->number = count;
    action->width = match.captured(2).isEmpty() ? kDefaultWidth : match.captured(2).toInt();
    action->height = match.captured(3).isEmpty() ? kDefaultHeight : match.captured(3).toInt();
    return true;
}

bool ParsePixelsFile(const QString& text, const QString& path, ClientAction* action, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return Fail(text, QStringLiteral("can't read %1: %2").arg(path, file.errorString()), error);
    }
    if (file.size() > kMaxPixelBytes) {
        return Fail(text,
                    QStringLiteral("%1 is larger than %2 bytes").arg(path).arg(kMaxPixelBytes),
                    error);
    }
    action->bytes = LinkMessage::Build(LinkMessage::kDesktopPixels, file.readAll());
    return true;
}

} // namespace

bool ActionParser::Parse(const QString& text, ClientAction* action, QString* error)
{
    action->text = text;
    action->kind = ClientAction::Kind::Write;
    const int colon = text.indexOf(QLatin1Char(':'));
    const QString name = colon < 0 ? text : text.left(colon);
    const QString argument = colon < 0 ? QString() : text.mid(colon + 1);
    const bool hasArgument = colon >= 0;

    if (!hasArgument) {
        if (name == QLatin1String("start-scrape")) {
            action->bytes = LinkMessage::Build(LinkMessage::kStartScrape);
        } else if (name == QLatin1String("kill")) {
            action->bytes = LinkMessage::Build(LinkMessage::kKillApplication);
        } else if (name == QLatin1String("kill2")) {
            action->bytes = LinkMessage::Build(LinkMessage::kKillApplication2);
        } else if (name == QLatin1String("connect-usb")) {
            action->bytes = LinkMessage::Build(LinkMessage::kConnectUsb);
        } else if (name == QLatin1String("error-to-relay")) {
            action->bytes = LinkMessage::Build(LinkMessage::kError, QByteArrayLiteral("3"));
        } else if (name == QLatin1String("merge")) {
            action->kind = ClientAction::Kind::MergeNext;
        } else if (name == QLatin1String("disconnect")) {
            action->kind = ClientAction::Kind::Disconnect;
        } else {
            return Fail(text, QStringLiteral("unknown action"), error);
        }
        return true;
    }

    qint64 number = 0;
    if (name == QLatin1String("unknown")) {
        if (!ReadNumber(argument, INT32_MIN, UINT32_MAX, &number)) {
            return Fail(text, QStringLiteral("N must be a 32-bit command number"), error);
        }
        action->bytes = LinkMessage::Build(static_cast<quint32>(number));
    } else if (name == QLatin1String("pixels")) {
        return ParsePixelsFile(text, argument, action, error);
    } else if (name == QLatin1String("pixels-h264")) {
        return ParsePixelsH264(text, argument, action, error);
    } else if (name == QLatin1String("pixels-frame")) {
        return ParsePixelsFrame(text, text.split(QLatin1Char(':')), action, error);
    } else if (name == QLatin1String("raw")) {
        static const QRegularExpression hex(QStringLiteral("^(?:[0-9A-Fa-f]{2})+$"));
        if (!hex.match(argument).hasMatch()) {
            return Fail(text, QStringLiteral("HEX must be pairs of hex digits"), error);
        }
        action->bytes = QByteArray::fromHex(argument.toLatin1());
    } else if (name == QLatin1String("split")) {
        if (!ReadNumber(argument, 0, LinkMessage::kMaxSize, &number)) {
            return Fail(text, QStringLiteral("N must be a byte count"), error);
        }
        action->kind = ClientAction::Kind::SplitNext;
        action->number = static_cast<int>(number);
    } else if (name == QLatin1String("wait")) {
        if (!ReadNumber(argument, 0, 3600 * 1000, &number)) {
            return Fail(text, QStringLiteral("MS must be from 0 to 3600000"), error);
        }
        action->kind = ClientAction::Kind::Wait;
        action->number = static_cast<int>(number);
    } else if (name == QLatin1String("short")) {
        if (!ReadNumber(argument, 0, 8, &number)) {
            return Fail(text, QStringLiteral("N must be from 0 to 8"), error);
        }
        action->bytes =
            LinkMessage::Build(LinkMessage::kKillApplication).left(static_cast<int>(number));
    } else {
        return Fail(text, QStringLiteral("unknown action"), error);
    }
    return true;
}

} // namespace clientsim
