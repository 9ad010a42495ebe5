// Text forms of setting values: numbers in any base, frequencies with units,
// and truth words. Shared by the value table, the colour and font commands and
// anyone who has to read a setting typed by the user.
#pragma once
#include <QString>
#include <cstddef>
#include "common/types.h"

namespace SettingsText {

// A signed number in any base ("0x" hexadecimal, "0b" binary, a leading "0"
// octal, else decimal), blanks around it allowed. False for anything else.
bool ParseInt(const QString& sText, I64& Out);
// The same for an unsigned 64-bit number ("-" is refused).
bool ParseUInt(const QString& sText, U64& Out);

// "auto" -> 0, "adaptive" -> 65535, otherwise a number with an optional unit
// Hz, kHz, MHz or GHz, such as "4 MHz", "2,5 MHz" or "12.5 kHz", rounded to
// whole Hz. A text that is no frequency gives -1.
I64 FrequencyFromText(const QString& sText);
// 0 -> "auto", 65535 -> "adaptive", whole kHz below 1 MHz -> "5 kHz", whole MHz
// -> "4 MHz", anything else -> "<n> Hz".
QString FrequencyToText(U64 Hz);

// Truth words: "true", "enabled", "active", "yes", "on" and non-zero numbers
// are true; "false", "disabled", "inactive", "no", "off" and 0 are false. Any
// other text returns false and leaves Out as it was.
bool ParseTruth(const QString& sText, bool& Out);

// The row of a value table that a user names: a number below Count (any other
// number names no row), else the first row whose Name matches, ignoring case,
// then, with MatchLabel, the first whose Label does. -1 if none.
template <class Row, size_t Count>
int FindRow(const QString& sText, const Row (&Rows)[Count], bool MatchLabel = false) {
  const QString s = sText.trimmed();
  I64 n = 0;
  if (ParseInt(s, n)) return n >= 0 && n < static_cast<I64>(Count) ? static_cast<int>(n) : -1;
  for (size_t i = 0; i < Count; ++i)
    if (s.compare(QLatin1String(Rows[i].Name), Qt::CaseInsensitive) == 0) return static_cast<int>(i);
  if (MatchLabel)
    for (size_t i = 0; i < Count; ++i)
      if (s.compare(QLatin1String(Rows[i].Label), Qt::CaseInsensitive) == 0) return static_cast<int>(i);
  return -1;
}

}  // namespace SettingsText
