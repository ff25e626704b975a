#include "LiveFaults.h"

#include <QStringList>

namespace kyrsim {

namespace {
constexpr int kMaxBurst = 100000;
constexpr int kShortestHeaderless = 1;
constexpr int kLongestHeaderless = 11;
constexpr int kShortestLong = 12;
constexpr int kLongestLong = 65536;
} // namespace

QString LiveFaults::Apply(const QString& order)
{
    const QStringList words = order.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    std::lock_guard<std::mutex> hold(m_lock);
    if (words == QStringList{QStringLiteral("stall")}) {
        m_stalled = true;
        return QStringLiteral("control stall");
    }
    if (words == QStringList{QStringLiteral("resume")}) {
        m_stalled = false;
        return QStringLiteral("control resume");
    }
    if (words.size() == 2 && words[0] == QLatin1String("garbage")) {
        bool ok = false;
        const int count = words[1].toInt(&ok);
        if (ok && count >= 1 && count <= kMaxBurst) {
            m_garbageLeft = count;
            m_garbageInBurst = 0;
            return QStringLiteral("control garbage %1").arg(count);
        }
    }
    return QString();
}

bool LiveFaults::Stalled() const
{
    std::lock_guard<std::mutex> hold(m_lock);
    return m_stalled;
}

QByteArray LiveFaults::TakeGarbage()
{
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_garbageLeft <= 0) {
        return QByteArray();
    }
    --m_garbageLeft;
    const bool headerless = m_garbageInBurst++ % 2 == 0;
    std::uniform_int_distribution<int> length(headerless ? kShortestHeaderless : kShortestLong,
                                              headerless ? kLongestHeaderless : kLongestLong);
    QByteArray bytes(length(m_random), '\0');
    std::uniform_int_distribution<int> byte(0, 255);
    for (char& b : bytes) {
        b = static_cast<char>(byte(m_random));
    }
    return bytes;
}

} // namespace kyrsim
