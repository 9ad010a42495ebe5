#include "elf/symbol/numtext.h"

#include <cstring>

SYMBOL_PREFS& SYM_Prefs() {
  static SYMBOL_PREFS s;
  return s;
}

QChar SYM_SeparatorChar(int Pref) {
  switch (Pref) {
    case 1: return QLatin1Char(' ');
    case 2: return QLatin1Char(',');
    case 3: return QLatin1Char(':');
    default: return QChar(0x2008);
  }
}

QString HexText(U64 Value, int Width, bool Prefix, bool Blocks) {
  int Digits = 1;
  for (U64 v = Value >> 4; v; v >>= 4) ++Digits;
  if (Width <= 0) Width = Digits;
  if (Width > 20) Width = 20;
  QString s = QString::number(Value, 16).toUpper();
  if (s.size() < Width) s = QString(Width - s.size(), QLatin1Char('0')) + s;
  if (Blocks && SYM_Prefs().showHexBlocks) {
    if (Width > 5) {
      const int Groups = (Width + 3) / 4;
      if (s.size() < Groups * 4) s = QString(Groups * 4 - s.size(), QLatin1Char('0')) + s;
      QString Out;
      const QChar Sep = SYM_SeparatorChar(SYM_Prefs().hexBlockSeparator);
      for (int g = 0; g < s.size(); g += 4) {
        if (g) Out += Sep;
        Out += s.mid(g, 4);
      }
      return Out;
    }
    return "0x" + s;
  }
  return Prefix ? "0x" + s : s;
}

QString DecTextU(U64 Value, bool Blocks) {
  const QString s = QString::number(Value);
  if (!Blocks || Value < 1000) return s;
  const QChar Sep = SYM_SeparatorChar(SYM_Prefs().decBlockSeparator);
  QString Out;
  const int n = s.size();
  for (int i = 0; i < n; ++i) {
    if (i && (n - i) % 3 == 0) Out += Sep;
    Out += s[i];
  }
  return Out;
}

QString DecText(I64 Value, bool Blocks) {
  if (Value >= 0) return DecTextU((U64)Value, Blocks);
  return "-" + DecTextU(0 - (U64)Value, Blocks);
}

QString BinaryText(U64 Value, int Width, bool Prefix, int Group) {
  QString s = QString::number(Value, 2);
  if (Width > 64) Width = 64;
  if (s.size() < Width) s = QString(Width - s.size(), QLatin1Char('0')) + s;
  if (Group > 0) {
    QString g;
    const int n = s.size();
    for (int i = 0; i < n; ++i) {
      if (i && (n - i) % Group == 0) g += QLatin1Char(' ');
      g += s[i];
    }
    s = g;
  }
  return Prefix ? "b'" + s : s;
}

QString CharText(U32 Code) {
  QString s;
  if (Code == '\n') s = "\\n";
  else if (Code == '\r') s = "\\r";
  else if (Code == 0) s = "\\0";
  else if (Code >= 0x20 && Code < 0x7F) s = QChar(char16_t(Code));
  else s = QString("\\%1").arg(Code & 0xFFFFFFFFu, 3, 10, QLatin1Char('0'));
  return "'" + s + "'";
}

QString DoubleText(double Value) { return QString::number(Value, 'g', 20); }

namespace {
U64 ReadLe(const QByteArray& b, int n) {
  U64 v = 0;
  for (int i = n - 1; i >= 0; --i) v = (v << 8) | (U8)(i < b.size() ? b[i] : 0);
  return v;
}
}  // namespace

QString NumberText(const QByteArray& Bytes, U32 Class, int Format, int Width, bool Prefix) {
  if (Format == 0) Format = (Class == 0 || Class == 128) ? 16 : 10;
  if (Class == 135 || Class == 6) {
    if (Class == 6 && Bytes.size() >= 8) {
      double d;
      const U64 v = ReadLe(Bytes, 8);
      memcpy(&d, &v, 8);
      return DoubleText(d);
    }
    float f;
    const U32 v = (U32)ReadLe(Bytes, 4);
    memcpy(&f, &v, 4);
    return DoubleText((double)f);
  }
  if (Class == 1) return (!Bytes.isEmpty() && Bytes[0]) ? "1" : "0";
  if (Format == 8) return CharText(Bytes.isEmpty() ? 0 : (U8)Bytes[0]);
  if (Format == 2) return BinaryText(ReadLe(Bytes, 4), Width, Prefix, 0);
  if (Format != 10 && Format != 16) return QString();
  if (Class > 134) return QString();
  if (Format == 16) {
    switch (Class) {
      case 0: case 4: case 5: case 128: return HexText(ReadLe(Bytes, 8), Width ? Width : 0, Prefix, true);
      case 2: case 3: case 129: case 132: return HexText(ReadLe(Bytes, 4), Width, Prefix, true);
      case 130: case 133: return HexText(ReadLe(Bytes, 2), Width, Prefix, true);
      case 131: case 134: return HexText(ReadLe(Bytes, 1), Width, Prefix, true);
      default: return QString();
    }
  }
  switch (Class) {
    case 0: return QString::number(ReadLe(Bytes, 8));
    case 2: case 129: return DecText((I32)(U32)ReadLe(Bytes, 4), true);
    case 3: case 132: return DecTextU((U32)ReadLe(Bytes, 4), true);
    case 4: return DecText((I64)ReadLe(Bytes, 8), true);
    case 5: return DecTextU(ReadLe(Bytes, 8), true);
    case 130: return DecText((I16)(U16)ReadLe(Bytes, 2), true);
    case 133: return DecTextU((U16)ReadLe(Bytes, 2), true);
    case 131: return DecText((I8)(U8)ReadLe(Bytes, 1), false);
    case 134: return DecTextU((U8)ReadLe(Bytes, 1), false);
    case 128: return HexText(ReadLe(Bytes, 8), Width, Prefix, true);
    default: return QString();
  }
}
