// The Break.* and Trace.* point commands. A command issued before connecting
// fills the device tables; the connect (or the download after it) applies
// them to the probe.
#include "device/bpmodel.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <cstring>

namespace {

CBreakpointsDataModel& M() { return CBreakpointsDataModel::Instance(); }

bool Fail(int Id, const QString& s, const QString& sDetail = QString()) {
  SetActionError(Id, s, sDetail);
  SetActionResult(Id, -1);
  return false;
}

bool Args(int Id, int Minimum = -1) {
  if (CheckArgCount(Id, Minimum)) return true;
  SetActionResult(Id, -1);
  return false;
}

QString Arg(int Id, int i) { return GetActionArgs(Id).value(i).trimmed(); }

QString Unquote(QString s) {
  s = s.trimmed();
  if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2);
  return s;
}

bool Number(const QString& s, U64* pOut) {
  bool Ok = false;
  U64 v = Unquote(s).toULongLong(&Ok, 0);
  if (!Ok) {
    I64 c = 0;
    if (!FindConstant(Unquote(s), &c)) return false;
    v = U64(c);
  }
  *pOut = v;
  return true;
}

void Done(int Id, int r) {
  if (r < 0) Fail(Id, QStringLiteral("job not scheduled"));
  else SetActionResult(Id, 0);
}

// The device tables as of the last job: scripts may issue several commands
// without the batch waiter in between.
void Settle() { M().Dev().WaitForBreakpointJobs(); }

bool AddrArg(int Id, int i, U64* pAddr) {
  if (!M().Prog().ParseAddress(Arg(Id, i), pAddr) || *pAddr > 0xFFFFFFFFull) return Fail(Id, QStringLiteral("invalid parameter"));
  return true;
}

bool TypeArg(int Id, int i, BP_TYPES* pType) {
  if (i < 0) {
    const I64 v = SysVars::GetValue(VAR_BREAKPOINT_TYPE);
    *pType = v >= 0 && v <= 2 ? BP_TYPES(v) : BP_TYPE_ANY;
    return true;
  }
  U64 v = 0;
  if (!Number(Arg(Id, i), &v) || v > 6) return Fail(Id, QStringLiteral("invalid parameter") + QStringLiteral(": ") + Arg(Id, i));
  *pType = BP_TYPES(v);
  return true;
}

bool LocArg(int Id, int i, CSrcLoc* pLoc) {
  CSrcLoc Loc;
  if (!M().Prog().ParseLocation(Arg(Id, i), &Loc)) return Fail(Id, QStringLiteral("invalid parameter"));
  *pLoc = M().LandingLoc(Loc);
  return true;
}

// ---- by address

void OnSet(int Id, bool WithType) {
  if (!Args(Id)) return;
  U64 Addr = 0;
  BP_TYPES Type = BP_TYPE_ANY;
  if (!AddrArg(Id, 0, &Addr) || !TypeArg(Id, WithType ? 1 : -1, &Type)) return;
  Settle();
  const DEVICE_BP d = M().Dev().GetBreakpoint(U32(Addr));
  if (d.Occupied && d.State == BP_STATE_ON && d.Type == Type) return void(Fail(Id, QStringLiteral("Breakpoint already set")));
  Done(Id, M().SetBP(Addr, BP_STATE_ON, Type));
}

void OnClear(int Id) {
  if (!Args(Id)) return;
  U64 Addr = 0;
  if (!AddrArg(Id, 0, &Addr)) return;
  Settle();
  M().Refresh();
  const CBreakpointInfo* b = M().FindAddr(Addr);
  if (b && b->Derived) return void(Fail(Id, QStringLiteral("Derived instruction breakpoints cannot be cleared")));
  const DEVICE_BP d = M().Dev().GetBreakpoint(U32(Addr));
  if (!d.Occupied || d.State == BP_STATE_ON_HIDDEN) return void(Fail(Id, QStringLiteral("Breakpoint not set")));
  Done(Id, M().ClearBP(Addr));
}

void OnEnableDisable(int Id, bool Enable) {
  if (!Args(Id)) return;
  U64 Addr = 0;
  if (!AddrArg(Id, 0, &Addr)) return;
  Settle();
  const DEVICE_BP d = M().Dev().GetBreakpoint(U32(Addr));
  if (!d.Occupied || d.State == BP_STATE_ON_HIDDEN) return void(Fail(Id, QStringLiteral("Breakpoint not set")));
  if (Enable && d.State == BP_STATE_ON) return void(Fail(Id, QStringLiteral("Breakpoint not disabled")));
  if (!Enable && d.State == BP_STATE_DISABLED) return void(Fail(Id, QStringLiteral("Breakpoint not set")));
  Done(Id, M().SetBP(Addr, Enable ? BP_STATE_ON : BP_STATE_DISABLED, d.Type));
}

// ---- by source location

void OnSetOnSrc(int Id, bool WithType) {
  if (!Args(Id)) return;
  CSrcLoc Loc;
  BP_TYPES Type = BP_TYPE_ANY;
  if (!LocArg(Id, 0, &Loc) || !TypeArg(Id, WithType ? 1 : -1, &Type)) return;
  const CBreakpointInfo* b = M().FindSource(Loc);
  if (b && b->State == BP_STATE_ON && b->PermittedImpl == Type) return void(Fail(Id, QStringLiteral("Breakpoint already set")));
  if (M().LocAddresses(Loc).size() > DEVICE_MAX_BPS)
    return void(Fail(Id, QStringLiteral("Cannot set source breakpoint: too many derived breakpoints")));
  Done(Id, M().SetSourceBP(Loc, BP_STATE_ON, Type));
}

void OnSrcState(int Id, bool Enable) {
  if (!Args(Id)) return;
  CSrcLoc Loc;
  if (!LocArg(Id, 0, &Loc)) return;
  Settle();
  M().Refresh();
  const CBreakpointInfo* b = M().FindSource(Loc);
  if (!b) return void(Fail(Id, QStringLiteral("Breakpoint not set")));
  if (Enable && b->State == BP_STATE_ON) return void(Fail(Id, QStringLiteral("Breakpoint not disabled")));
  if (!Enable && b->State == BP_STATE_DISABLED) return void(Fail(Id, QStringLiteral("Breakpoint not set")));
  Done(Id, M().SetSourceBP(Loc, Enable ? BP_STATE_ON : BP_STATE_DISABLED, b->PermittedImpl));
}

void OnClearOnSrc(int Id) {
  if (!Args(Id)) return;
  CSrcLoc Loc;
  if (!LocArg(Id, 0, &Loc)) return;
  if (!M().FindSource(Loc)) return void(Fail(Id, QStringLiteral("Breakpoint not set")));
  Done(Id, M().ClearSourceBP(Loc));
}

// The breakpoint a location text names: a source entry, else the address
// entry at the address (a number, or the location's first code address).
bool FindEntry(int Id, int i, CBreakpointInfo* pOut) {
  Settle();
  M().Refresh();
  const QString s = Unquote(Arg(Id, i));
  U64 Addr = 0;
  bool Ok = false;
  Addr = s.toULongLong(&Ok, 0);
  CSrcLoc Loc;
  if (!Ok) {
    if (!M().Prog().ParseLocation(s, &Loc)) return Fail(Id, QStringLiteral("invalid parameter"));
    Loc = M().LandingLoc(Loc);
    if (const CBreakpointInfo* b = M().FindSource(Loc)) {
      *pOut = *b;
      return true;
    }
    const QList<U32> a = M().LocAddresses(Loc);
    if (a.isEmpty()) return Fail(Id, QStringLiteral("invalid parameter"));
    Addr = a.first();
  }
  const CBreakpointInfo* b = M().FindAddr(Addr);
  if (!b) return Fail(Id, QStringLiteral("cannot edit breakpoint: breakpoint is not set"));
  *pOut = *b;
  return true;
}

void Apply(int Id, const CBreakpointInfo& b) {
  QString sErr;
  if (!M().Edit(b, &sErr)) return void(Fail(Id, sErr));
  SetActionResult(Id, 0);
}

void OnEdit(int Id) {
  if (!Args(Id, 1)) return;
  CBreakpointInfo b;
  if (!FindEntry(Id, 0, &b)) return;
  const QStringList a = GetActionArgs(Id);
  U64 Skip = 0, Trig = 0;
  const QString sTrig = Unquote(a.value(2)).toLower();
  if (sTrig == QLatin1String("true") || sTrig == QLatin1String("yes")) Trig = 1;
  else if (!sTrig.isEmpty() && sTrig != QLatin1String("false") && sTrig != QLatin1String("no") && !Number(sTrig, &Trig))
    return void(Fail(Id, QStringLiteral("invalid parameter")));
  if (!a.value(3).trimmed().isEmpty() && !Number(a.value(3), &Skip)) return void(Fail(Id, QStringLiteral("invalid parameter")));
  b.Condition = Unquote(a.value(1));
  b.TriggerOnChange = Trig != 0;
  b.SkipCount = I32(Skip);
  b.TaskName = Unquote(a.value(4));
  b.ConsoleMsg = Unquote(a.value(5));
  b.PopupMsg = Unquote(a.value(6));
  if (a.size() > 7) b.ScriptCallback = Unquote(a.value(7));
  b.ReloadSkip = false;
  Apply(Id, b);
}

void OnSetType(int Id) {
  if (!Args(Id)) return;
  CBreakpointInfo b;
  BP_TYPES Type;
  if (!FindEntry(Id, 0, &b) || !TypeArg(Id, 1, &Type)) return;
  Done(Id, b.IsSource() ? M().SetSourceBP(b.Loc, b.State, Type) : M().SetBP(b.Addr, b.State, Type));
}

void OnSetCommand(int Id) {
  if (!Args(Id)) return;
  CBreakpointInfo b;
  if (!FindEntry(Id, 0, &b)) return;
  b.ScriptCallback = Unquote(Arg(Id, 1));
  Apply(Id, b);
}

// ---- data breakpoints

// The arguments present, in the order of the prototype. Symbol forms have
// no AddrMask.
struct WP_ARGS {
  WP w;
  bool Has[6] = {};  // addr, addr mask, access type, access size, match value, value mask
};

bool DataArgs(int Id, bool Symbol, WP_ARGS* p) {
  const QStringList a = GetActionArgs(Id);
  if (a.isEmpty() || a[0].trimmed().isEmpty()) return Fail(Id, QStringLiteral("wrong parameter count"));
  if (a.size() > GetParamCount(Id)) return Fail(Id, QStringLiteral("wrong parameter count"));
  WP& w = p->w;
  U64 Addr = 0;
  if (Symbol) {
    const QString s = Unquote(a[0]);
    if (!M().Prog().ParseAddress(s, &Addr) || Addr > 0xFFFFFFFFull) return Fail(Id, QStringLiteral("invalid parameter"));
    const QByteArray b = s.toUtf8().left(255);
    memcpy(w.Symbol, b.constData(), size_t(b.size()));
  } else if (!M().Prog().ParseAddress(a[0], &Addr) || Addr > 0xFFFFFFFFull) {
    return Fail(Id, QStringLiteral("invalid parameter"));
  }
  w.Addr = U32(Addr);
  p->Has[0] = true;
  for (int i = 1; i < a.size(); ++i) {
    const int Field = Symbol ? i + 1 : i;
    if (a[i].trimmed().isEmpty()) continue;
    U64 v = 0;
    if (!Number(a[i], &v)) return Fail(Id, QStringLiteral("invalid parameter"));
    switch (Field) {
      case 1: w.AddrMask = U32(v); break;
      case 2:
        if (v > 3) return Fail(Id, QStringLiteral("invalid parameter"));
        w.AccessType = U32(v);
        break;
      case 3:
        if (v != 0 && v != 1 && v != 2 && v != 4) return Fail(Id, QStringLiteral("invalid parameter"));
        w.AccessSize = U32(v);
        break;
      case 4: w.MatchValue = U32(v); break;
      case 5: w.ValueMask = v; break;
    }
    p->Has[Field] = true;
  }
  return true;
}

bool SameWP(const WP& a, const WP& b) {
  return a.Addr == b.Addr && a.AddrMask == b.AddrMask && a.MatchValue == b.MatchValue && a.ValueMask == b.ValueMask &&
         a.AccessType == b.AccessType && a.AccessSize == b.AccessSize;
}

void SetOnData(int Id, const WP& wIn) {
  WP w = wIn;
  w.State = BP_STATE_ON;
  if (M().Dev().PostSetWPs({w}) < 0) return Done(Id, -1);
  Settle();
  for (const WP& t : M().Dev().Watchpoints()) {
    if (!SameWP(t, w)) continue;
    const QString s = BP_DataBreakpointError(t);
    if (!s.isEmpty()) return void(Fail(Id, s));
  }
  SetActionResult(Id, 0);
}

void OnSetOnData(int Id, bool Symbol) {
  WP_ARGS p;
  if (DataArgs(Id, Symbol, &p)) SetOnData(Id, p.w);
}

void OnChangeData(int Id, bool Symbol, BP_STATES State) {
  WP_ARGS p;
  if (!DataArgs(Id, Symbol, &p)) return;
  Settle();
  std::vector<WP> Found;
  for (WP t : M().Dev().Watchpoints()) {
    const WP& w = p.w;
    if ((p.Has[0] && t.Addr != w.Addr) || (p.Has[1] && t.AddrMask != w.AddrMask) ||
        (p.Has[2] && t.AccessType != w.AccessType) || (p.Has[3] && t.AccessSize != w.AccessSize) ||
        (p.Has[4] && t.MatchValue != w.MatchValue) || (p.Has[5] && t.ValueMask != w.ValueMask))
      continue;
    t.State = State;
    Found.push_back(t);
  }
  if (Found.empty()) return void(Fail(Id, QStringLiteral("No breakpoint matches the given parameters.")));
  Done(Id, State == BP_STATE_OFF ? M().Dev().PostClearWPs(Found) : M().Dev().PostSetWPs(Found));
}

void OnBreakOnChange(int Id) {
  if (!Args(Id)) return;
  const QString s = Unquote(Arg(Id, 0));
  U64 Addr = 0;
  if (!M().Prog().ParseAddress(s, &Addr) || Addr > 0xFFFFFFFFull) return void(Fail(Id, QStringLiteral("invalid parameter")));
  WP w;
  w.Addr = U32(Addr);
  w.AccessType = AT_WRITE_ONLY;
  w.AccessSize = AW_ANY;
  w.MatchValue = 0;
  w.ValueMask = 0xFFFFFFFFull;
  const QByteArray b = s.toUtf8().left(255);
  memcpy(w.Symbol, b.constData(), size_t(b.size()));
  SetOnData(Id, w);
}

// ---- tracepoints

bool TraceAddr(int Id, int i, U64* pAddr, bool* pFromSource) {
  CSrcLoc Loc;
  const QString s = Unquote(Arg(Id, i));
  bool Num = false;
  const U64 v = s.toULongLong(&Num, 0);
  if (Num) {
    *pAddr = v;
    *pFromSource = false;
    return v <= 0xFFFFFFFFull || Fail(Id, QStringLiteral("invalid parameter"));
  }
  if (M().Prog().ParseLocation(s, &Loc)) {
    const QList<U32> a = M().LocAddresses(M().LandingLoc(Loc));
    if (!a.isEmpty()) {
      *pAddr = a.first();
      *pFromSource = true;
      return true;
    }
  }
  return Fail(Id, QStringLiteral("invalid parameter"));
}

const TP* FindTP(const std::vector<TP>& v, U64 Addr) {
  for (const TP& t : v)
    if (t.Addr == Addr) return &t;
  return nullptr;
}

void OnTraceSet(int Id) {
  if (!Args(Id)) return;
  U64 Op = 0, Addr = 0;
  bool FromSrc = false;
  if (!Number(Arg(Id, 0), &Op) || Op > 1) return void(Fail(Id, QStringLiteral("invalid parameter")));
  if (!TraceAddr(Id, 1, &Addr, &FromSrc)) return;
  Settle();
  if (FindTP(M().Dev().Tracepoints(), Addr)) return void(Fail(Id, QStringLiteral("Tracepoint already set")));
  TP t;
  t.Op = U8(Op);
  t.Addr = Addr;
  t.State = BP_STATE_ON;
  t.FromSource = FromSrc ? 1 : 0;
  Done(Id, M().Dev().PostSetTPs({t}));
}

void OnTraceChange(int Id, BP_STATES State) {
  if (!Args(Id)) return;
  U64 Addr = 0;
  bool FromSrc = false;
  if (!TraceAddr(Id, 0, &Addr, &FromSrc)) return;
  Settle();
  const std::vector<TP> v = M().Dev().Tracepoints();
  const TP* p = FindTP(v, Addr);
  if (!p) return void(Fail(Id, QStringLiteral("Tracepoint not set")));
  TP t = *p;
  t.State = U8(State);
  Done(Id, State == BP_STATE_OFF ? M().Dev().PostClearTPs({t}) : M().Dev().PostSetTPs({t}));
}

}  // namespace

void BreakpointModule::Install() {
  static bool s_Done = false;
  if (s_Done) return;
  s_Done = true;
  M();
  SetCommandSlot(AID_BREAK_SET, [](int Id) { OnSet(Id, false); });
  SetCommandSlot(AID_BREAK_SET_EX, [](int Id) { OnSet(Id, true); });
  SetCommandSlot(AID_BREAK_CLEAR, OnClear);
  SetCommandSlot(AID_BREAK_ENABLE, [](int Id) { OnEnableDisable(Id, true); });
  SetCommandSlot(AID_BREAK_DISABLE, [](int Id) { OnEnableDisable(Id, false); });
  SetCommandSlot(AID_BREAK_SET_ON_SRC, [](int Id) { OnSetOnSrc(Id, false); });
  SetCommandSlot(AID_BREAK_SET_ON_SRC_EX, [](int Id) { OnSetOnSrc(Id, true); });
  SetCommandSlot(AID_BREAK_CLEAR_ON_SRC, OnClearOnSrc);
  SetCommandSlot(AID_BREAK_ENABLE_ON_SRC, [](int Id) { OnSrcState(Id, true); });
  SetCommandSlot(AID_BREAK_DISABLE_ON_SRC, [](int Id) { OnSrcState(Id, false); });
  SetCommandSlot(AID_BREAK_SET_ON_DATA, [](int Id) { OnSetOnData(Id, false); });
  SetCommandSlot(AID_BREAK_SET_ON_SYMBOL, [](int Id) { OnSetOnData(Id, true); });
  SetCommandSlot(AID_BREAK_CLEAR_ON_DATA, [](int Id) { OnChangeData(Id, false, BP_STATE_OFF); });
  SetCommandSlot(AID_BREAK_ENABLE_ON_DATA, [](int Id) { OnChangeData(Id, false, BP_STATE_ON); });
  SetCommandSlot(AID_BREAK_DISABLE_ON_DATA, [](int Id) { OnChangeData(Id, false, BP_STATE_DISABLED); });
  SetCommandSlot(AID_BREAK_CLEAR_ON_SYMBOL, [](int Id) { OnChangeData(Id, true, BP_STATE_OFF); });
  SetCommandSlot(AID_BREAK_ENABLE_ON_SYMBOL, [](int Id) { OnChangeData(Id, true, BP_STATE_ON); });
  SetCommandSlot(AID_BREAK_DISABLE_ON_SYMBOL, [](int Id) { OnChangeData(Id, true, BP_STATE_DISABLED); });
  SetCommandSlot(AID_BREAK_ON_CHANGE, OnBreakOnChange);
  SetCommandSlot(AID_BREAK_CLEAR_ALL, [](int Id) {
    if (!Args(Id)) return;
    M().ClearAll();
    SetActionResult(Id, 0);
  });
  SetCommandSlot(AID_BREAK_CLEAR_ALL_ON_DATA, [](int Id) {
    if (Args(Id)) Done(Id, M().Dev().PostClearAllWPs());
  });
  SetCommandSlot(AID_BREAK_EDIT, OnEdit);
  SetCommandSlot(AID_BREAK_SET_TYPE, OnSetType);
  SetCommandSlot(AID_BREAK_SET_COMMAND, OnSetCommand);
  SetCommandSlot(AID_BREAK_SET_CMD_ON_ADDR, OnSetCommand);
  SetCommandSlot(AID_TRACE_SET_POINT, OnTraceSet);
  SetCommandSlot(AID_TRACE_CLEAR_POINT, [](int Id) { OnTraceChange(Id, BP_STATE_OFF); });
  SetCommandSlot(AID_TRACE_ENABLE_POINT, [](int Id) { OnTraceChange(Id, BP_STATE_ON); });
  SetCommandSlot(AID_TRACE_DISABLE_POINT, [](int Id) { OnTraceChange(Id, BP_STATE_DISABLED); });
  SetCommandSlot(AID_TRACE_CLEAR_ALL_POINTS, [](int Id) {
    if (Args(Id)) Done(Id, M().Dev().PostClearAllTPs());
  });
}
