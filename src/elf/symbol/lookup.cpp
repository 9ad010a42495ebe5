// Name services of the ELF-API wrapper: look-up by name per category,
// scopes and qualified names, and the text-to-address resolver.
#include "elf/symbol/symbol.h"

#include "elf/elfapi.h"

#include <QFileInfo>
#include <QMutexLocker>

namespace {

using NAME_TABLE = QHash<QString, QList<ELF_SYM_HANDLE>>;

struct NAME_TABLES {
  U64 identity = 0;
  bool builtDebug = false, builtTypes = false, builtElf = false;
  NAME_TABLE globals, inlined, functions, namespaces, units, types, elfFunctions;
  QHash<ELF_SYM_HANDLE, QString> scopes;
  // Locals of the function at the current PC; dropped when that changes.
  U32 pc = 0xFFFFFFFFu;
  ELF_SYM_HANDLE function = 0;
  bool builtLocals = false;
  NAME_TABLE locals;
  // Locations of locals at a PC, for the current stop.
  QHash<QPair<ELF_SYM_HANDLE, U32>, ELF_SYM_LOC> stopLocations;
};

NAME_TABLES& Tables() {
  static NAME_TABLES t;
  const U64 Identity = SYM_GetProgramIdentity();
  if (t.identity != Identity) {
    t = NAME_TABLES();
    t.identity = Identity;
  }
  return t;
}

void AddList(NAME_TABLE& Table, ELF_FILE* f, int List) {
  const int n = ELF_GetListCount(f, List);
  for (int i = 0; i < n; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, List, i);
    const QString sName = QString::fromUtf8(ELF_GetName(h));
    if (sName.isEmpty()) continue;
    Table[sName] << h;
    if (List == ELF_LIST_UNITS) {
      const QString sFile = QFileInfo(sName).fileName();
      if (sFile != sName) Table[sFile] << h;
    }
  }
}

void Build(NAME_TABLES& t, bool Debug, bool Types, bool Elf) {
  ELF_FILE* f = CElfApi::Instance().GetFile();
  if (!f) return;
  if (Debug && !t.builtDebug) {
    AddList(t.globals, f, ELF_LIST_GLOBALS);
    AddList(t.inlined, f, ELF_LIST_INLINED);
    AddList(t.functions, f, ELF_LIST_FUNCTIONS);
    AddList(t.namespaces, f, ELF_LIST_NAMESPACES);
    AddList(t.units, f, ELF_LIST_UNITS);
    t.builtDebug = true;
  }
  if (Types && !t.builtTypes) {
    AddList(t.types, f, ELF_LIST_TYPES);
    t.builtTypes = true;
  }
  if (Elf && !t.builtElf) {
    const int n = ELF_GetNumFunctionSymbols(f);
    for (int i = 0; i < n; ++i) {
      const ELF_SYM_HANDLE h = ELF_GetFunctionSymbol(f, i);
      const QString sName = QString::fromUtf8(ELF_GetSymbolName(h));
      if (!sName.isEmpty()) t.elfFunctions[sName] << h;
    }
    t.builtElf = true;
  }
}

// The innermost function whose first range holds the address.
ELF_SYM_HANDLE FunctionAt(ELF_FILE* f, U32 Pc) {
  ELF_SYM_HANDLE Best = 0;
  U32 BestSize = 0xFFFFFFFFu;
  const int n = ELF_GetListCount(f, ELF_LIST_FUNCTIONS);
  for (int i = 0; i < n; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i);
    for (const ELF_RANGE& r : ELF_GetRanges(h))
      if (r.start <= Pc && Pc < r.end && r.end - r.start < BestSize) {
        Best = h;
        BestSize = r.end - r.start;
      }
  }
  return Best;
}

bool Holds(ELF_SYM_HANDLE h, U32 Pc) {
  for (const ELF_RANGE& r : ELF_GetRanges(h))
    if (r.start <= Pc && Pc < r.end) return true;
  return false;
}

// The innermost entry below h with one of the tags that holds the address.
ELF_SYM_HANDLE InnermostBelow(ELF_SYM_HANDLE h, U32 Pc, bool Blocks, int Depth) {
  if (Depth > 64) return h;
  for (ELF_SYM_HANDLE c = ELF_GetFirstChild(h); c; c = ELF_GetNextSibling(c)) {
    const U32 Tag = ELF_GetTag(c);
    if (Tag != ELF_TAG_INLINED && Tag != 11) continue;
    if (!Holds(c, Pc)) continue;
    const ELF_SYM_HANDLE Inner = InnermostBelow(c, Pc, Blocks, Depth + 1);
    if (Inner != c) return Inner;
    if (Tag == ELF_TAG_INLINED || Blocks) return c;
  }
  return h;
}

void BuildLocals(NAME_TABLES& t) {
  if (t.builtLocals) return;
  t.builtLocals = true;
  ELF_FILE* f = CElfApi::Instance().GetFile();
  if (!f || t.pc == 0xFFFFFFFFu) return;
  t.function = FunctionAt(f, t.pc);
  if (!t.function) return;
  const int n = ELF_GetLocalCount(t.function);
  for (int i = 0; i < n; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetLocal(t.function, i);
    const QString sName = QString::fromUtf8(ELF_GetName(h));
    if (!sName.isEmpty() && sName != QLatin1String("this")) t.locals[sName] << h;
  }
  // "this" is the object pointer of the current function alone.
  if (const ELF_SYM_HANDLE o = ELF_GetObjectPointer(t.function)) t.locals["this"] << o;
}

}  // namespace

void SYM_SetCurrentPc(U32 Pc) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  NAME_TABLES& t = Tables();
  // Every announcement is a new stop: register-relative results go.
  t.stopLocations.clear();
  if (t.pc == Pc) return;
  t.pc = Pc;
  ELF_FILE* f = CElfApi::Instance().GetFile();
  const ELF_SYM_HANDLE Function = f && Pc != 0xFFFFFFFFu ? FunctionAt(f, Pc) : 0;
  if (Function != t.function || !Function) {
    // Another function: its locals are fetched once, now.
    t.locals.clear();
    t.builtLocals = false;
    t.function = Function;
    if (Function) BuildLocals(t);
  }
}

ELF_SYM_LOC SYM_GetLocalLocation(ELF_SYM_HANDLE Handle, U32 Pc) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  NAME_TABLES& t = Tables();
  const QPair<ELF_SYM_HANDLE, U32> Key(Handle, Pc);
  auto it = t.stopLocations.constFind(Key);
  if (it != t.stopLocations.constEnd()) return *it;
  if (t.stopLocations.size() > 100000) t.stopLocations.clear();
  const ELF_SYM_LOC l = ELF_GetSymbolLocation(Handle, Pc);
  t.stopLocations.insert(Key, l);
  return l;
}

ELF_SYM_HANDLE SYM_GetFunctionAt(U32 Pc) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  ELF_FILE* f = CElfApi::Instance().GetFile();
  if (!f || Pc == 0xFFFFFFFFu) return 0;
  const ELF_SYM_HANDLE Function = FunctionAt(f, Pc);
  return Function ? InnermostBelow(Function, Pc, false, 0) : 0;
}

ELF_SYM_HANDLE SYM_GetScopeAt(U32 Pc) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  ELF_FILE* f = CElfApi::Instance().GetFile();
  if (!f || Pc == 0xFFFFFFFFu) return 0;
  if (const ELF_SYM_HANDLE Function = FunctionAt(f, Pc)) return InnermostBelow(Function, Pc, true, 0);
  const int n = ELF_GetListCount(f, ELF_LIST_UNITS);
  for (int i = 0; i < n; ++i) {
    const ELF_SYM_HANDLE u = ELF_GetListItem(f, ELF_LIST_UNITS, i);
    if (Holds(u, Pc)) return u;
  }
  return 0;
}

U32 SYM_GetCurrentPc() {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  return Tables().pc;
}

void SYM_ResetTables() {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  Tables() = NAME_TABLES();
}

QList<ELF_SYM_HANDLE> FindSymbols(const QString& sName, bool DebugSymbols, bool Locals, bool Types, bool ElfFunctions,
                                  bool Sort) {
  QList<ELF_SYM_HANDLE> Out;
  if (sName.isEmpty()) return Out;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  NAME_TABLES& t = Tables();
  Build(t, DebugSymbols, Types, ElfFunctions);
  // Locals belong to the function at the current PC (SYM_SetCurrentPc).
  if (Locals) {
    BuildLocals(t);
    Out += t.locals.value(sName);
  }
  QList<ELF_SYM_HANDLE> Inlined;
  if (DebugSymbols) {
    Out += t.globals.value(sName);
    Inlined = t.inlined.value(sName);
    Out += Inlined;
    Out += t.functions.value(sName);
    Out += t.namespaces.value(sName);
    Out += t.units.value(sName);
  }
  if (Types) Out += t.types.value(sName);
  QList<ELF_SYM_HANDLE> Elf;
  if (ElfFunctions) Elf = t.elfFunctions.value(sName);
  Out += Elf;
  if (Sort && Out.size() > 1 && !Inlined.isEmpty()) {
    QList<ELF_SYM_HANDLE> Sorted;
    for (int i = Inlined.size() - 1; i >= 0; --i) Sorted << Inlined[i];
    for (ELF_SYM_HANDLE h : Out)
      if (!Inlined.contains(h) && ELF_IsDieHandle(h)) Sorted << h;
    for (ELF_SYM_HANDLE h : Out)
      if (!ELF_IsDieHandle(h)) Sorted << h;
    Out = Sorted;
  }
  return Out;
}

QString GetSymbolScope(ELF_SYM_HANDLE Handle) {
  if (!Handle || !ELF_IsDieHandle(Handle)) return QString();
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  NAME_TABLES& t = Tables();
  auto it = t.scopes.constFind(Handle);
  if (it != t.scopes.constEnd()) return *it;
  const U32 OwnTag = ELF_GetTag(Handle);
  QStringList Parts;  // innermost first
  bool MetScope = false;
  int Guard = 0;
  for (ELF_SYM_HANDLE p = ELF_GetParent(Handle); p && Guard < 256; p = ELF_GetParent(p), ++Guard) {
    const U32 Tag = ELF_GetTag(p);
    if (Tag == ELF_TAG_COMPILE_UNIT) {
      if (!MetScope && OwnTag != ELF_TAG_COMPILE_UNIT && OwnTag != ELF_TAG_NAMESPACE && OwnTag != ELF_TAG_CLASS) {
        const QString sFile = QFileInfo(QString::fromUtf8(ELF_GetName(p))).fileName();
        if (!sFile.isEmpty()) Parts << sFile;
      }
      break;
    }
    if (Tag == 11 || Tag == ELF_TAG_SUBPROGRAM || Tag == ELF_TAG_CLASS || Tag == ELF_TAG_NAMESPACE) {
      if (Tag == ELF_TAG_CLASS || Tag == ELF_TAG_NAMESPACE) MetScope = true;
      const QString s = QString::fromUtf8(ELF_GetName(p));
      if (!s.isEmpty()) Parts << s;
    }
  }
  QStringList Outer;
  for (int i = Parts.size() - 1; i >= 0; --i) Outer << Parts[i];
  const QString s = Outer.join("::");
  t.scopes.insert(Handle, s);
  return s;
}

QString GetQualifiedName(ELF_SYM_HANDLE Handle, int Mode) {
  QString sName;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    sName = QString::fromUtf8(ELF_GetName(Handle));
  }
  if (Mode == 0) return sName;
  if (Mode == 2 && FindSymbols(sName, true, true, false, false, true).size() <= 1) return sName;
  const QString sScope = GetSymbolScope(Handle);
  return sScope.isEmpty() ? sName : sScope + "::" + sName;
}

CAddrRange ResolveToAddress(const QString& sText, int& Kind) {
  Kind = -1;
  const QString s = sText.trimmed();
  bool ok = false;
  QString Hex = s;
  if (Hex.startsWith("0x", Qt::CaseInsensitive)) Hex = Hex.mid(2);
  const U64 v = Hex.toULongLong(&ok, 16);
  if (ok && !Hex.isEmpty() && v <= 0xFFFFFFFFull) {
    Kind = 0;
    return CAddrRange((U32)v, 0);
  }
  const QList<ELF_SYM_HANDLE> Found = FindSymbols(s, true, true, false, true, true);
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  for (ELF_SYM_HANDLE h : Found) {
    if (ELF_IsDieHandle(h)) {
      const std::vector<ELF_RANGE> r = ELF_GetRanges(h);
      if (!r.empty()) {
        Kind = 2;
        return CAddrRange(r[0].start, r[0].end - r[0].start);
      }
      U32 Addr;
      if (ELF_GetStaticAddress(h, &Addr)) {
        Kind = 2;
        return CAddrRange(Addr, ELF_GetSize(h));
      }
    } else {
      Kind = 2;
      const U32 a = ELF_GetSymbolValue(h);
      return CAddrRange(ELF_IsFunctionType(ELF_GetSymbolType(h)) ? (a & ~1u) : a, ELF_GetSymbolSize(h));
    }
  }
  return CAddrRange(0, 0);
}
