// Source-level stepping on the device worker. The low gear single-steps
// machine instructions and compares each new PC with where the step began;
// the high gear puts the hidden breakpoint where the line must end, lets the
// target run, and the halt sequence finishes the step in a later round
// (CompleteSrcStepOnHiddenBP).
#include "device/device.h"

#include "device/events.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/insn_analysis.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/target_access.h"
#include "elf/elfapi.h"

#include <QMutexLocker>
#include <algorithm>

namespace {

// ---- the program's address and line services, under the wrapper mutex

struct PC_INFO {
  bool HasCode = false;
  CSrcLoc Loc;            // first location of the address (null without code)
  ELF_SYM_HANDLE hFunc = 0;
  bool Inline = false;    // hFunc is an inlined instance
};

PC_INFO InfoAt(U64 Addr) {
  PC_INFO i;
  if (Addr > 0xFFFFFFFFull) return i;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  const CLineTables& t = DWARF_GetProgramTables();
  i.HasCode = t.HasCode(U32(Addr));
  if (i.HasCode) i.Loc = t.GetSrcLoc(U32(Addr));
  i.hFunc = t.GetFunction(U32(Addr), false);
  i.Inline = i.hFunc && ELF_GetTag(i.hFunc) == ELF_TAG_INLINED;
  return i;
}

ELF_SYM_HANDLE FunctionAt(U64 Addr) { return InfoAt(Addr).hFunc; }

bool SameLine(const CSrcLoc& a, const CSrcLoc& b) { return a.file == b.file && a.line == b.line; }

// True when some address of the function's range has a line.
bool FunctionHasCode(ELF_SYM_HANDLE hFunc) {
  if (!hFunc) return false;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  const CLineTables& t = DWARF_GetProgramTables();
  return t.RangeHasCode(t.GetSymbolRange(hFunc));
}

// [Start, End)
bool RangeHasCode(U64 Start, U64 End) {
  if (Start >= End || Start > 0xFFFFFFFFull) return false;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  return DWARF_GetProgramTables().RangeHasCode(CAddrRange(U32(Start), U32(std::min<U64>(End - Start, 0xFFFFFFFFull))));
}

// True when the addresses of the location list of Addr hold File and Line.
bool LocsHold(U64 Addr, const CSrcLoc& Loc) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  for (const CSrcLoc& l : DWARF_GetProgramTables().GetSrcLocs(U32(Addr)))
    if (SameLine(l, Loc)) return true;
  return false;
}

IInstructionAnalysis* Analysis() { return ELF_GetTargetAccess().GetInstructionAnalysis(); }

U32 InstAlignment() {
  const IInstructionAnalysis* a = Analysis();
  return a ? std::max<U32>(1, a->GetInstAlignment()) : 2;
}

}  // namespace

// ---- helpers of the worker

namespace {

// Size of the instruction at Addr: the instruction analysis, else the
// Thumb-2 rule on the first halfword read from the target.
U32 InstSizeAt(CDevice* d, U64 Addr) {
  if (const IInstructionAnalysis* a = Analysis())
    if (const U32 n = a->GetInstructionSize(U32(Addr))) return n;
  U16 Hw = 0;
  if (d->ReadHalfWord(U32(Addr), &Hw) != 0) return 2;
  const U16 Top = Hw >> 11;
  return Top == 0x1D || Top == 0x1E || Top == 0x1F ? 4 : 2;
}

// The execution state of the current halt, read anew when the halt sequence
// has not stored it.
void EnsureExecState(CDevice* d) {
  const DEVICE_EXEC_STATE s = d->ExecState();
  if (s.PCStatus != EXEC_STATUS_VALID || s.SPStatus != EXEC_STATUS_VALID || U32(s.PC) != d->CurrentPC())
    d->SetTargetExecState(0, 0);
}

}  // namespace

void CDevice::StoreContext() {
  m_StepCtx = STEP_CONTEXT{};
  const DEVICE_EXEC_STATE s = ExecState();
  STEP_CONTEXT& c = m_StepCtx;
  c.PC = s.PC, c.SP = s.SP, c.ReturnAddr = s.ReturnAddr;
  c.PCStatus = s.PCStatus, c.SPStatus = s.SPStatus, c.ReturnAddrStatus = s.ReturnAddrStatus;
  const PC_INFO At = InfoAt(s.PC);
  c.Loc = CSrcLoc(At.Loc.file, At.Loc.line, 0);
  c.hFunc = At.hFunc;
  c.hReturnFunc = s.ReturnAddrStatus == EXEC_STATUS_VALID ? FunctionAt(s.ReturnAddr) : 0;
}

// Common end of a step: the execution state from the target, no step running.
void CDevice::FinishSrcStep() {
  SetTargetExecState(0, 0);
  m_bSourceStep.store(false);
}

// Reads PC and SP into the execution state (both valid); false on failure.
bool CDevice::ReadStepRegs(U64* pPC, U64* pSP) {
  if (ReadReg(VORDENARM_REG_PC, pPC) != 0 || ReadReg(VORDENARM_REG_SP, pSP) != 0) return false;
  std::lock_guard<std::mutex> g(m_ExecMx);
  m_Exec.PC = *pPC, m_Exec.SP = *pSP;
  m_Exec.PCStatus = m_Exec.SPStatus = EXEC_STATUS_VALID;
  return true;
}

int CDevice::StepInto() {
  if (!CanStep()) return -1;
  DeviceLogDebug("-------------------- Step Into -------------------------");
  m_bSourceStep.store(true);
  EnsureExecState(this);
  StepIntoSimple();
  FinishSrcStep();
  return 0;
}

int CDevice::StepIntoSimple() {
  const DEVICE_EXEC_STATE s = ExecState();
  const U64 StartPC = s.PC;
  const PC_INFO Start = InfoAt(StartPC);
  const CSrcLoc StartLoc(Start.Loc.file, Start.Loc.line, 0);
  U64* History = m_StepCtx.History;
  U64 PC = StartPC, SP = s.SP;
  int Count = 0;
  for (int i = 0; i < STEP_HISTORY_SIZE; ++i) {
    History[i] = PC;
    if (StepInstBasic() != 0) break;
    ++Count;
    if (!ReadStepRegs(&PC, &SP)) break;
    const PC_INFO Now = InfoAt(PC);
    if (GetBreakpoint(U32(PC)).State == BP_STATE_ON && !SameLine(Now.Loc, StartLoc)) {
      DeviceLogDebug("User breakpoint hit");
      break;
    }
    if (std::find(History, History + i + 1, PC) != History + i + 1) {
      DeviceLogDebug("Circular step sequence encountered");
      break;
    }
    if ((!Start.HasCode && Now.HasCode) || (Start.HasCode && Now.HasCode && !SameLine(Now.Loc, StartLoc))) {
      DeviceLogDebug("PC is on a new source line");
      break;
    }
    if (!Now.hFunc && Start.hFunc) {
      DeviceLogDebug("Unknown function was entered");
      break;
    }
    if (Now.hFunc && !FunctionHasCode(Now.hFunc)) {
      DeviceLogDebug("Function was entered that has no source line info");
      break;
    }
    if (m_bStop.load() || Count >= STEP_MAX_INSTS) break;
  }
  DeviceLogDebug("Stepped %d machine instruction(s)", Count);
  std::lock_guard<std::mutex> g(m_ExecMx);
  m_Exec.PC = PC, m_Exec.PCStatus = EXEC_STATUS_VALID;
  return 0;
}

// The first address of the next line with code when the rest of the step's
// line can be passed by running to it: inside the program, above the start,
// in the start's function, with no jump or return on the way. 0 if none.
U64 CDevice::FindStepOverTarget(U64 PC, const CSrcLoc& Loc) {
  I64 T = -1;
  CAddrRange Prog{};
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const CLineTables& t = DWARF_GetProgramTables();
    const CSrcLoc Next = t.NextLocWithCode(Loc);
    if (Next.file == 0 && Next.line == 0) return 0;
    T = t.GetFirstLocAddress(Next);
    Prog = t.GetAddressRange();
  }
  if (T < 0 || U64(T) < Prog.start || U64(T) >= Prog.End() || U64(T) <= PC) return 0;
  const IInstructionAnalysis* a = Analysis();
  if (!a || !a->IsStraightCode(U32(PC), U32(T))) return 0;
  if (FunctionAt(U64(T)) != FunctionAt(PC)) return 0;
  return U64(T);
}

// Runs to Addr for a step still pending as Op; false when the run could not start.
bool CDevice::ContinueStepAt(U64 Addr, U32 Op) {
  const U32 Before = m_PendingOp.load();
  m_PendingOp.store(Op);
  if (RunTo(Addr) == 1) return true;
  m_PendingOp.store(Before);
  return false;
}

int CDevice::StepOver(U8 DoStoreContext) {
  if (!CanStep()) return -1;
  DeviceLogDebug("-------------------- Step Over -------------------------");
  m_bSourceStep.store(true);
  EnsureExecState(this);
  if (DoStoreContext) StoreContext();
  int R = StepOverSimple(2);
  if (R > 0) {
    if (const U64 T = FindStepOverTarget(m_StepCtx.PC, m_StepCtx.Loc); T && ContinueStepAt(T, JT_STEP_OVER)) return 1;
  }
  if (R == 3) R = StepOverSimple(STEP_MAX_INSTS);
  PostDeviceEvent(DEV_EVENT_SET_STATUS_MSG, 0, 0, "CPU halted");
  const U64 PC = ExecState().PC;
  if (R == 1) {
    DeviceLogDebug("Stepping out");
    if (m_StepCtx.ReturnAddr != PC) {
      if (m_StepCtx.ReturnAddrStatus != EXEC_STATUS_VALID) return StepOut();
      if (ContinueStepAt(m_StepCtx.ReturnAddr, JT_STEP_OVER)) return 1;
    }
  } else if (R == 2 && PC != m_StepCtx.PC) {
    DeviceLogDebug("Stepping out of circular instruction sequence");
    U32 Next = 0;
    bool Found = false;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      Found = DWARF_GetProgramTables().NextLineAddress(U32(PC), &Next);
    }
    if (Found && FunctionAt(Next) == FunctionAt(PC) && ContinueStepAt(Next, JT_STEP_OVER)) return 1;
  }
  FinishSrcStep();
  return 0;
}

int CDevice::StepOverSimple(int MaxSingleSteps) {
  STEP_CONTEXT& c = m_StepCtx;
  const bool CtxHasCode = InfoAt(c.PC).HasCode;
  U64 PC = ExecState().PC, SP = ExecState().SP;
  int R = -1;
  for (;;) {
    if (c.StepCount >= U32(STEP_HISTORY_SIZE)) break;
    c.History[c.StepCount++] = PC;
    if (StepInstBasic() != 0 || !ReadStepRegs(&PC, &SP)) break;
    const PC_INFO Now = InfoAt(PC);
    const bool Entered = Now.hFunc && Now.hFunc != c.hFunc && Now.hFunc != c.hReturnFunc && SP <= c.SP;
    const bool Inline = Entered && Now.Inline;
    if (GetBreakpoint(U32(PC)).State == BP_STATE_ON && !SameLine(Now.Loc, c.Loc)) {
      DeviceLogDebug("User breakpoint hit");
      R = 0;
      break;
    }
    if (std::find(c.History, c.History + c.StepCount, PC) != c.History + c.StepCount) {
      DeviceLogDebug("Circular step sequence encountered");
      R = 2;
      break;
    }
    if (!Entered && ((!CtxHasCode && Now.HasCode) || (CtxHasCode && Now.HasCode && !SameLine(Now.Loc, c.Loc)))) {
      DeviceLogDebug("PC is on a new source line");
      R = 0;
      break;
    }
    const bool Unknown = !Now.hFunc && c.hFunc;
    if ((Entered && !Inline) || Unknown) {
      const U64 Last = c.History[c.StepCount - 1];
      U64 Ret = Last + InstSizeAt(this, Last);
      if (Ret < 0x100000000ull) Ret -= Ret % InstAlignment();
      c.ReturnAddr = Ret, c.ReturnAddrStatus = EXEC_STATUS_VALID;
      SetReturnAddr(Ret);
      DeviceLogDebug(Unknown ? "Unknown function was entered" : "Function was entered");
      R = 1;
      break;
    }
    const DEVICE_EXEC_STATE s = ExecState();
    if (s.FuncStart != ~0ull && s.FuncEnd != ~0ull && !RangeHasCode(s.FuncStart, s.FuncEnd)) {
      DeviceLogDebug("Function was entered that has no source line info");
      R = 0;
      break;
    }
    if (c.StepCount >= U32(MaxSingleSteps)) {
      DeviceLogDebug("Maximum step count reached");
      R = 3;
      break;
    }
    if (m_bStop.load() || c.StepCount > U32(STEP_MAX_INSTS)) break;
  }
  DeviceLogDebug("Stepped a total of %d machine instruction(s)", int(c.StepCount));
  return R;
}

int CDevice::StepOut() {
  if (!CanStep()) return -1;
  DeviceLogDebug("-------------------- Step Out -------------------------");
  PostDeviceEvent(DEV_EVENT_SET_STATUS_MSG, 0, 0, "Stepping out...");
  m_bSourceStep.store(true);
  EnsureExecState(this);
  const DEVICE_EXEC_STATE s = ExecState();
  if (s.ReturnAddrStatus == EXEC_STATUS_VALID && ContinueStepAt(s.ReturnAddr, JT_STEP_OUT)) return 1;
  StepOutSimple();
  FinishSrcStep();
  return 0;
}

int CDevice::StepOutSimple() {
  const DEVICE_EXEC_STATE s = ExecState();
  const U64 StartSP = s.SP;
  const bool StartInFunc = FunctionAt(s.PC) != 0;
  U64 PC = s.PC, SP = s.SP;
  int Count = 0;
  while (Count < STEP_MAX_INSTS && !m_bStop.load()) {
    if (StepInstBasic() != 0) break;
    ++Count;
    if (!ReadStepRegs(&PC, &SP)) break;
    if (SP > StartSP) {
      DeviceLogDebug("Function was exited");
      break;
    }
    if (!StartInFunc && FunctionAt(PC)) {
      DeviceLogDebug("PC entered a program function from a non-program function");
      break;
    }
  }
  DeviceLogDebug("Stepped %d machine instruction(s)", Count);
  return 0;
}

int CDevice::CompleteSrcStepOnHiddenBP(U32 PC) {
  const U32 Op = m_PendingOp.load();
  if (Op != JT_STEP_INTO && Op != JT_STEP_OVER) {
    FinishSrcStep();
    return 0;
  }
  if (InfoAt(PC).HasCode && (PC == m_StepCtx.PC || !LocsHold(PC, m_StepCtx.Loc))) {
    FinishSrcStep();
    return 0;
  }
  DeviceLogDebug("Continueing source step after resume/halt cycle");
  ClearAllBreakpoints(BP_STATE_ON_HIDDEN);
  if (StepOver(0) == 1) return 1;
  FinishSrcStep();
  return 0;
}
