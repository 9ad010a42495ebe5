#include "elf/symbol/symdump.h"

#include "elf/symbol/exprsnapshot.h"

void SYM_LoadValue(CSymbol& s) {
  if (s.IsArray()) {
    s.LoadFromBlock(-1, s.GetSize(), nullptr);
    if (s.ShowsText()) {
      I64 a;
      QByteArray b;
      const U32 n = s.GetSize() < 1000 ? s.GetSize() : 1000;
      if (s.GetAddress(a) && n && ELF_GetTargetAccess().ReadMemory((U32)a, n, QString(), b) == TARGET_READ_OK) s.SetTextData(b);
    }
    return;
  }
  if (s.byteSize >= 1 && s.byteSize <= 8 && s.HasLocation()) s.LoadFromBlock(-1, s.byteSize, nullptr);
  if (s.IsPointer() && s.ShowsText() && !s.data.isEmpty()) {
    const I64 p = s.GetPointerValue();
    QByteArray b, Text;
    // The text behind a char pointer, read in pieces up to its NUL.
    for (U32 Off = 0; p > 0 && Off < 256; Off += 16) {
      if (ELF_GetTargetAccess().ReadMemory((U32)p + Off, 16, QString(), b) != TARGET_READ_OK) break;
      Text += b;
      if (b.contains('\0')) break;
    }
    if (!Text.isEmpty()) s.SetTextData(Text);
  }
}

static void Dump(CSymbol& s, I64 Base, int Depth, int MaxDepth, QStringList& Out) {
  SYM_LoadValue(s);
  I64 a = -1;
  const bool HasAddr = s.GetAddress(a);
  QString Line = QString(Depth * 2, QLatin1Char(' ')) + s.GetDisplayName() + " | " + s.GetTypeText() + " | ";
  Line += HasAddr && Base >= 0 ? QString::number(a - Base) : QString("-");
  Line += " | " + QString::number(s.GetSize());
  Line += " | " + s.GetValueText(DISPLAY_FORMAT_DEC, true) + " | " + s.GetValueText(DISPLAY_FORMAT_HEX, false);
  Out << Line;
  if (Depth >= MaxDepth || s.IsPointer()) return;
  const int n = s.GetChildCount();
  for (int i = 0; i < n; ++i) {
    CSymbol& c = s.GetChild(i);
    if (c.IsEmpty()) continue;
    Dump(c, Base, Depth + 1, MaxDepth, Out);
  }
}

QStringList SYM_DumpTree(CSymbol& s, int MaxDepth) {
  QStringList Out;
  I64 Base = -1;
  s.GetAddress(Base);
  Dump(s, Base, 0, MaxDepth, Out);
  return Out;
}

CSymbol SYM_MakeGlobal(const QString& sName) {
  const QList<ELF_SYM_HANDLE> Found = FindSymbols(sName, true, false, false, true, true);
  if (Found.isEmpty()) return CSymbol();
  return CSymbol(Found.first(), -1, 0);
}
