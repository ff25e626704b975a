#pragma once

#include <QString>
#include <QtGlobal>

namespace vdisplaysim {

// Reads an optional minus sign, then decimal digits or 0x and hex digits.
// A leading zero is still decimal. False for anything else or overflow.
bool ParseInteger(const QString& text, qint64* value);

} // namespace vdisplaysim
