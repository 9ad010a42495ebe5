// The unwinder's state machine. Every value comes from a read that may
// complete later: Step decides the next read of the top frame, CompleteRead
// takes its answer, and a frame whose CFA and return address are known
// yields its caller.
#include "stack/callstack.h"

#include "device/device.h"
#include "disasm/instcache.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/source_queries.h"
#include "elf/dwarf/target_access.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "log/log.h"
#include "plugins/corewrappers.h"
#include "stack/stackaccess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutexLocker>
#include <cstring>

namespace {

constexpr U64 kReadContext = 0x5354434B00000000ull;  // "STCK" in the high word

STACK_CORE_FACTS& FactsRef() {
  static STACK_CORE_FACTS f;
  return f;
}

CCallStack::READER& ReaderRef() {
  static CCallStack::READER r;
  return r;
}

CCallStack* s_pPublic = nullptr;
bool s_bFollowFrames = false;

qint64 NowNs() {
  static QElapsedTimer t = [] {
    QElapsedTimer e;
    e.start();
    return e;
  }();
  return t.nsecsElapsed();
}

bool IsReg(const ELF_SYM_LOC& l, U32 Reg) {
  return l.count && (l.parts[0].kind == ELF_LOC_REG || l.parts[0].kind == ELF_LOC_REG_VALUE) && l.parts[0].reg == Reg;
}

// A resolved part: a constant, an address, or a register the device reads.
bool IsResolvedPart(const ELF_LOC_PART& p) {
  switch (p.kind) {
    case ELF_LOC_CONST: case ELF_LOC_ADDR: case ELF_LOC_ADDR_OFFSET: return true;
    case ELF_LOC_REG: case ELF_LOC_REG_VALUE: return p.reg != ELF_REG_UNDEFINED && p.reg != ELF_REG_SAME;
    default: return false;
  }
}

bool IsResolved(const ELF_SYM_LOC& l) {
  if (!l.count || l.count > 2) return false;
  for (U32 i = 0; i < l.count; ++i)
    if (!IsResolvedPart(l.parts[i])) return false;
  return true;
}

// The offset added to the value read: kinds 3, 5, 6 of a one-part location.
I64 CommonOffset(const ELF_SYM_LOC& l) {
  if (l.count != 1) return 0;
  const U32 k = l.parts[0].kind;
  return k == ELF_LOC_ADDR_OFFSET || k == ELF_LOC_REG_VALUE || k == ELF_LOC_AT_REG ? l.parts[0].offset : 0;
}

ELF_SYM_LOC OnePart(const ELF_LOC_PART& p) {
  ELF_SYM_LOC l;
  memset(&l, 0, sizeof l);
  l.count = 1;
  l.parts[0] = p;
  return l;
}

ELF_SYM_LOC ResolvedIn(const CCallFrame& F, const ELF_SYM_LOC& Rule) {
  ELF_SYM_LOC l = Rule;
  if (l.count) ResolveLocation(F, l);
  return l;
}

// The instruction before Addr by the instruction analysis; without one, the
// last alignment step before Addr (inside the call, whose rules and line it
// shares; Addr itself may already stand in the next rule row).
U64 InstBefore(U64 Addr, U32 Align) {
  U64 Prev = 0;
  if (Addr && GetPrevInst(Addr, &Prev) == 0 && Prev < Addr && Addr - Prev <= 8) return Prev;
  return Addr >= Align ? Addr - Align : Addr;
}

QString Hex8(U64 v) { return QStringLiteral("0x%1").arg(U32(v), 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x"); }

// Core register rules of the plug-in's unwinding service as rule rows (the
// SP column holds the CFA rule, as the call frame information gives it).
bool PluginRules(const CCallFrame& F, U64 Pc, U64 Sp, const STACK_CORE_FACTS& c, ELF_SYM_LOCS& Rows, U32& RaColumn) {
  const U32 CfaIdx = 16, n = std::max<U32>(c.registerCount, CfaIdx + 1);
  std::vector<CORE_UNWIND_RULE> Rules(n);
  CORE_FRAME_RECORD Rec{};
  Rec.RAIdx = c.returnRegister;
  Rec.FrameIdx = U32(F.index);
  Rec.PC = Pc;
  Rec.SP = Sp;
  if (F.function) {
    const std::vector<ELF_RANGE> r = ELF_GetRanges(F.function);
    for (const ELF_RANGE& x : r)
      if (x.start <= Pc && Pc < x.end) Rec.FuncStart = x.start;
  }
  Rec.NumRules = n;
  Rec.paRules = Rules.data();
  if (CORE_UnwindFrame(&Rec, &Rec) != CORE_UNWIND_FILLED) return false;
  auto ToLoc = [&](const CORE_UNWIND_RULE& r) {
    ELF_LOC_PART p{};
    switch (r.Kind) {
      case CORE_RULE_SAME: p.kind = ELF_LOC_REG; p.reg = ELF_REG_SAME; break;
      case CORE_RULE_AT_CFA: p.kind = ELF_LOC_AT_CFA; p.offset = I32(r.Offset); break;
      case CORE_RULE_REG: p.kind = ELF_LOC_REG; p.reg = r.Reg; break;
      case CORE_RULE_REG_OFFSET:
        if (r.Reg == CfaIdx) p.kind = ELF_LOC_CFA_VALUE;
        else p.kind = ELF_LOC_REG_VALUE, p.reg = r.Reg;
        p.offset = I32(r.Offset);
        break;
      default: p.kind = ELF_LOC_REG; p.reg = ELF_REG_UNDEFINED; break;
    }
    p.size = c.wordSize;
    return OnePart(p);
  };
  Rows.assign(c.registerCount, ELF_SYM_LOC{});
  for (U32 i = 0; i < c.registerCount; ++i) Rows[i] = ToLoc(Rules[i]);
  Rows[c.spRegister] = ToLoc(Rules[CfaIdx]);
  RaColumn = Rec.RAIdx < c.registerCount ? Rec.RAIdx : c.returnRegister;
  return true;
}

}  // namespace

QString STACK_SrcLocText(const CSrcLoc& Loc) {
  if (Loc.IsNull()) return QString();
  QString sName;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    sName = DWARF_GetProgramTables().GetFileName(Loc.file);
  }
  if (sName.isEmpty()) return QString();
  return sName + QLatin1Char(':') + QString::number(Loc.line);
}

// ---- instances -------------------------------------------------------------------

CCallStack::CCallStack(int StackIdx, CCallStack* pPartner) : m_StackIdx(StackIdx), m_pPartner(pPartner) {}

CCallStack& CCallStack::Instance() {
  if (!s_pPublic) {
    s_pPublic = new CCallStack(0, nullptr);
    s_pPublic->m_pPartner = new CCallStack(1, s_pPublic);
    s_pPublic->m_pPartner->setParent(s_pPublic);
    if (QCoreApplication::instance()) s_pPublic->setParent(QCoreApplication::instance());
    STACK_InstallTargetAccess(&Store());
  }
  return *s_pPublic;
}

CCallStack* CCallStack::InstanceIfCreated() { return s_pPublic; }

CFrameStore& CCallStack::Store() {
  static CFrameStore s;
  return s;
}

void CCallStack::SetReader(const READER& Reader) { ReaderRef() = Reader; }

void CCallStack::SetFollowFrames(bool On) { s_bFollowFrames = On; }

void CCallStack::Configure(const STACK_CORE_FACTS& Facts, int DepthLimit) {
  FactsRef() = Facts;
  Store().Configure(Facts.registerCount, Facts.pcRegister, Facts.spRegister, DepthLimit);
  for (CCallStack* p : {this, m_pPartner})
    if (p) p->Reset(), p->m_Locs.clear(), p->m_Addresses.clear(), p->m_StopReason = 0;
}

const STACK_CORE_FACTS& CCallStack::Facts() const { return FactsRef(); }
int CCallStack::DepthLimit() const { return Store().GetDepthLimit(); }

// ---- frames and registers --------------------------------------------------------

int CCallStack::FrameCount() const { return Store().GetFrameCount(m_StackIdx); }

CCallFrame CCallStack::GetFrame(int Index, int Stack) const {
  CCallFrame F;
  if (!Store().GetFrame(Stack == 2 ? m_StackIdx : Stack, Index, F)) return CCallFrame();
  return F;
}

CCallFrame CCallStack::GetTopFrame() const { return GetFrame(FrameCount() - 1); }

int CCallStack::FindFrame(ELF_SYM_HANDLE Function) const {
  for (int i = 0; i < FrameCount(); ++i)
    if (GetFrame(i).function == Function) return i;
  return -1;
}

bool CCallStack::HasFunctionFrame(U64 Pc) const {
  const ELF_SYM_HANDLE f = SYM_GetFunctionAt(U32(Pc));
  for (int i = 1; i < FrameCount(); ++i) {
    U64 v;
    const CCallFrame F = GetFrame(i);
    if (GetRegister(F, Facts().pcRegister, v) && (v == Pc || (f && F.function == f))) return true;
  }
  return false;
}

bool CCallStack::HasLocFrame(const CSrcLoc& Loc) const {
  for (int i = 1; i < m_Locs.size(); ++i)
    if (m_Locs[i] == Loc) return true;
  return false;
}

void CCallStack::SetSelectedFrame(int Index) {
  const bool Changed = m_Selected != Index;
  m_Selected = Index;
  if (m_StackIdx != 0) return;
  Store().SetSelectedFrame(Index);
  if (Changed) emit SelectedFrameChanged(Index);
}

bool CCallStack::GetRegister(const CCallFrame& F, U32 Register, U64& Value) const {
  return Store().GetRegister(F.stack, F.index, Register, Value);
}

bool CCallStack::RegisterKnown(const CCallFrame& F, U32 Register) const {
  U64 v;
  return GetRegister(F, Register, v);
}

ELF_SYM_LOC CCallStack::GetRule(const CCallFrame& F, U32 Register) const {
  return Store().GetRule(F.stack, F.index, Register);
}

void CCallStack::SetRegister(int Stack, int Index, U32 Register, U64 Value, U8 Status) {
  Store().SetRegister(Stack, Index, Register, Value, Status);
  CCallFrame F;
  if (Register == Facts().pcRegister && Store().GetFrame(Stack, Index, F)) {
    DeriveFunction(F);
    Store().SetFrame(F);
  }
}

void CCallStack::Keep(const CCallFrame& F) { Store().SetFrame(F); }

U64 CCallStack::Sp(const CCallFrame& F) const {
  U64 v = 0;
  GetRegister(F, Facts().spRegister, v);
  return v;
}

void CCallStack::DeriveFunction(CCallFrame& F) const {
  U64 Pc;
  F.function = GetRegister(F, Facts().pcRegister, Pc) ? SYM_GetFunctionAt(U32(Pc)) : 0;
  F.isInline = F.function && ELF_GetTag(F.function) == ELF_TAG_INLINED;
}

void CCallStack::SetReason(int Reason) {
  if (!m_StopReason) m_StopReason = Reason;
}

// ---- the unwind --------------------------------------------------------------------

void CCallStack::Reset() {
  Store().Clear(m_StackIdx);
  m_PendingKind = 3;
  memset(&m_Pending, 0, sizeof m_Pending);
  m_Selected = 0;
  m_bUnwinding = false;
  ++m_ReadSerial;
  if (m_StackIdx == 0) Store().SetSelectedFrame(0);
}

bool CCallStack::Init(const std::vector<U64>* pValues, const std::vector<U8>* pKnown) {
  const STACK_CORE_FACTS& c = Facts();
  std::vector<U64> Values(c.registerCount, 0);
  std::vector<U8> Known(c.registerCount, 0);
  if (pValues) {
    for (U32 r = 0; r < c.registerCount && r < pValues->size(); ++r) {
      Values[r] = (*pValues)[r];
      Known[r] = !pKnown || (r < pKnown->size() && (*pKnown)[r]);
    }
  } else {
    // The halted target's registers through the installed target access.
    ITargetAccess& a = ELF_GetTargetAccess();
    Store().Clear(m_StackIdx);
    for (U32 r = 0; r < c.registerCount; ++r) Known[r] = a.ReadRegister(0, 0, r, Values[r]);
  }
  if (!Known[c.pcRegister] || !Known[c.spRegister]) return false;
  // Locals and their locations belong to the PC of this stop.
  if (m_StackIdx == 0) SYM_SetCurrentPc(U32(Values[c.pcRegister]));
  Reset();
  CCallFrame F;
  F.stack = m_StackIdx;
  F.index = 0;
  F.registerCount = c.registerCount;
  F.returnColumn = c.returnRegister;
  Keep(F);
  for (U32 r = 0; r < c.registerCount; ++r) Store().SetRegister(m_StackIdx, 0, r, Values[r], Known[r] ? 0 : 1);
  DeriveFunction(F);
  F.bp = Values[c.spRegister];
  F.bpStatus = 0;
  Keep(F);
  ComputeFrameBase(F);
  FrameBaseValue(F, Values[c.spRegister]);
  Keep(F);
  return true;
}

void CCallStack::Unwind() {
  CCallStack& Pub = m_StackIdx == 0 ? *this : *m_pPartner;
  CCallStack& W = *Pub.m_pPartner;
  if (Pub.FrameCount() == 0) {
    CDevice* pDev = CDevice::InstanceIfCreated();
    if (pDev && !pDev->IsTargetHalted()) return;
    if (!Pub.Init()) return;
  }
  W.Reset();
  W.m_StopReason = 0;
  const STACK_CORE_FACTS& c = Facts();
  CCallFrame F;
  F.stack = 1;
  F.index = 0;
  F.registerCount = c.registerCount;
  F.returnColumn = c.returnRegister;
  W.Keep(F);
  CDevice* d = CDevice::InstanceIfCreated();
  const bool Target = d && d->IsConnected() && d->HaltReported();
  for (U32 r = 0; r < c.registerCount; ++r) {
    U64 v = 0;
    const bool k = Target ? ELF_GetTargetAccess().ReadRegister(0, 0, r, v) : Store().GetRegister(0, 0, r, v);
    Store().SetRegister(1, 0, r, v, k ? 0 : 1);
  }
  W.DeriveFunction(F);
  F.bp = W.Sp(F);
  F.bpStatus = 0;
  W.Keep(F);
  W.m_bUnwinding = true;
  W.UnwindNextFrame();
}

void CCallStack::ReadRules(CCallFrame& F) {
  const STACK_CORE_FACTS& c = Facts();
  ELF_SYM_LOCS Rows(c.registerCount, ELF_SYM_LOC{});
  F.noCfi = 0;
  if (F.isInline) {
    ELF_LOC_PART p{};
    p.kind = ELF_LOC_REG;
    p.reg = ELF_REG_SAME;
    for (ELF_SYM_LOC& l : Rows) l = OnePart(p);
    Store().SetRules(F.stack, F.index, Rows);
    return;
  }
  U64 Pc;
  if (!GetRegister(F, c.pcRegister, Pc)) {
    F.noCfi = 1;
    Store().SetRules(F.stack, F.index, ELF_SYM_LOCS());
    return;
  }
  // Call frame information where a frame description holds the PC; the core
  // plug-in's unwinding service in its place.
  int n = 0;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    if (ELF_FILE* pFile = CElfApi::Instance().GetFile()) {
      n = ELF_GetRegisterRules(pFile, U32(Pc), int(c.registerCount), Rows);
      const int Ra = ELF_GetReturnAddressColumn(pFile);
      if (n > 0 && Ra >= 0) F.returnColumn = U32(Ra);
    }
  }
  if (n <= 0) {
    U32 Ra = c.returnRegister;
    if (PluginRules(F, Pc, Sp(F), c, Rows, Ra)) {
      F.returnColumn = Ra;
      n = int(Rows.size());
    } else {
      F.noCfi = 1;
      Rows.clear();
    }
  }
  Store().SetRules(F.stack, F.index, Rows);
}

void CCallStack::UnwindNextFrame() {
  if (m_StackIdx != 1) return m_pPartner->UnwindNextFrame();
  if (FrameCount() == 0) return Finish();
  if (FrameCount() > DepthLimit()) {
    SetReason(STACK_STOP_DEPTH);
    return Finish();
  }
  CCallFrame F = GetTopFrame();
  DeriveFunction(F);
  ReadRules(F);
  F.bp = U64(-1);
  F.cfa = U64(-1);
  F.returnAddress = U64(-1);
  F.bpStatus = F.cfaStatus = F.raStatus = 3;
  F.frameSize = 0;
  Keep(F);
  ComputeFrameBase(F);
  Keep(F);
  const int r = Step(F);
  if (r < 0) {
    emit EvalFrameFailed(m_StackIdx);
    Finish();
  } else if (r == 0) {
    NextFrame();
  }
}

int CCallStack::Step(CCallFrame& F) {
  const STACK_CORE_FACTS& c = Facts();
  bool Failed = false;
  const ELF_SYM_LOC CfaRule = GetRule(F, c.spRegister);
  if (!CfaRule.count || IsReg(CfaRule, ELF_REG_UNDEFINED)) {
    SetReason(STACK_STOP_NO_CFA_RULE);
    F.cfa = Sp(F);
    F.cfaStatus = 1;
    F.frameSize = 0;
    Failed = true;
  }
  ELF_SYM_LOC RaRule = GetRule(F, F.returnColumn);
  // "Same value": the return address is still in its own register.
  if (IsReg(RaRule, ELF_REG_SAME)) RaRule.parts[0].kind = ELF_LOC_REG, RaRule.parts[0].reg = F.returnColumn;
  if (!RaRule.count || IsReg(RaRule, ELF_REG_UNDEFINED)) {
    SetReason(STACK_STOP_NO_RA_RULE);
    F.returnAddress = U64(-1);
    F.raStatus = 1;
    Keep(F);
    return -1;
  }
  if (Failed) {
    Keep(F);
    return -1;
  }
  if (F.bpStatus == 3) {
    ELF_SYM_LOC Base = F.frameBase;
    const bool NeedsCfa = Base.count == 1 && (Base.parts[0].kind == ELF_LOC_CFA_VALUE || Base.parts[0].kind == ELF_LOC_AT_CFA);
    // A frame base relative to the CFA waits until the CFA is known.
    if (!(NeedsCfa && F.cfaStatus == 3 && !F.isInline)) {
      ResolveLocation(F, Base);
      if (Base.count && IsResolved(Base)) {
        F.frameBase = Base;
        Keep(F);
        StartRead(Base, 0, c.wordSize);
        return 1;
      }
      F.bp = U64(-1);
      F.bpStatus = 1;
    }
  }
  if (F.isInline) {
    Keep(F);
    return 0;
  }
  if (F.cfaStatus != 3) {
    if (F.raStatus != 3) {
      Keep(F);
      return F.bpStatus == 3 ? Step(F) : 0;
    }
    const ELF_SYM_LOC Ra = ResolvedIn(F, RaRule);
    if (IsResolved(Ra)) {
      Keep(F);
      StartRead(Ra, 2, c.codePtrSize);
      return 1;
    }
    SetReason(STACK_STOP_RA_UNSUPPORTED);
    F.returnAddress = U64(-1);
    F.raStatus = 1;
  } else {
    const ELF_SYM_LOC Cfa = ResolvedIn(F, CfaRule);
    if (IsResolved(Cfa)) {
      Keep(F);
      StartRead(Cfa, 1, c.wordSize);
      return 1;
    }
    SetReason(STACK_STOP_SP_UNSUPPORTED);
    F.cfa = Sp(F);
    F.cfaStatus = 1;
    F.frameSize = 0;
  }
  Keep(F);
  return -1;
}

void CCallStack::StartRead(const ELF_SYM_LOC& Loc, int Kind, U32 nBytes) {
  m_Pending = Loc;
  m_PendingKind = Kind;
  m_PendingAdd = CommonOffset(Loc);
  const ELF_LOC_PART& p = Loc.parts[0];
  // Constants and registers have their value at once; memory is a read job.
  if (Loc.count == 1 && p.kind == ELF_LOC_CONST) return CompleteRead(Loc, true, p.value);
  if (Loc.count == 1 && (p.kind == ELF_LOC_REG || p.kind == ELF_LOC_REG_VALUE)) {
    ELF_LOC_PART r = p;
    r.kind = ELF_LOC_REG;
    r.offset = 0;
    U64 v = 0;
    const bool Ok = ELF_ReadRegisterPart(GetTopFrame(), r, v);
    return CompleteRead(Loc, Ok, v);
  }
  if (Loc.count != 1) return CompleteRead(Loc, false, 0);
  ELF_LOC_PART a = p;
  a.kind = ELF_LOC_ADDR;
  a.offset = 0;
  a.size = nBytes;
  const ELF_SYM_LOC Job = OnePart(a);
  m_Pending = Job;
  m_ReadStartNs = NowNs();
  if (ReaderRef()) return ReaderRef()(Job, nBytes);
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || d->PostReadLocs(1, &Job, kReadContext | (m_ReadSerial & 0xFFFFFFFFu)) != 0) CompleteRead(Job, false, 0);
}

void CCallStack::OnDeviceReadLocsDone(U32 Cnt, ELF_SYM_LOC* paDataLocs, U64* paVals, U8* paStatus, U64 Context) {
  if (m_StackIdx != 1 || Context != (kReadContext | (m_ReadSerial & 0xFFFFFFFFu)) || Cnt != 1 || !paDataLocs) return;
  CompleteRead(paDataLocs[0], paStatus && paStatus[0] == 0, paVals ? paVals[0] : 0);
}

void CCallStack::OnDeviceReadLocsFailed(U32 Cnt, ELF_SYM_LOC* paDataLocs, U64 Context) {
  if (m_StackIdx != 1 || Context != (kReadContext | (m_ReadSerial & 0xFFFFFFFFu)) || Cnt != 1 || !paDataLocs) return;
  CompleteRead(paDataLocs[0], false, 0);
}

void CCallStack::CompleteRead(const ELF_SYM_LOC& Loc, bool HaveData, U64 Value) {
  if (m_StackIdx != 1) return m_pPartner->CompleteRead(Loc, HaveData, Value);
  if (FrameCount() == 0 || m_PendingKind == 3) return;
  // The job's location must be the pending one (the offset word aside).
  if (Loc.count != m_Pending.count || Loc.count < 1 ||
      memcmp(Loc.parts, m_Pending.parts, sizeof(ELF_LOC_PART) * std::min<U32>(Loc.count, 2)) != 0)
    return;
  const I64 d = m_PendingAdd;
  const int Kind = m_PendingKind;
  if (m_ReadStartNs >= 0) {
    ++m_Stats.Reads;
    m_Stats.WaitNs += NowNs() - m_ReadStartNs;
    m_ReadStartNs = -1;
  }
  memset(&m_Pending, 0, sizeof m_Pending);
  m_PendingKind = 3;
  const STACK_CORE_FACTS& c = Facts();
  const U64 Mask = c.wordSize >= 8 ? ~0ull : (1ull << (8 * c.wordSize)) - 1;
  CCallFrame F = GetTopFrame();
  if (Kind == 0) {
    if (HaveData) F.bp = (Value + U64(d)) & Mask, F.bpStatus = 0;
    else F.bp = U64(-1), F.bpStatus = 1, SetReason(STACK_STOP_BP_READ);
  } else if (Kind == 1) {
    if (HaveData) {
      F.cfa = (Value + U64(d)) & Mask;
      F.cfaStatus = 0;
      const I64 Size = I64(F.cfa) - I64(Sp(F));
      F.frameSize = Size >= 0 && Size <= 100000 ? U32(Size) : 0;
    } else {
      F.cfa = Sp(F), F.cfaStatus = 1, F.frameSize = 0, SetReason(STACK_STOP_SP_READ);
    }
  } else if (Kind == 2) {
    if (HaveData) {
      const U64 r = (Value + U64(d)) & Mask;
      if (!CElfApi::Instance().GetProgramData(U32(r), 1)) {
        F.raStatus = 1;
        F.returnAddress = r;
        SetReason(STACK_STOP_RA_RANGE);
      } else {
        const U64 Aligned = r & ~U64(c.instAlign > 1 ? c.instAlign - 1 : 0);
        F.returnAddress = Aligned;
        F.raStatus = 0;
        if (F.index == 0)
          if (CDevice* pDev = CDevice::InstanceIfCreated()) pDev->SetReturnAddr(Aligned);
      }
    } else {
      F.returnAddress = U64(-1), F.raStatus = 1, SetReason(STACK_STOP_RA_READ);
    }
  }
  Keep(F);
  emit EvalFrameDone(m_StackIdx);
  const int r = Step(F);
  if (r == 0) NextFrame();
  else if (r < 0) Finish();
}

void CCallStack::NextFrame() {
  const CCallFrame F = GetTopFrame();
  if (F.index >= DepthLimit() - 1) {
    SetReason(STACK_STOP_DEPTH);
    return Finish();
  }
  CCallFrame Callee = F;
  const CCallFrame G = CallerFrame(Callee);
  U64 Pc = 0;
  if (!G.IsValid() || !GetRegister(G, Facts().pcRegister, Pc) || Pc == 0) {
    Store().Truncate(1, F.index + 1);
    SetReason(STACK_STOP_PC_RANGE);
    return Finish();
  }
  emit UnwindNextFrameDone();
  if (m_bDriven || !m_bUnwinding) return;
  if (s_bFollowFrames) UnwindNextFrame();
  else Finish();
}

CCallFrame CCallStack::CallerFrame(const CCallFrame& Callee) {
  CCallFrame F = Callee;
  if (F.isInline) return InlineCallerFrame(F);
  if (F.cfaStatus != 0 || F.raStatus != 0) return CCallFrame();
  const STACK_CORE_FACTS& c = Facts();
  CCallFrame G;
  G.stack = F.stack;
  G.index = F.index + 1;
  G.registerCount = c.registerCount;
  G.returnColumn = c.returnRegister;
  if (!Store().SetFrame(G)) return CCallFrame();
  for (U32 r = 0; r < c.registerCount; ++r) Store().SetRegister(G.stack, G.index, r, 0, 1);
  Store().SetRegister(G.stack, G.index, c.pcRegister, InstBefore(F.returnAddress, c.instAlign), 0);
  Store().SetRegister(G.stack, G.index, c.spRegister, F.cfa, 0);
  DeriveFunction(G);
  Keep(G);
  return G;
}

CCallFrame CCallStack::InlineCallerFrame(CCallFrame& F) {
  const STACK_CORE_FACTS& c = Facts();
  U64 Pc = 0;
  GetRegister(F, c.pcRegister, Pc);
  ELF_RANGE r{U32(Pc), U32(Pc), 0};
  for (const ELF_RANGE& x : ELF_GetRanges(F.function))
    if (x.start <= Pc && Pc < x.end) r = x;
  const U64 Sp_ = Sp(F);
  F.cfa = Sp_;
  F.cfaStatus = 0;
  F.frameSize = 0;
  // The caller: just before the inlined range.
  CCallFrame G;
  G.stack = F.stack;
  G.index = F.index + 1;
  G.registerCount = c.registerCount;
  G.returnColumn = c.returnRegister;
  U64 GPc = InstBefore(r.start, c.instAlign);
  // The end of the outermost inlined instance that follows this one.
  const ELF_SYM_HANDLE Outer = SYM_GetFunctionAt(U32(GPc));
  U32 e = r.end;
  for (int i = 0; i < 10; ++i) {
    const ELF_SYM_HANDLE g = SYM_GetFunctionAt(e);
    if (!g || g == Outer || ELF_GetTag(g) != ELF_TAG_INLINED) break;
    U32 End = e;
    for (const ELF_RANGE& x : ELF_GetRanges(g))
      if (x.start <= e && e < x.end) End = x.end;
    if (End == e) break;
    e = End;
  }
  F.returnAddress = e;
  F.raStatus = 0;
  Keep(F);
  // An inlined range at the very start of its caller has no instruction of
  // the caller before it: the caller then stands where the range returns.
  ELF_SYM_HANDLE Parent = ELF_GetParent(F.function);
  for (int i = 0; Parent && i < 64; ++i, Parent = ELF_GetParent(Parent)) {
    const U32 Tag = ELF_GetTag(Parent);
    if (Tag == ELF_TAG_INLINED || Tag == ELF_TAG_SUBPROGRAM) break;
  }
  if (Parent && Outer != Parent && SYM_GetFunctionAt(e) == Parent) GPc = e;
  G.bp = F.bp;
  G.bpStatus = F.bpStatus;
  if (!Store().SetFrame(G)) return CCallFrame();
  for (U32 x = 0; x < c.registerCount; ++x) Store().SetRegister(G.stack, G.index, x, 0, 1);
  Store().SetRegister(G.stack, G.index, c.pcRegister, GPc, 0);
  Store().SetRegister(G.stack, G.index, c.spRegister, Sp_, 0);
  DeriveFunction(G);
  Keep(G);
  return G;
}

void CCallStack::ComputeFrameBase(CCallFrame& F) {
  const STACK_CORE_FACTS& c = Facts();
  U64 Pc;
  if (!GetRegister(F, c.pcRegister, Pc)) return;
  ELF_SYM_HANDLE f = F.function;
  for (int i = 0; f && ELF_GetTag(f) == ELF_TAG_INLINED && i < 64; ++i) f = ELF_GetParent(f);
  if (!f) {
    F.frameBase = ELF_SYM_LOC{};
    return;
  }
  // Kept unresolved: resolving is done once, when the frame base is read
  // (a register of a caller frame resolved again would be taken as one of
  // its own).
  ELF_SYM_LOC l = ELF_GetSymbolLocation(f, U32(Pc));
  if (l.count == 1 && (l.parts[0].kind == ELF_LOC_ADDR || l.parts[0].kind == ELF_LOC_ADDR_OFFSET) && c.wordSize &&
      l.parts[0].address % c.wordSize) {
    U32 Start = 0;
    for (const ELF_RANGE& x : ELF_GetRanges(f))
      if (x.start <= Pc && Pc < x.end) Start = x.start;
    LogWarning(QStringLiteral("function base pointer memory location not word-aligned. Function @ %1 BP @ %2")
                   .arg(Hex8(Start), Hex8(l.parts[0].address)));
    l.parts[0].address -= l.parts[0].address % c.wordSize;
  }
  F.frameBase = l;
}

bool CCallStack::FrameBaseValue(CCallFrame& F, U64 Fallback) {
  ELF_SYM_LOC l = F.frameBase;
  if (l.count) ResolveLocation(F, l);
  F.frameBase = l;
  U64 v = 0;
  bool Ok = l.count == 1 && IsResolved(l);
  if (Ok) {
    ELF_LOC_PART p = l.parts[0];
    const I64 d = CommonOffset(l);
    if (p.kind == ELF_LOC_REG_VALUE) p.kind = ELF_LOC_REG, p.offset = 0;
    if (p.kind == ELF_LOC_ADDR_OFFSET) p.kind = ELF_LOC_ADDR, p.offset = 0;
    Ok = ELF_ResolvedPartWord(F, p, v);
    v += U64(d);
  }
  if (!Ok) {
    ELF_SYM_HANDLE f = F.function;
    for (int i = 0; f && ELF_GetTag(f) == ELF_TAG_INLINED && i < 64; ++i) f = ELF_GetParent(f);
    if (f)
      LogWarning(QStringLiteral("Invalid BP data location for function %1. Falling back to SP").arg(ELF_GetName(f)));
    v = Fallback;
  }
  F.bp = v;
  F.bpStatus = 0;
  return Ok;
}

void CCallStack::Finish() {
  if (m_StackIdx != 1) return m_pPartner->Finish();
  CCallStack& Pub = *m_pPartner;
  CFrameStore& s = Store();
  s.CopyStack(1, 0);
  m_bUnwinding = false;
  m_PendingKind = 3;
  Pub.m_StopReason = m_StopReason;
  Pub.m_LargestFrameSize = 0;
  Pub.m_Locs.clear();
  Pub.m_Addresses.clear();
  for (int i = 0; i < Pub.FrameCount(); ++i) {
    const CCallFrame F = Pub.GetFrame(i);
    Pub.m_LargestFrameSize = std::max(Pub.m_LargestFrameSize, F.frameSize);
    Pub.m_Locs << Pub.FrameSrcLoc(i);
    Pub.m_Addresses << F.cfa;
  }
  if (Pub.m_Selected >= Pub.FrameCount()) Pub.SetSelectedFrame(0);
  emit UnwindComplete();
  emit Pub.UnwindComplete();
}

CSrcLoc CCallStack::FrameSrcLoc(int Index) const {
  const CCallFrame F = GetFrame(Index);
  if (!F.IsValid()) return CSrcLoc();
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  const CLineTables& t = DWARF_GetProgramTables();
  if (Index > 0) {
    const CCallFrame Below = GetFrame(Index - 1);
    if (Below.function && Below.isInline) {
      const CSrcLoc l = DWARF_GetCallLoc(t, Below.function);
      if (!l.IsNull()) return l;
    }
  }
  U64 Pc;
  return GetRegister(F, Facts().pcRegister, Pc) ? t.GetLastSrcLoc(U32(Pc)) : CSrcLoc();
}

bool CCallStack::UnwindAll(int TimeoutMs) {
  CCallStack& W = m_StackIdx == 1 ? *this : *m_pPartner;
  QElapsedTimer t;
  t.start();
  W.m_bDriven = true;
  Unwind();
  // A frame is complete when no read is pending and the next one is there.
  int Frames = -1;
  while (W.m_bUnwinding && t.elapsed() < TimeoutMs) {
    if (W.m_PendingKind == 3 && W.FrameCount() != Frames) {
      Frames = W.FrameCount();
      W.UnwindNextFrame();
      continue;
    }
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  }
  W.m_bDriven = false;
  if (!W.m_bUnwinding) return true;
  W.SetReason(STACK_STOP_RA_READ);
  W.Finish();
  return false;
}

CCallStack::READ_STATS CCallStack::TakeReadStats() {
  CCallStack& W = m_StackIdx == 1 ? *this : *m_pPartner;
  const READ_STATS r = W.m_Stats;
  W.m_Stats = READ_STATS();
  return r;
}

// ---- texts -------------------------------------------------------------------------

QString CCallStack::GetStopText() const {
  const CCallFrame F = GetTopFrame();
  U64 Pc = 0;
  if (F.IsValid()) GetRegister(F, Facts().pcRegister, Pc);
  auto Loc = [&](U32 Column) {
    return QString::fromLatin1(ELF_LocationToText(GetRule(F, Column)));
  };
  QString s;
  switch (m_StopReason) {
    case 0: return QStringLiteral("Top of stack");
    case 1: case 2: s = QStringLiteral("no unwinding symbols at %1").arg(Hex8(Pc)); break;
    case 3: s = QStringLiteral("frame base pointer location out of range: %1").arg(QString::fromLatin1(ELF_LocationToText(F.frameBase))); break;
    case 4: s = QStringLiteral("stack pointer location out of range: %1").arg(Loc(Facts().spRegister)); break;
    case 5: s = QStringLiteral("return address location out of range: %1").arg(Loc(F.returnColumn)); break;
    case 6: s = QStringLiteral("unsupported stack pointer location: %1").arg(Loc(Facts().spRegister)); break;
    case 7: s = QStringLiteral("unsupported return address location: %1").arg(Loc(F.returnColumn)); break;
    case 8: s = QStringLiteral("PC out of range"); break;
    case 9: s = QStringLiteral("return address out of range: %1").arg(Hex8(F.returnAddress)); break;
    case 10: s = QStringLiteral("depth limit reached"); break;
    default: return QStringLiteral("Top of stack");
  }
  return QStringLiteral("Top of stack - ") + s;
}

QString CCallStack::FrameFunctionText(const CCallFrame& F) const {
  if (F.function) {
    const char* n = ELF_GetName(F.function);
    if (n && *n) return QString::fromLatin1(n);
  }
  U64 Pc = 0;
  GetRegister(F, Facts().pcRegister, Pc);
  return QStringLiteral("@ ") + Hex8(Pc);
}

QString CCallStack::FrameReturnText(const CCallFrame& F) const {
  QString sRule;
  if (F.isInline) {
    sRule = QStringLiteral("<inline>");
  } else {
    const ELF_SYM_LOC Rule = GetRule(F, F.returnColumn);
    ELF_SYM_LOC r = Rule;
    if (r.count) ResolveLocation(F, r);
    sRule = QString::fromLatin1(ELF_LocationToText(r));
    if (sRule == QLatin1String("N/A")) sRule = QString::fromLatin1(ELF_LocationToText(Rule));
  }
  if (sRule == QLatin1String("N/A") || sRule.isEmpty()) return QStringLiteral("<no symbols>");
  return sRule + QStringLiteral(": ") + Hex8(F.returnAddress);
}

QString CCallStack::FrameStackText(const CCallFrame& F) const {
  U64 v;
  if (!GetRegister(F, Facts().spRegister, v)) return QStringLiteral("N/A");
  const U32 m = m_LargestFrameSize;
  const int Width = m < 10 ? 1 : m < 100 ? 2 : m < 1000 ? 3 : 4;
  return QStringLiteral("%1 @ %2").arg(F.frameSize, Width, 10, QLatin1Char(' ')).arg(Hex8(v));
}

// ---- device reports ------------------------------------------------------------

void CCallStack::OnDeviceResumeDone(RESUME_MODES) {
  if (m_StackIdx == 1) Reset();
}

void CCallStack::OnDeviceResetDone(U32, RESET_MODES Mode) {
  if (m_StackIdx == 1) return Reset();
  if (Mode != RM_RESET_SESSION) SetSelectedFrame(0);
  Unwind();
}

void CCallStack::OnDeviceDisconnectDone() {
  Reset();
  m_Locs.clear();
  m_Addresses.clear();
  m_StopReason = 0;
}

void CCallStack::OnDeviceEvalBPCondition(U32) {
  if (m_StackIdx == 0) Init();
}

void CCallStack::OnDeviceHaltDone(U32 NewPC, HALT_REASONS) {
  if (m_StackIdx != 0) return;
  SYM_SetCurrentPc(NewPC);
  SetSelectedFrame(0);
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->ReportHalts()) Unwind();
}

void CCallStack::OnDeviceStepped(U32 NewPC) {
  if (m_StackIdx != 0) return;
  SYM_SetCurrentPc(NewPC);
  SetSelectedFrame(0);
  Unwind();
}
