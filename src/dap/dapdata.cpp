// Values, memory and instructions for the adapter: scopes and variables over
// the symbol service (locals of a frame, registers of the frame, children
// made on demand), evaluate (repl lines are console commands), setVariable
// and writeMemory through the Target.* commands, readMemory through the
// device's synchronous access, disassemble from the instruction cache.
#include "dap/dapadapter.h"

#include "commands/actions.h"
#include "device/device.h"
#include "device/targetmem.h"
#include "disasm/instcache.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "expr/evaluator.h"
#include "files/filefinder.h"
#include "stack/callstack.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QMutexLocker>

namespace {

const char* const kRegNames[16] = {"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7",
                                   "R8", "R9", "R10", "R11", "R12", "SP", "LR", "PC"};

bool ParseNumber(const QString& s, U64* pValue) {
  bool Ok = false;
  const QString t = s.trimmed();
  if (t.startsWith(QLatin1Char('-'))) {
    const qint64 v = t.toLongLong(&Ok, 10);
    *pValue = U64(v);
    return Ok;
  }
  *pValue = t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) ? t.mid(2).toULongLong(&Ok, 16) : t.toULongLong(&Ok, 10);
  return Ok;
}

QString Hex8(U64 v) { return QStringLiteral("0x%1").arg(v & 0xFFFFFFFFull, 8, 16, QLatin1Char('0')); }

// The value text of a symbol: structures and unions show their type, a
// scalar reads its bytes from the target when it has none yet.
QString ValueText(CSymbol* p) {
  if (p->GetChildCount() > 0 && !p->IsPointer() && !p->IsArray()) return QStringLiteral("{...}");
  if (!p->HasValue() && !p->IsArray()) p->LoadFromBlock(-1, p->GetSize(), nullptr);
  const QString s = p->GetValueText();
  return s.isEmpty() && p->IsArray() ? p->GetTypeText() : s;
}

}  // namespace

int CDapAdapter::AddRef(const VAR_REF& r) {
  const int Id = m_NextRef++;
  m_Refs.insert(Id, r);
  return Id;
}

void CDapAdapter::ForgetRefs() {
  m_Refs.clear();
  m_Keep.clear();
  m_NextRef = 1;
}

QJsonObject CDapAdapter::VariableOf(const QString& sName, CSymbol* pSym, const std::shared_ptr<CSymbol>& pRoot) {
  QJsonObject v{{QStringLiteral("name"), sName},
                {QStringLiteral("value"), ValueText(pSym)},
                {QStringLiteral("type"), pSym->GetTypeText()},
                {QStringLiteral("variablesReference"), 0}};
  const I64 Addr = pSym->GetAddress();
  if (Addr >= 0) v.insert(QStringLiteral("memoryReference"), Hex8(U64(Addr)));
  if (pSym->GetChildCount() > 0) {
    VAR_REF r;
    r.Kind = 4;
    r.pRoot = pRoot;
    r.pSym = pSym;
    v.insert(QStringLiteral("variablesReference"), AddRef(r));
    v.insert(QStringLiteral("namedVariables"), pSym->GetChildCount());
  }
  return v;
}

DAP_REPLY CDapAdapter::Scopes(const QJsonObject& a) {
  if (const QString e = HaltedError(); !e.isEmpty()) return DAP_REPLY::Fail(e);
  const int Frame = a.value(QStringLiteral("frameId")).toInt() - 1;
  if (Frame < 0 || Frame >= CCallStack::Instance().FrameCount()) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  QJsonArray Out;
  VAR_REF r;
  r.Frame = Frame;
  r.Kind = 1;
  Out.append(QJsonObject{{QStringLiteral("name"), QStringLiteral("Locals")}, {QStringLiteral("presentationHint"), QStringLiteral("locals")},
                         {QStringLiteral("variablesReference"), AddRef(r)}, {QStringLiteral("expensive"), false}});
  r.Kind = 2;
  Out.append(QJsonObject{{QStringLiteral("name"), QStringLiteral("Registers")}, {QStringLiteral("presentationHint"), QStringLiteral("registers")},
                         {QStringLiteral("variablesReference"), AddRef(r)}, {QStringLiteral("expensive"), false}});
  r.Kind = 3;
  Out.append(QJsonObject{{QStringLiteral("name"), QStringLiteral("Globals")}, {QStringLiteral("variablesReference"), AddRef(r)},
                         {QStringLiteral("expensive"), true}});
  return DAP_REPLY::Done({{QStringLiteral("scopes"), Out}});
}

DAP_REPLY CDapAdapter::Variables(const QJsonObject& a) {
  if (const QString e = HaltedError(); !e.isEmpty()) return DAP_REPLY::Fail(e);
  const auto It = m_Refs.constFind(a.value(QStringLiteral("variablesReference")).toInt());
  if (It == m_Refs.constEnd()) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  const VAR_REF r = *It;
  const int Start = std::max(0, a.value(QStringLiteral("start")).toInt());
  const int Count = a.value(QStringLiteral("count")).toInt();
  QJsonArray Out;
  CCallStack& Stack = CCallStack::Instance();
  if (r.Kind == 1) {
    // The locals of the frame's function as symbols of the symbol service,
    // located in that frame.
    const CCallFrame F = Stack.GetFrame(r.Frame);
    const int Before = Stack.SelectedFrame();
    Stack.SetSelectedFrame(r.Frame);
    U64 Pc = 0;
    Stack.GetRegister(F, Stack.Facts().pcRegister, Pc);
    std::vector<ELF_SYM_HANDLE> Locals;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      const int n = F.function ? ELF_GetLocalCount(F.function) : 0;
      for (int i = 0; i < n; ++i) Locals.push_back(ELF_GetLocal(F.function, i));
    }
    for (size_t i = 0; i < Locals.size(); ++i) {
      auto p = std::make_shared<CSymbol>(Locals[i], I64(Pc), int(i));
      if (p->IsEmpty() || p->GetDisplayName().isEmpty()) continue;
      m_Keep.append(p);
      Out.append(VariableOf(p->GetDisplayName(), p.get(), p));
    }
    Stack.SetSelectedFrame(Before);
  } else if (r.Kind == 2) {
    const CCallFrame F = Stack.GetFrame(r.Frame);
    for (U32 i = 0; i < 16; ++i) {
      U64 v = 0;
      const bool Known = Stack.GetRegister(F, i, v);
      Out.append(QJsonObject{{QStringLiteral("name"), QLatin1String(kRegNames[i])},
                             {QStringLiteral("value"), Known ? Hex8(v) : QStringLiteral("<unknown>")},
                             {QStringLiteral("variablesReference"), 0}});
    }
  } else if (r.Kind == 3) {
    // The program's global variables, in the order of the symbol service's list.
    std::vector<ELF_SYM_HANDLE> Globals;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      if (CElfApi::Instance().IsLoaded()) Globals = DWARF_GetProgramTables().GetGlobalVariableList();
    }
    for (size_t i = size_t(Start); i < Globals.size() && (Count <= 0 || Out.size() < Count); ++i) {
      auto p = std::make_shared<CSymbol>(Globals[i], -1, int(i));
      if (p->IsEmpty() || p->GetDisplayName().isEmpty()) continue;
      m_Keep.append(p);
      Out.append(VariableOf(p->GetDisplayName(), p.get(), p));
    }
  } else if (r.Kind == 4 && r.pSym) {
    const int n = r.pSym->GetChildCount();
    for (int i = Start; i < n && (Count <= 0 || Out.size() < Count); ++i) {
      CSymbol& c = r.pSym->GetChild(i);
      if (c.IsEmpty()) continue;
      Out.append(VariableOf(c.GetDisplayName(), &c, r.pRoot));
    }
  }
  return DAP_REPLY::Done({{QStringLiteral("variables"), Out}});
}

DAP_REPLY CDapAdapter::SetVariable(const QJsonObject& a) {
  if (const QString e = HaltedError(); !e.isEmpty()) return DAP_REPLY::Fail(e);
  const auto It = m_Refs.constFind(a.value(QStringLiteral("variablesReference")).toInt());
  if (It == m_Refs.constEnd()) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  const VAR_REF r = *It;
  const QString sName = a.value(QStringLiteral("name")).toString();
  const QString sValue = a.value(QStringLiteral("value")).toString();
  U64 Value = 0;
  if (!ParseNumber(sValue, &Value)) {
    std::shared_ptr<CSymbol> v = EvaluateSymbol(sValue);
    if (!v || v->IsEmpty()) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
    Value = U64(v->ReadInteger());
  }
  if (r.Kind == 2) {
    if (r.Frame != 0) return DAP_REPLY::Fail(QStringLiteral("registers of outer frames are read-only"));
    const DAP_REPLY w = RunCommand(QStringLiteral("Target.SetReg(\"%1\", 0x%2)").arg(sName).arg(Value & 0xFFFFFFFFull, 0, 16));
    if (!w.Ok) return w;
    return DAP_REPLY::Done({{QStringLiteral("value"), Hex8(Value)}});
  }
  // The symbol: a local by name, or a child of a symbol by display name.
  CSymbol* pSym = nullptr;
  std::shared_ptr<CSymbol> pRoot;
  if (r.Kind == 1) {
    for (const std::shared_ptr<CSymbol>& p : std::as_const(m_Keep))
      if (p->GetDisplayName() == sName) pSym = p.get();
  } else if (r.Kind == 4 && r.pSym) {
    pRoot = r.pRoot;
    for (int i = 0; i < r.pSym->GetChildCount() && !pSym; ++i)
      if (r.pSym->GetChild(i).GetDisplayName() == sName) pSym = &r.pSym->GetChild(i);
  }
  if (!pSym || pSym->IsEmpty()) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  const I64 Addr = pSym->GetAddress();
  const U32 Size = pSym->GetSize();
  static const QHash<U32, const char*> kWriters{{1, "Target.WriteU8"}, {2, "Target.WriteU16"}, {4, "Target.WriteU32"}, {8, "Target.WriteU64"}};
  if (Addr < 0 || !kWriters.contains(Size)) return DAP_REPLY::Fail(QStringLiteral("%1 cannot be written: not a scalar in memory").arg(sName));
  const DAP_REPLY w = RunCommand(QStringLiteral("%1(0x%2, 0x%3)").arg(QLatin1String(kWriters.value(Size))).arg(U64(Addr), 0, 16).arg(Value, 0, 16));
  if (!w.Ok) return w;
  pSym->ClearData();
  return DAP_REPLY::Done({{QStringLiteral("value"), ValueText(pSym)}, {QStringLiteral("type"), pSym->GetTypeText()}});
}

DAP_REPLY CDapAdapter::Evaluate(const QJsonObject& a) {
  const QString sText = a.value(QStringLiteral("expression")).toString();
  if (a.value(QStringLiteral("context")).toString() == QLatin1String("repl")) {
    DAP_REPLY r = RunCommand(sText);
    if (!r.Ok) return r;
    r.Body.insert(QStringLiteral("variablesReference"), 0);
    return r;
  }
  const int Frame = a.value(QStringLiteral("frameId")).toInt(1) - 1;
  CCallStack& Stack = CCallStack::Instance();
  const int Before = Stack.SelectedFrame();
  if (Frame >= 0 && Frame < Stack.FrameCount()) Stack.SetSelectedFrame(Frame);
  CExpression e(sText);
  const int Status = e.GetStatus() < 0 ? e.GetStatus() : ::Evaluate(e);
  std::shared_ptr<CSymbol> p = GetResult(e);
  Stack.SetSelectedFrame(Before);
  // A structure has no value as a number (-5), but its members are shown.
  const bool Aggregate = Status == -5 && p && p->GetChildCount() > 0;
  if (!p || p->IsEmpty()) return DAP_REPLY::Fail(QStringLiteral("Error parsing expression"));
  if (Status < 0 && !Aggregate) return DAP_REPLY::Fail(QStringLiteral("Error evaluating expression.: ") + e.GetError());
  m_Keep.append(p);
  QJsonObject v = VariableOf(sText, p.get(), p);
  QJsonObject Body{{QStringLiteral("result"), v.value(QStringLiteral("value"))},
                   {QStringLiteral("type"), v.value(QStringLiteral("type"))},
                   {QStringLiteral("variablesReference"), v.value(QStringLiteral("variablesReference"))}};
  if (v.contains(QStringLiteral("memoryReference"))) Body.insert(QStringLiteral("memoryReference"), v.value(QStringLiteral("memoryReference")));
  return DAP_REPLY::Done(Body);
}

DAP_REPLY CDapAdapter::Disassemble(const QJsonObject& a) {
  U64 Addr = 0;
  if (!ParseNumber(a.value(QStringLiteral("memoryReference")).toString(), &Addr)) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  Addr = (Addr + U64(a.value(QStringLiteral("offset")).toInteger())) & ~1ull;
  const int Count = a.value(QStringLiteral("instructionCount")).toInt();
  if (Count <= 0 || Count > 10000) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  int Offset = a.value(QStringLiteral("instructionOffset")).toInt();
  for (; Offset < 0; ++Offset) {
    U64 Prev = 0;
    if (GetPrevInst(Addr, &Prev) < 0 || Prev >= Addr) break;
    Addr = Prev;
  }
  for (; Offset > 0; --Offset) Addr += std::max<U32>(2, GetItemLen(Addr));
  QJsonArray Out;
  const CLineTables& Tables = DWARF_GetProgramTables();
  QString sLastPath;
  for (int i = 0; i < Count && Addr <= 0xFFFFFFFFull; ++i) {
    char acText[256] = {0};
    const U32 Len = std::max<U32>(2, GetItemLen(Addr));
    QJsonObject o{{QStringLiteral("address"), Hex8(Addr)}};
    if (GetItemDisplayText(Addr, acText, sizeof(acText)) < 0 || !acText[0]) o.insert(QStringLiteral("instruction"), QStringLiteral("??"));
    else o.insert(QStringLiteral("instruction"), QString::fromUtf8(acText).simplified());
    if (const U8* p = CElfApi::Instance().GetProgramData(U32(Addr), Len)) {
      QString sBytes;
      for (U32 k = 0; k < Len; ++k) sBytes += QStringLiteral("%1 ").arg(p[k], 2, 16, QLatin1Char('0'));
      o.insert(QStringLiteral("instructionBytes"), sBytes.trimmed());
    }
    CSrcLoc Loc;
    QString sPath;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      if (CElfApi::Instance().IsLoaded()) {
        Loc = Tables.GetLastSrcLoc(U32(Addr));
        if (!Loc.IsNull()) sPath = Tables.GetFilePath(Loc.file);
      }
    }
    if (!sPath.isEmpty()) {
      if (sPath != sLastPath) {
        QString sFile = FileFinder().Resolve(sPath);
        if (sFile.isEmpty()) sFile = sPath;
        o.insert(QStringLiteral("location"), QJsonObject{{QStringLiteral("name"), QFileInfo(sFile).fileName()}, {QStringLiteral("path"), sFile}});
        sLastPath = sPath;
      }
      o.insert(QStringLiteral("line"), int(Loc.line));
    }
    Out.append(o);
    Addr += Len;
  }
  return DAP_REPLY::Done({{QStringLiteral("instructions"), Out}});
}

DAP_REPLY CDapAdapter::ReadMemory(const QJsonObject& a) {
  U64 Addr = 0;
  if (!ParseNumber(a.value(QStringLiteral("memoryReference")).toString(), &Addr)) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  Addr += U64(a.value(QStringLiteral("offset")).toInteger());
  const qint64 Count = a.value(QStringLiteral("count")).toInteger();
  if (Count < 0 || Count > 1024 * 1024 || Addr + U64(Count) > 0x100000000ull) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  QByteArray Data;
  qint64 Unreadable = 0;
  for (qint64 Done = 0; Done < Count;) {
    const U32 n = U32(std::min<qint64>(4096, Count - Done));
    QByteArray Chunk(int(n), 0), Status(int(n), 0);
    QString sReason;
    const int r = DEV_ReadTargetMemory(U32(Addr + U64(Done)), n, reinterpret_cast<U8*>(Chunk.data()),
                                       reinterpret_cast<U8*>(Status.data()), &sReason);
    if (r < 0) {
      if (Done == 0) return DAP_REPLY::Fail(sReason.isEmpty() ? QStringLiteral("memory read failed") : sReason);
      break;
    }
    // The data ends at the first byte that could not be read.
    const qsizetype Bad = Status.indexOf('\1');
    if (Bad >= 0) {
      Data.append(Chunk.left(Bad));
      Unreadable = Count - Done - Bad;
      break;
    }
    Data.append(Chunk);
    Done += n;
  }
  QJsonObject Body{{QStringLiteral("address"), Hex8(Addr)}, {QStringLiteral("data"), QString::fromLatin1(Data.toBase64())}};
  if (Unreadable) Body.insert(QStringLiteral("unreadableBytes"), Unreadable);
  return DAP_REPLY::Done(Body);
}

DAP_REPLY CDapAdapter::WriteMemory(const QJsonObject& a) {
  U64 Addr = 0;
  if (!ParseNumber(a.value(QStringLiteral("memoryReference")).toString(), &Addr)) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  Addr += U64(a.value(QStringLiteral("offset")).toInteger());
  const QByteArray Data = QByteArray::fromBase64(a.value(QStringLiteral("data")).toString().toLatin1());
  if (Data.size() > 65536 || Addr + U64(Data.size()) > 0x100000000ull) return DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
  // Whole words where the address allows, bytes elsewhere: the console's writes.
  qsizetype i = 0;
  while (i < Data.size()) {
    const U64 At = Addr + U64(i);
    DAP_REPLY r;
    if ((At & 3) == 0 && Data.size() - i >= 4) {
      U32 w = 0;
      memcpy(&w, Data.constData() + i, 4);
      r = RunCommand(QStringLiteral("Target.WriteU32(0x%1, 0x%2)").arg(At, 0, 16).arg(w, 0, 16));
      i += 4;
    } else {
      r = RunCommand(QStringLiteral("Target.WriteU8(0x%1, 0x%2)").arg(At, 0, 16).arg(U8(Data[i]), 0, 16));
      i += 1;
    }
    if (!r.Ok) return r;
  }
  return DAP_REPLY::Done({{QStringLiteral("bytesWritten"), int(Data.size())}});
}
