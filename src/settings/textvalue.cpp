#include "settings/textvalue.h"

#include <QRegularExpression>
#include <cmath>
#include <limits>

namespace SettingsText {

namespace {

// Qt's base-0 conversion does the C-style prefixes; a leading '+' is allowed
// by it too, which is fine for user input.
QString Clean(const QString& sText) { return sText.trimmed(); }

}  // namespace

bool ParseInt(const QString& sText, I64& Out) {
  const QString s = Clean(sText);
  if (s.isEmpty()) return false;
  bool ok = false;
  const qlonglong v = s.toLongLong(&ok, 0);
  if (ok) {
    Out = v;
    return true;
  }
  // Values above the signed range, e.g. 0xFFFFFFFFFFFFFFFF, still are numbers
  // for unsigned 64-bit rows; signed callers see them as the two's complement.
  U64 u = 0;
  if (!s.startsWith(QLatin1Char('-')) && ParseUInt(s, u)) {
    Out = static_cast<I64>(u);
    return true;
  }
  return false;
}

bool ParseUInt(const QString& sText, U64& Out) {
  const QString s = Clean(sText);
  if (s.isEmpty() || s.startsWith(QLatin1Char('-'))) return false;
  bool ok = false;
  const qulonglong v = s.toULongLong(&ok, 0);
  if (!ok) return false;
  Out = v;
  return true;
}

I64 FrequencyFromText(const QString& sText) {
  const QString t = sText.trimmed();
  if (t.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0) return 0;
  if (t.compare(QLatin1String("adaptive"), Qt::CaseInsensitive) == 0) return 65535;
  const QString lower = t.toLower();
  U64 mult = 1;
  if (lower.contains(QLatin1String("khz")))
    mult = 1000;
  else if (lower.contains(QLatin1String("mhz")))
    mult = 1000000;
  else if (lower.contains(QLatin1String("ghz")))
    mult = 1000000000;
  QString rest = t.simplified();
  for (const char* unit : {"kHz", "MHz", "GHz", "Hz"})
    rest.remove(QLatin1String(unit), Qt::CaseInsensitive);
  rest = rest.trimmed();
  if (rest.isEmpty()) return -1;

  U64 whole = 0;
  if (ParseUInt(rest, whole)) {
    if (whole > static_cast<U64>(std::numeric_limits<I64>::max()) / mult) return -1;
    return static_cast<I64>(whole * mult);
  }
  // A decimal fraction, with "," accepted as the decimal separator. Only plain
  // digits are taken, so "inf", "nan" or exponents never get through.
  rest.replace(QLatin1Char(','), QLatin1Char('.'));
  static const QRegularExpression kFraction(QStringLiteral("^[0-9]*\\.?[0-9]+$|^[0-9]+\\.$"));
  if (!kFraction.match(rest).hasMatch()) return -1;
  bool ok = false;
  const double d = rest.toDouble(&ok);
  if (!ok) return -1;
  const double hz = std::round(d * static_cast<double>(mult));
  if (!(hz >= 0.0) || hz >= 9.2e18) return -1;
  return static_cast<I64>(hz);
}

QString FrequencyToText(U64 Hz) {
  if (Hz == 0) return QStringLiteral("auto");
  if (Hz == 65535) return QStringLiteral("adaptive");
  if (Hz >= 1000 && Hz <= 999999 && Hz % 1000 == 0)
    return QStringLiteral("%1 kHz").arg(Hz / 1000);
  if (Hz >= 1000000 && Hz % 1000000 == 0) return QStringLiteral("%1 MHz").arg(Hz / 1000000);
  return QStringLiteral("%1 Hz").arg(Hz);
}

bool ParseTruth(const QString& sText, bool& Out) {
  const QString s = sText.trimmed();
  for (const char* w : {"true", "enabled", "active", "yes", "on"})
    if (s.compare(QLatin1String(w), Qt::CaseInsensitive) == 0) {
      Out = true;
      return true;
    }
  for (const char* w : {"false", "disabled", "inactive", "no", "off"})
    if (s.compare(QLatin1String(w), Qt::CaseInsensitive) == 0) {
      Out = false;
      return true;
    }
  I64 v = 0;
  if (ParseInt(s, v)) {
    Out = v != 0;
    return true;
  }
  return false;
}

}  // namespace SettingsText
