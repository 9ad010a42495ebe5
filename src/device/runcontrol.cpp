// Run control: the halt poll, the halt sequence, resume, halt, reset,
// run-to and the instruction step, and the notification words.
//
// A halt is never told by the probe: the worker asks for it in each round
// (CheckHandleHalt) and, once the target stands, runs the halt sequence
// (semihosting, breakpoint condition, source step, hidden breakpoint). Only
// its end, OnHalted, reports the halt to the windows. A breakpoint condition
// is decided on the user interface thread; the answer comes back through the
// condition word and the next round goes on with OnDeviceBPConditionEvaluated.
#include "device/coresupport.h"
#include "device/device.h"
#include "device/events.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

namespace {

qint64 NowMs() { return DeviceNowMs(); }

constexpr qint64 kLongAgo = -1000000;
constexpr U32 kNone = ~0u;
// The break-instruction flag of the instruction analysis: the top bit of the
// flag word.
constexpr U64 kInstFlagBreak = 1ull << 63;
// DWARF numbers of the stack pointer and the PC: the register roles the core
// support maps to probe registers.
constexpr U32 kCoreRegSP = 13, kCoreRegPC = 15;

// The implementation the user permits for breakpoints (system variable).
BP_TYPES UserBreakpointType() {
  const I64 v = SysVars::GetValue(VAR_BREAKPOINT_TYPE);
  return v >= 0 && v <= 2 ? BP_TYPES(v) : BP_TYPE_ANY;
}

bool IsSrcStepType(U32 Type) { return Type == JT_STEP_INTO || Type == JT_STEP_OVER || Type == JT_STEP_OUT; }

// The probe register of a register role: through the core support, else the
// probe's own index.
U32 RoleRegIndex(U32 CoreReg, U32 ProbeFallback) {
  const ICoreSupport* cs = DEV_GetCoreSupport();
  if (!cs) return ProbeFallback;
  const int i = cs->GetRegIndex(CoreReg);
  return i < 0 ? ProbeFallback : U32(i);
}

}  // namespace

// ---- polls

int CDevice::PollTargetHaltStatus(U32 MinQueryIntervalMS) {
  if (!m_bConnected.load() || !ProbeOpen()) return 0;
  const qint64 Now = NowMs();
  if (Now - m_LastHaltQueryMs < qint64(MinQueryIntervalMS)) return -2;
  m_LastHaltQueryMs = Now;
  const int r = m_Probe.VORDENARM_IsHalted();
  return r < 0 ? -1 : (r > 1 ? 1 : r);
}

bool CDevice::IsTargetHaltedNow() {
  if (!m_bConnected.load()) return false;
  if (m_bHalted.load()) return true;
  return PollTargetHaltStatus(51) == 1;
}

// Most runs are short: a step that runs to the end of its line, a run to a
// nearby line, a breakpoint in a loop. Right after a resume the poll looks
// every millisecond and backs off in proportion to the time run, up to 50 ms
// from 400 ms on: about 30 queries in the first 400 ms instead of 8, and a
// short run is noticed within an eighth of its length.
int CDevice::HaltPollIntervalMs() const {
  const qint64 Run = NowMs() - m_LastResumeMs;
  return Run < 8 ? 1 : (Run >= 400 ? 50 : int(Run / 8));
}

int CDevice::HaltPollWaitMs() const {
  if (!m_bConnected.load() || !m_bRunning.load() || m_bConnectionLost.load()) return 200;
  const qint64 Left = HaltPollIntervalMs() - (NowMs() - m_LastHaltQueryMs);
  return Left < 1 ? 1 : (Left > 200 ? 200 : int(Left));
}

void CDevice::CheckHandleHalt() {
  if (!m_bConnected.load() || m_bConnectionLost.load() || !ProbeOpen()) return;
  // A user halt ends a sequence that waits for a condition: the target
  // stands, and a halt that the user asked for is never held back.
  if (m_bHaltSeqActive.load() && m_bHalted.load() && m_bUserHaltPending.load()) {
    m_bUserHaltPending.store(false);
    return HandleUnconditionalHalt();
  }
  if (!m_bRunning.load()) {
    if (!m_bHaltSeqActive.load()) CheckHandleResume(-1);
    return;
  }
  if (m_bHaltSeqActive.load() && !m_bUserHaltPending.load()) return;
  const int r = PollTargetHaltStatus(U32(HaltPollIntervalMs()));
  if (r == -1) return OnInvalidHaltStatus();
  if (r != 1) return;
  const bool UserHalt = m_bUserHaltPending.exchange(false);
  m_bHaltSeqActive.store(true);
  m_bHalted.store(true);
  m_bRunning.store(false);
  DeviceLogInfo("Target has halted. Evaluating halt conditions...");
  SetTargetExecState(0, 0);
  if (UserHalt) return HandleUnconditionalHalt();
  const U32 PC = m_PC.load();
  if (CheckHandleSemihostingIRQ(PC, 1) == 0) {
    EvalBPCondAndContinueHaltSeq(PC);
    return;
  }
  m_bHaltSeqActive.store(false);
}

void CDevice::CheckHandleResume(int TargetHaltState) {
  if (m_bRunning.load() || !m_bConnected.load() || m_bHaltSeqActive.load() || m_bConnectionLost.load()) return;
  const int s = TargetHaltState == -1 ? PollTargetHaltStatus(5000) : TargetHaltState;
  if (s == -1) return OnInvalidHaltStatus();
  if (s == 0) MarkRunningBehindOurBack();
}

void CDevice::MarkRunningBehindOurBack() {
  m_bRunning.store(true);
  m_bHalted.store(false);
  m_bHaltReported.store(false);
  PostJobEvent(JT_CONTINUE, 0, RESUME_CONTINUE, 0, 0);
}

void CDevice::CheckHandleNotifications() {
  const U64 Connect = m_ConnectWord.exchange(~0ull);
  if (Connect != ~0ull) {
    FinishConnect(CONNECT_MODES(int(Connect)));
    PostJobEvent(JT_CONNECT, m_bConnected.load() ? 0 : 1, Connect, I64(m_PC.load()), 0);
    // A target that the connection found standing is reported after it.
    if (m_bHaltReportDue) {
      m_bHaltReportDue = false;
      PostJobEvent(JT_HALT, 0, 0, I64(m_PC.load()), HALT_REASON_PLAIN);
    }
  }
  const U64 Reset = m_ResetWord.exchange(~0ull);
  if (Reset != ~0ull) {
    const int r = FinishReset(RESET_MODES(int(Reset)));
    PostJobEvent(JT_RESET, r < 0 ? 1 : 0, Reset, I64(m_PC.load()), 0);
  }
  const U64 Cond = m_CondWord.exchange(~0ull);
  if (Cond != ~0ull) OnDeviceBPConditionEvaluated(Cond & ~1ull, Cond & 1);
}

// ---- the halt sequence

// Semihosting requests stop the target at a break instruction; handling them
// belongs to the semihosting layer. Until it exists no stop is one.
int CDevice::CheckHandleSemihostingIRQ(U32 PC, int Mode) {
  (void)PC;
  (void)Mode;
  return 0;
}

int CDevice::EvalBPCondAndContinueHaltSeq(U32 PC) {
  const DEVICE_BP Bp = GetBreakpoint(PC);
  if (Bp.Occupied && Bp.State == BP_STATE_ON) {
    const int Idx = BpListFind(PC);
    if (Idx >= 0) ++m_aBP[Idx].HitCount;
    if (Bp.HasCondition) {
      // The sequence stays active; the worker keeps out of the poll until
      // the answer is in the condition word.
      PostDeviceEvent(DEV_EVENT_EVAL_BP_CONDITION, PC);
      return 1;
    }
  } else if (Bp.Occupied && Bp.State == BP_STATE_ON_HIDDEN) {
    DeviceLogInfo("Target has halted on invisible BP");
    return CompleteSrcStepAndContHaltSeq(PC);
  }
  OnHalted();
  return 0;
}

void CDevice::OnDeviceBPConditionEvaluated(U64 PC, bool CondMet) {
  if (!m_bHaltSeqActive.load() || !m_bHalted.load()) return;
  // An answer for another stop than the one in progress is stale.
  if (U32(PC) != m_PC.load()) return;
  if (CondMet || m_bUserHaltPending.exchange(false)) {
    CompleteSrcStepAndContHaltSeq(U32(PC));
    return;
  }
  Continue();
  m_bHaltSeqActive.store(false);
}

int CDevice::CompleteSrcStepAndContHaltSeq(U32 PC) {
  if (PC == m_HiddenBPAddr.load() && m_bHaltSeqActive.load()) {
    if (CompleteSrcStepOnHiddenBP(PC) > 0) {
      m_bHaltSeqActive.store(false);
      return 1;
    }
  }
  OnHalted();
  return 0;
}

void CDevice::HandleUnconditionalHalt() { OnHalted(); }

void CDevice::OnHalted() {
  const U32 PC = m_PC.load();
  const DEVICE_BP Bp = GetBreakpoint(PC);
  m_bHalted.store(true);
  m_bHaltReported.store(true);
  m_bRunning.store(false);
  const bool AtHidden = PC == m_HiddenBPAddr.load();
  DeviceLogInfo("Target has halted and all halt conditions were passed");
  // Hidden breakpoints out; a user's breakpoint at the same place is set
  // again as it was. A failure never stops the sequence.
  if (ClearAllBreakpoints(BP_STATE_ON_HIDDEN) < 0) DeviceLogWarning("OnHalted: could not clear hidden breakpoints");
  const U32 Op = m_PendingOp.load();
  if (AtHidden) {
    if (m_SavedBP.State != 0) {
      SetBreakpoint(m_SavedBP.Addr, m_SavedBP.State, m_SavedBP.Type);
      m_SavedBP = DEVICE_BP{};
    }
    if (IsSrcStepType(Op) || Op == JT_STEP_INST) {
      PostJobEvent(Op, 0, 0, I64(PC), 0);
    } else if (Op == JT_RUN_TO) {
      if (PC == U32(m_Config.Get(DEV_CFG_BREAK_AT_SYMBOL_ADDR))) {
        m_bReportHalts.store(true);
        PostJobEvent(JT_RUN_TO, 0, PC, I64(PC), 0);
      }
      PostJobEvent(JT_HALT, 0, 0, I64(PC), HALT_REASON_RUN_TO);
    }
  } else if (m_bReportHalts.load()) {
    PostJobEvent(JT_HALT, 0, 0, I64(PC), Bp.Occupied && Bp.State == BP_STATE_ON ? HALT_REASON_BREAKPOINT : HALT_REASON_PLAIN);
  }
  m_PendingOp.store(0);
  m_bHaltSeqActive.store(false);
  m_bSourceStep.store(false);
}

bool CDevice::IsHaltedAtBreakpoint(U64 PC) {
  if (!m_bHalted.load()) return false;
  const DEVICE_BP Bp = GetBreakpoint(U32(PC));
  return Bp.Occupied && (Bp.State == BP_STATE_ON || Bp.State == BP_STATE_ON_HIDDEN);
}

void CDevice::OnInvalidHaltStatus() {
  if (!m_bConnected.load()) return;
  DeviceLogError("Invalid connection status received");
  if (m_bConnectionLost.exchange(true)) return;
  m_bHaltReported.store(false);
  m_bRunning.store(false);
  m_bHaltSeqActive.store(false);
  CancelJobs(JT_ALL, QUEUE_SEL_ALL);
  PostDeviceEvent(DEV_EVENT_CONNECTION_LOST);
}

bool CDevice::TestConnectionLost() {
  if (!m_bConnected.load() || !ProbeOpen()) return false;
  m_LastHaltQueryMs = NowMs();
  const int r = m_Probe.VORDENARM_IsHalted();
  if (r < 0) {
    OnInvalidHaltStatus();
    return true;
  }
  if (r == 0 && !m_bRunning.load()) MarkRunningBehindOurBack();
  return false;
}

// ---- execution state

int CDevice::SetTargetExecState(U64 PC, U64 SP) {
  if (!m_bConnected.load()) {
    DeviceLogError("SetTargetExecState: not connected");
    return -1;
  }
  if (PC == 0 && SP == 0 && m_bHalted.load()) {
    ReadReg(RoleRegIndex(kCoreRegSP, VORDENARM_REG_SP), &SP);
    ReadReg(RoleRegIndex(kCoreRegPC, VORDENARM_REG_PC), &PC);
  }
  DEVICE_EXEC_STATE e;
  {
    std::lock_guard<std::mutex> g(m_ExecMx);
    e = m_Exec;
  }
  e.PC = PC;
  e.SP = SP;
  e.PCStatus = e.SPStatus = EXEC_STATUS_VALID;
  e.CurrFile = e.CurrLine = ~0ull;
  e.FuncStart = e.FuncEnd = ~0ull;
  e.hFunc = 0;
  // The symbol layer answers under its mutex. The user interface thread may
  // hold it while it waits for this worker (a synchronous read): then the
  // place stays unknown rather than the two threads waiting for each other.
  CElfApi& Elf = CElfApi::Instance();
  if (Elf.Mutex().tryLock(20)) {
    if (Elf.IsLoaded() && PC <= 0xFFFFFFFFull) {
      const CLineTables& T = DWARF_GetProgramTables();
      const CSrcLoc Loc = T.GetSrcLoc(U32(PC));
      e.CurrFile = Loc.IsNull() ? 0 : Loc.file;
      e.CurrLine = Loc.IsNull() ? 0 : Loc.line;
      e.hFunc = SYM_GetFunctionAt(U32(PC));
      if (e.hFunc) {
        const CAddrRange r = T.GetSymbolRange(e.hFunc);
        if (!r.IsEmpty()) {
          e.FuncStart = r.start;
          e.FuncEnd = r.End() > 0xFFFFFFFFull ? 0x100000000ull : r.End();
        }
      }
    }
    Elf.Mutex().unlock();
  }
  {
    std::lock_guard<std::mutex> g(m_ExecMx);
    m_Exec = e;
  }
  m_PC.store(U32(PC));
  return 0;
}

void CDevice::ResetTargetExecState() {
  std::lock_guard<std::mutex> g(m_ExecMx);
  m_Exec = DEVICE_EXEC_STATE{};
}

void CDevice::ResetState() {
  m_bHalted.store(false);
  m_bHaltReported.store(false);
  m_bHaltSeqActive.store(false);
  m_bUserHaltPending.store(false);
  m_bSourceStep.store(false);
  m_bConnectionLost.store(false);
  m_bRunning.store(true);
  m_bHaltReportDue = false;
  ResetTargetExecState();
  m_PC.store(0);
  m_HiddenBPAddr.store(kNone);
  m_SavedBP = DEVICE_BP{};
  m_PendingOp.store(0);
  m_LastResetMode.store(0);
  m_LastHaltQueryMs = kLongAgo;
}

// The first look at a target after connecting: one that stands is known at
// once, and its halt report follows the connect report.
void CDevice::OnConnectedHalted() {
  m_bRunning.store(false);
  m_bHalted.store(true);
  m_bHaltReported.store(true);
  SetTargetExecState(0, 0);
  m_bHaltReportDue = m_bReportHalts.load();
}

// ---- resume, halt, reset

int CDevice::Continue() {
  if (!m_bConnected.load()) return DeviceLogError("Continue: not connected"), -1;
  if (m_bConnectionLost.load()) return DeviceLogError("Continue: connection lost"), -1;
  if (!m_bHalted.load()) {
    DeviceLogDebug("Continue: not halted");
    return 0;
  }
  DeviceLogInfo("Resuming target...");
  // A break instruction compiled into the program would stop the target at
  // once again: step the PC over it.
  const U32 PC = m_PC.load();
  U32 Size = 0;
  U64 Flags = 0;
  if (DEV_INST_QUERY q = DEV_GetInstQuery(); q && q(PC, &Size, &Flags) && (Flags & kInstFlagBreak) && Size)
    WriteReg(RoleRegIndex(kCoreRegPC, VORDENARM_REG_PC), PC + Size);
  m_bHalted.store(false);
  m_bHaltReported.store(false);
  m_Probe.VORDENARM_GoEx(0, VORDENARM_GO_FLAG_OVERSTEP_BP);
  m_LastResumeMs = NowMs();
  m_bRunning.store(true);
  m_bUserHaltPending.store(false);
  {
    std::lock_guard<std::mutex> g(m_ExecMx);
    m_Exec.PCStatus = m_Exec.SPStatus = m_Exec.ReturnAddrStatus = EXEC_STATUS_STALE;
  }
  return 0;
}

int CDevice::Halt() {
  if (!m_bConnected.load()) return DeviceLogError("Halt: not connected"), -1;
  if (m_Probe.VORDENARM_Halt() != 0) {
    DeviceLogError("Halt: VORDEN API call failed");
    TestConnectionLost();
    return -1;
  }
  m_bUserHaltPending.store(true);
  // The next round asks at once instead of waiting for the poll interval.
  m_LastHaltQueryMs = kLongAgo;
  return 0;
}

int CDevice::ResetHardware() {
  if (!m_bConnected.load()) return DeviceLogError("Reset: not connected"), -1;
  if (m_Probe.VORDENARM_SetResetType) m_Probe.VORDENARM_SetResetType(0);
  if (m_Probe.VORDENARM_SetResetDelay) m_Probe.VORDENARM_SetResetDelay(0);
  m_Probe.VORDENARM_Halt();
  if (m_Probe.VORDENARM_Reset() != 0) return DeviceLogError("Reset: VORDEN API call failed"), -1;
  if (m_Probe.VORDENARM_IsHalted() < 1) {
    DeviceLogWarning("Reset: target did not halt following reset");
    m_Probe.VORDENARM_Halt();
  }
  return 0;
}

int CDevice::Reset(RESET_MODES Mode) {
  if (Mode == RM_RESET_HARDWARE_ONLY) return ResetHardware();
  m_LastResetMode.store(U32(Mode));
  DeviceLogInfo("Resetting target...");
  if (ResetHardware() < 0) return -1;
  return FinishReset(Mode);
}

int CDevice::FinishReset(RESET_MODES) {
  if (ClearAllBreakpoints(BP_STATE_ON_HIDDEN) < 0 || m_HiddenBPAddr.load() != kNone)
    DeviceLogWarning("Reset: could not clear hidden breakpoints");
  m_SavedBP = DEVICE_BP{};
  m_PendingOp.store(0);
  m_bRunning.store(false);
  m_bUserHaltPending.store(false);
  m_bHaltSeqActive.store(false);
  m_bSourceStep.store(false);
  m_bHalted.store(true);
  m_bHaltReported.store(true);
  return SetTargetExecState(0, 0) < 0 ? -1 : 0;
}

bool CDevice::CanStep() {
  const char* sWhy = nullptr;
  if (!m_bConnected.load()) sWhy = "cannot step. target not connected";
  else if (!m_bHalted.load()) sWhy = "cannot step. target not halted";
  else if (m_HiddenBPAddr.load() != kNone) sWhy = "cannot step. hidden breakpoint is set";
  if (!sWhy) return true;
  DeviceLogError("%s", sWhy);
  return false;
}

int CDevice::RunTo(U64 Addr) {
  if (!CanStep()) return DeviceLogError("run to: target not ready"), -1;
  const DEVICE_BP Bp = GetBreakpoint(U32(Addr));
  if (!(Bp.Occupied && Bp.State == BP_STATE_ON)) {
    if (Bp.Occupied && Bp.State == BP_STATE_DISABLED) m_SavedBP = Bp;
    if (!(Bp.Occupied && Bp.State == BP_STATE_ON_HIDDEN) &&
        SetBreakpoint(U32(Addr), BP_STATE_ON_HIDDEN, UserBreakpointType()) < 0) {
      m_SavedBP = DEVICE_BP{};
      DeviceLogError("RunTo: could not set breakpoint on address %x", U32(Addr));
      return -1;
    }
    m_HiddenBPAddr.store(U32(Addr));
    if (m_PendingOp.load() == 0) m_PendingOp.store(JT_RUN_TO);
  }
  if (Continue() < 0) return -1;
  return 1;
}

int CDevice::StepInstBasic() {
  if (!m_bConnected.load()) return -1;
  const int r = m_Probe.VORDENARM_Step();
  {
    std::lock_guard<std::mutex> g(m_ExecMx);
    m_Exec.ReturnAddr = 0;
    m_Exec.ReturnAddrStatus = EXEC_STATUS_STALE;
  }
  if (r != 0 && m_bConnected.load()) {
    DeviceLogError("Step: VORDEN API call failed");
    TestConnectionLost();
  }
  return r;
}

int CDevice::StepInst() {
  if (!CanStep()) return -1;
  const int r = StepInstBasic();
  if (r != 0) return -1;
  OnStepped();
  return 0;
}

void CDevice::OnStepped() {
  SetTargetExecState(0, 0);
  CheckHandleSemihostingIRQ(m_PC.load(), 0);
}

void CDevice::SetReportHalts(bool On) { m_bReportHalts.store(On); }

DEVICE_EXEC_STATE CDevice::ExecState() const {
  std::lock_guard<std::mutex> g(m_ExecMx);
  return m_Exec;
}

void CDevice::SetReturnAddr(U64 Addr) {
  std::lock_guard<std::mutex> g(m_ExecMx);
  m_Exec.ReturnAddr = Addr;
  m_Exec.ReturnAddrStatus = EXEC_STATUS_VALID;
}

// ---- waiting on the user interface thread

bool CDevice::WaitForHalt() {
  for (int i = 0; i <= 100; ++i) {
    if (m_bHaltReported.load()) return true;
    QThread::msleep(1);
  }
  return false;
}

bool CDevice::WaitForConnect(int TimeoutMS) {
  QElapsedTimer t;
  t.start();
  while (t.elapsed() < TimeoutMS) {
    if (!IsWorkerRunning()) return false;
    if (!IsJobPending(JT_CONNECT) && m_bReportHalts.load()) return true;
    QCoreApplication::processEvents();
    QThread::msleep(1);
  }
  return false;
}
