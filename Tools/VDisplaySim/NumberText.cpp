#include "NumberText.h"

namespace vdisplaysim {

bool ParseInteger(const QString& text, qint64* value)
{
    QString digits = text.trimmed();
    const bool negative = digits.startsWith(QLatin1Char('-'));
    if (negative) {
        digits.remove(0, 1);
    }
    int base = 10;
    if (digits.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
        base = 16;
        digits.remove(0, 2);
    }
    // toLongLong would take a second sign or blanks; only digits are allowed.
    if (digits.isEmpty() || digits.size() > 16) {
        return false;
    }
    for (const QChar c : digits) {
        const ushort u = c.unicode();
        const bool decimal = u >= '0' && u <= '9';
        const bool hex = (u >= 'a' && u <= 'f') || (u >= 'A' && u <= 'F');
        if (!decimal && !(base == 16 && hex)) {
            return false;
        }
    }
    bool ok = false;
    const qint64 number = digits.toLongLong(&ok, base);
    if (!ok) {
        return false;
    }
    *value = negative ? -number : number;
    return true;
}

} // namespace vdisplaysim
