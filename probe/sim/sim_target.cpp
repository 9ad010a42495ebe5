// The simulated Cortex-M target: the engine, its hooks and the emulation
// thread.
//
// Threading: one emulation thread owns the Unicorn engine while the core runs
// (inside uc_emu_start). Every other use of the engine happens with m_mx held
// while the core stands. RAM and flash are host buffers mapped into the engine,
// so the debug path reads and writes them directly at any moment; the system
// model has its own lock. The code hook is installed once and runs for every
// instruction: it counts cycles, records trace and statistics, and takes the
// slow path only when something needs attention. Stops are only ever
// requested from inside a hook; exception entry and return are done by hand
// between two runs of the engine.
//
// Stepping and resuming from a breakpoint (Step, Go with the step-over flag)
// execute the instruction at the PC first, with interrupts masked, as a
// hardware debugger does: a pending exception is taken only after it, so the
// core leaves the breakpoint instead of entering the handler and coming back
// to the same breakpoint. A step therefore ends behind that instruction, not
// at the handler's first instruction (unless the instruction itself raises
// an exception, as SVC does).
#include "sim/sim_target.h"

#include <algorithm>
#include <cstring>

namespace vorden {

CSimTarget::CSimTarget(int DeviceIdx, LogFn Log)
    : m_devIdx(DeviceIdx),
      m_dev(DeviceList()[DeviceIdx]),
      m_log(std::move(Log)),
      m_mem(m_dev),
      m_sys(m_dev, m_mem, *this),
      m_channels(m_dev, m_mem, m_sys, *this),
      m_trace(m_mem, *this) {
  m_sys.SetChannels(&m_channels);
  m_maxHWBPs = (int)m_dev.NumHWBPs;
  m_maxDataEvents = (int)m_dev.NumDataEvents;
}

CSimTarget::~CSimTarget() {
  if (m_thread.joinable()) {
    Halt();
    {
      std::lock_guard<std::mutex> lk(m_mx);
      if (!m_state.To(RunState::Quit)) m_log(2, "simulator: the core did not stop; ending anyway");
    }
    m_cv.notify_all();
    m_thread.join();
  }
  if (m_uc) uc_close(m_uc);
}

bool CSimTarget::Init(std::string& sError) {
  uc_err e = uc_open(UC_ARCH_ARM, (uc_mode)(UC_MODE_THUMB | UC_MODE_MCLASS), &m_uc);
  if (e != UC_ERR_OK) {
    sError = std::string("simulator: ") + uc_strerror(e);
    return false;
  }
  int model = UC_CPU_ARM_CORTEX_M4;
  switch (m_dev.Core) {
    case CORE_M0: model = UC_CPU_ARM_CORTEX_M0; break;
    case CORE_M3: model = UC_CPU_ARM_CORTEX_M3; break;
    case CORE_M4: model = UC_CPU_ARM_CORTEX_M4; break;
    case CORE_M7: model = UC_CPU_ARM_CORTEX_M7; break;
  }
  uc_ctl_set_cpu_model(m_uc, model);
  for (const CSimMemory::Region& r : m_mem.Regions()) {
    U32 perms = UC_PROT_READ | UC_PROT_EXEC | (r.CpuWritable ? UC_PROT_WRITE : 0);
    e = uc_mem_map_ptr(m_uc, r.Addr, r.Size, perms, r.pHost);
    if (e != UC_ERR_OK) {
      sError = std::string("simulator: cannot map ") + r.sName + ": " + uc_strerror(e);
      return false;
    }
  }
  m_periphLogged.assign(m_dev.Periphs.size(), false);
  for (size_t i = 0; i < m_dev.Periphs.size(); ++i) {
    const PeriphRange& p = m_dev.Periphs[i];
    m_periphCtx.emplace_back(new PeriphCtx{this, (U32)i});
    uc_mmio_map(m_uc, p.Addr, p.Size, PeriphRead, m_periphCtx.back().get(), PeriphWrite, m_periphCtx.back().get());
  }
  uc_mmio_map(m_uc, SIM_BLOCK_ADDR, SIM_BLOCK_SIZE, SimRead, this, SimWrite, this);
  e = uc_mmio_map(m_uc, PPB_BASE, PPB_SIZE, MmioRead, this, MmioWrite, this);
  if (e != UC_ERR_OK) {
    sError = std::string("simulator: cannot map the system block: ") + uc_strerror(e);
    return false;
  }
  // Hooks: installed once, before the first run, never changed.
  uc_hook h;
  uc_hook_add(m_uc, &h, UC_HOOK_CODE, (void*)HookCode, this, 1, 0);
  uc_hook_add(m_uc, &h, UC_HOOK_INTR, (void*)HookIntr, this, 1, 0);
  for (const CSimMemory::Region& r : m_mem.Regions())
    if (r.CpuWritable)
      uc_hook_add(m_uc, &h, UC_HOOK_MEM_READ | UC_HOOK_MEM_WRITE, (void*)HookMem, this, r.Addr,
                  (U64)r.Addr + r.Size - 1);
  {
    std::lock_guard<std::mutex> lk(m_mx);
    DoReset();
  }
  m_thread = std::thread(&CSimTarget::EmuThread, this);
  return true;
}

// ---------------------------------------------------------------------------
// Registers
// ---------------------------------------------------------------------------

U32 CSimTarget::Reg(int UcReg) {
  U32 v = 0;
  uc_reg_read(m_uc, UcReg, &v);
  return v;
}

// A PC write also sets the Thumb state from bit 0, so bit 0 is always set.
void CSimTarget::SetReg(int UcReg, U32 V) {
  if (UcReg == UC_ARM_REG_PC) V |= 1;
  uc_reg_write(m_uc, UcReg, &V);
}

int CSimTarget::UcRegOf(U32 Idx) const {
  if (Idx <= 12) return UC_ARM_REG_R0 + (int)Idx;
  switch (Idx) {
    case 13: return UC_ARM_REG_SP;
    case 14: return UC_ARM_REG_LR;
    case 15: return UC_ARM_REG_PC;
    case 16: return UC_ARM_REG_XPSR;
    case 17: return UC_ARM_REG_MSP;
    case 18: return UC_ARM_REG_PSP;
    case 19: return UC_ARM_REG_PRIMASK;
    case 20: return m_dev.Core == CORE_M0 ? -1 : UC_ARM_REG_BASEPRI;
    case 21: return m_dev.Core == CORE_M0 ? -1 : UC_ARM_REG_FAULTMASK;
    case 22: return UC_ARM_REG_CONTROL;
  }
  if (!m_dev.HasFPU) return -1;
  if (Idx == 23) return UC_ARM_REG_FPSCR;
  if (Idx >= 24 && Idx < 56) return UC_ARM_REG_S0 + (int)(Idx - 24);
  return -1;
}

int CSimTarget::ReadReg(U32 Idx, U64& Value) {
  std::lock_guard<std::mutex> lk(m_mx);
  Value = 0;
  if (!m_state.Stands()) return -1;
  int r = UcRegOf(Idx);
  if (r < 0) return -1;
  U32 v = Reg(r);
  if (Idx == 15) v &= ~1u;
  Value = v;
  return 0;
}

int CSimTarget::WriteReg(U32 Idx, U64 Value) {
  std::lock_guard<std::mutex> lk(m_mx);
  if (!m_state.Stands()) return -1;
  int r = UcRegOf(Idx);
  if (r < 0) return -1;
  U32 v = (U32)Value;
  if (Idx == 15) v &= ~1u;
  SetReg(r, v);
  return 0;
}

// ---------------------------------------------------------------------------
// Memory through the debug path
// ---------------------------------------------------------------------------

bool CSimTarget::IsPeriph(U32 Addr, U32& Index) {
  for (size_t i = 0; i < m_dev.Periphs.size(); ++i) {
    const PeriphRange& p = m_dev.Periphs[i];
    if (Addr >= p.Addr && Addr - p.Addr < p.Size) {
      Index = (U32)i;
      return true;
    }
  }
  return false;
}

int CSimTarget::ReadMem(U32 Addr, U32 NumBytes, U8* pData) {
  U32 done = 0;
  while (done < NumBytes) {
    U32 a = Addr + done;
    if (a < Addr) break;  // wrapped past 4 GB
    const CSimMemory::Region* r = m_mem.Find(a, 1);
    if (r) {
      U32 n = std::min<U64>(NumBytes - done, (U64)r->Addr + r->Size - a);
      memcpy(pData + done, r->pHost + (a - r->Addr), n);
      done += n;
      continue;
    }
    U32 pi;
    if (a >= PPB_BASE && a - PPB_BASE < PPB_SIZE) {
      U32 w = m_sys.PpbRead(a & ~3u, 4);
      pData[done++] = (U8)(w >> (8 * (a & 3)));
    } else if (a >= SIM_BLOCK_ADDR && a - SIM_BLOCK_ADDR < SIM_BLOCK_SIZE) {
      U32 w = m_sys.SimBlockRead((a - SIM_BLOCK_ADDR) & ~3u);
      pData[done++] = (U8)(w >> (8 * (a & 3)));
    } else if (IsPeriph(a, pi)) {
      LogPeriph(pi);
      pData[done++] = 0;
    } else {
      break;
    }
  }
  return (int)done;
}

int CSimTarget::WriteMem(U32 Addr, U32 NumBytes, const U8* pData) {
  U32 done = 0;
  bool code = false;
  while (done < NumBytes) {
    U32 a = Addr + done;
    if (a < Addr) break;
    const CSimMemory::Region* r = m_mem.Find(a, 1);
    if (r) {
      U32 n = std::min<U64>(NumBytes - done, (U64)r->Addr + r->Size - a);
      memcpy(r->pHost + (a - r->Addr), pData + done, n);
      done += n;
      code = true;
      continue;
    }
    U32 pi;
    if (a >= PPB_BASE && a - PPB_BASE < PPB_SIZE && (a & 3) == 0 && NumBytes - done >= 4) {
      U32 v;
      memcpy(&v, pData + done, 4);
      m_sys.PpbWrite(a, 4, v);
      done += 4;
    } else if (a >= SIM_BLOCK_ADDR && a - SIM_BLOCK_ADDR < SIM_BLOCK_SIZE && (a & 3) == 0 && NumBytes - done >= 4) {
      U32 v;
      memcpy(&v, pData + done, 4);
      m_sys.SimBlockWrite(a - SIM_BLOCK_ADDR, v);
      done += 4;
    } else if (IsPeriph(a, pi)) {
      done++;
    } else {
      break;
    }
  }
  if (code && done) {
    // Translated code of the written range is stale now.
    std::unique_lock<std::mutex> lk(m_mx);
    m_flushRanges.push_back({Addr, Addr + done});
    if (m_state.Stands()) {
      FlushCodeCache();
    } else {
      m_flushReq = true;
      m_attention = true;
    }
  }
  return (int)done;
}

void CSimTarget::FlushCodeCache() {
  for (auto& r : m_flushRanges) uc_ctl_remove_cache(m_uc, r.first & ~1u, ((U64)r.second + 3) & ~1ull);
  m_flushRanges.clear();
  m_flushReq = false;
}

// ---------------------------------------------------------------------------
// Bus callbacks of the engine
// ---------------------------------------------------------------------------

uint64_t CSimTarget::MmioRead(uc_engine*, uint64_t Offset, unsigned Size, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  U32 a = PPB_BASE + (U32)Offset;
  U32 w = t->m_sys.PpbRead(a & ~3u, Size);
  w >>= 8 * (a & 3);
  if (Size == 1) w &= 0xFF;
  if (Size == 2) w &= 0xFFFF;
  return w;
}

void CSimTarget::MmioWrite(uc_engine*, uint64_t Offset, unsigned Size, uint64_t Value, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  t->m_sys.PpbWrite(PPB_BASE + (U32)Offset, Size, (U32)Value);
}

// Unmodelled peripherals read as zero and ignore writes; the log says so once
// per range.
void CSimTarget::LogPeriph(U32 Index) {
  std::lock_guard<std::mutex> lk(m_periphMx);
  if (Index >= m_periphLogged.size() || m_periphLogged[Index]) return;
  m_periphLogged[Index] = true;
  const PeriphRange& p = m_dev.Periphs[Index];
  char buf[160];
  snprintf(buf, sizeof buf, "simulator: peripheral range %s (0x%08X..0x%08X) is not modelled: reads give 0, writes are ignored",
           p.sName, p.Addr, p.Addr + p.Size - 1);
  m_log(1, buf);
}

uint64_t CSimTarget::PeriphRead(uc_engine*, uint64_t, unsigned, void* pUser) {
  auto* c = (PeriphCtx*)pUser;
  c->pTarget->LogPeriph(c->Index);
  return 0;
}

void CSimTarget::PeriphWrite(uc_engine*, uint64_t, unsigned, uint64_t, void* pUser) {
  auto* c = (PeriphCtx*)pUser;
  c->pTarget->LogPeriph(c->Index);
}

uint64_t CSimTarget::SimRead(uc_engine*, uint64_t Offset, unsigned Size, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  U32 w = t->m_sys.SimBlockRead((U32)Offset & ~3u) >> (8 * (Offset & 3));
  return Size == 1 ? (w & 0xFF) : Size == 2 ? (w & 0xFFFF) : w;
}

void CSimTarget::SimWrite(uc_engine*, uint64_t Offset, unsigned, uint64_t Value, void* pUser) {
  ((CSimTarget*)pUser)->m_sys.SimBlockWrite((U32)Offset & ~3u, (U32)Value);
}

// ---------------------------------------------------------------------------
// Hooks
// ---------------------------------------------------------------------------

void CSimTarget::RequestStop(StopReason R) {
  m_stopReason = R;
  m_stopIssued = true;
  uc_emu_stop(m_uc);
}

void CSimTarget::HookCode(uc_engine*, uint64_t Addr, uint32_t, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  U32 pc = (U32)Addr;
  U64 c = t->m_cycles.load(std::memory_order_relaxed);
  if (__builtin_expect(t->m_attention.load(std::memory_order_relaxed) || c + 1 >= t->m_nextEvent ||
                           t->m_filter[(pc >> 1) & 0xFFFF],
                       0)) {
    if (t->SlowPath(pc)) return;
  }
  t->m_cycles.store(c + 1, std::memory_order_relaxed);
  if (t->m_trace.Recording()) t->m_trace.Add(pc);
  if (t->m_trace.PcLogOn()) t->m_trace.PcLogAdd(pc);
}

// Before the instruction at Pc: everything that may stop the core or change
// what happens next. True when the engine is being stopped here.
bool CSimTarget::SlowPath(U32 Pc) {
  if (m_stopIssued) return false;  // a stop that cannot take effect here (IT block)
  m_attention = false;
  RunState st = m_state.Get();
  if (st == RunState::Halting) {
    RequestStop(STOP_HALT);
    return true;
  }
  bool first = m_stepInsns == 0 && (st == RunState::Step || st == RunState::StepOver);
  if (!first && st == RunState::Step) {
    m_deHitPending = false;  // the step ends where a data event would stop, too
    RequestStop(STOP_STEP);
    return true;
  }
  if (!first && st == RunState::StepOver) {
    // The instruction at the breakpoint is done: run on, interrupts unmasked.
    m_state.From(RunState::StepOver, RunState::Running);
  }
  if (m_deHitPending) {
    m_deHitPending = false;
    RequestStop(STOP_DATA);
    return true;
  }
  if (m_flushReq || m_resetReq) {
    RequestStop(STOP_WORK);
    return true;
  }
  if (m_eventsDirty) RecalcNextEvent();
  if (Cycles() + 1 >= m_nextEvent) ServiceEvents();
  if (!first) {
    std::lock_guard<std::recursive_mutex> lk(m_sys.Mutex());
    if (m_sys.AnyPending()) {
      if (m_sys.PendingToTakeNow() >= 0) {
        RequestStop(STOP_EXC);
        return true;
      }
      m_attention = true;  // masked for now; look again at the next instruction
    }
  }
  U8 f = m_filter[(Pc >> 1) & 0xFFFF];
  if (f) {
    bool skip = first && Pc == m_startPc;
    {
      std::lock_guard<std::mutex> lk(m_bpMx);
      if ((f & 1) && !skip && m_bpAddrs.count(Pc)) {
        RequestStop(STOP_BP);
        return true;
      }
    }
    if (f & 6) m_trace.AtEvent(Pc, f);
  }
  if (m_state.Stepping()) {
    m_stepInsns++;
    m_attention = true;
  }
  if (m_flushReq || m_resetReq || m_deHitPending || m_state.Is(RunState::Halting)) m_attention = true;
  return false;
}

void CSimTarget::HookIntr(uc_engine*, uint32_t IntNo, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  U32 pc = t->Reg(UC_ARM_REG_PC);
  switch (IntNo) {
    case 8:  // exception return: the PC holds EXC_RETURN without bit 0
      t->m_excReturn = pc | 1;
      t->RequestStop(STOP_EXC_RETURN);
      break;
    case 2:  // SVC, PC behind the instruction
      t->RequestStop(STOP_SVC);
      break;
    case 7:  // BKPT, PC at the instruction
      t->RequestStop(STOP_BKPT);
      break;
    default:
      t->RequestStop(STOP_FAULT);
      break;
  }
}

void CSimTarget::HookMem(uc_engine*, uc_mem_type Type, uint64_t Addr, int Size, int64_t Value, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  if (!t->m_deActive.load(std::memory_order_relaxed)) return;
  bool write = Type == UC_MEM_WRITE;
  U32 v = (U32)Value;
  if (!write) {
    v = 0;
    U8* p = t->m_mem.HostPtr((U32)Addr, (U32)Size);
    if (p) memcpy(&v, p, std::min(Size, 4));
  }
  if (t->DataEventMatch(write, (U32)Addr, Size, v)) {
    t->m_deHitPending = true;
    t->m_attention = true;
  }
}

// ---------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------

// Another thread (or the system model) changed a timed event: the emulation
// thread recomputes the next event at its next instruction.
void CSimTarget::EventsChanged() {
  m_eventsDirty = true;
  m_attention = true;
}

void CSimTarget::RequestReset() {
  m_resetReq = true;
  m_attention = true;
}

void CSimTarget::RecalcNextEvent() {
  m_eventsDirty = false;
  U64 n = std::min(m_sys.NextTick(), m_channels.NextEvent());
  if (m_paced) n = std::min(n, m_nextPace);
  m_nextEvent = n;
}

void CSimTarget::ServiceEvents() {
  U64 c = Cycles();
  m_sys.ServiceTick(c);
  m_channels.Service(c);
  if (m_paced && c >= m_nextPace) {
    Pace();
    m_nextPace = Cycles() + std::max<U64>(1, m_dev.ClockHz / 1000);
  }
  RecalcNextEvent();
}

void CSimTarget::Pace() {
  if (!m_paced) return;
  using namespace std::chrono;
  double sec = (double)(Cycles() - m_paceCycle0) / m_dev.ClockHz;
  auto target = m_paceWall0 + duration_cast<steady_clock::duration>(duration<double>(sec));
  for (;;) {
    auto now = steady_clock::now();
    if (now >= target || m_state.Is(RunState::Halting)) {
      if (now - target > milliseconds(50)) {  // the host cannot keep up: do not catch up later
        m_paceCycle0 = Cycles();
        m_paceWall0 = now;
      }
      return;
    }
    std::this_thread::sleep_for(std::min<steady_clock::duration>(target - now, microseconds(200)));
  }
}

void CSimTarget::AdvanceIdle() {
  // Sleeping in WFI: jump to the next timed event, or wait for a halt.
  if (m_eventsDirty) RecalcNextEvent();
  if (m_nextEvent == ~0ull) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    return;
  }
  if (m_nextEvent > Cycles()) m_cycles.store(m_nextEvent);
  ServiceEvents();
  std::lock_guard<std::recursive_mutex> lk(m_sys.Mutex());
  if (m_sys.WakeUpPending()) m_state.From(RunState::Sleeping, RunState::Running);
}

// ---------------------------------------------------------------------------
// Emulation thread
// ---------------------------------------------------------------------------

void CSimTarget::EmuThread() {
  std::unique_lock<std::mutex> lk(m_mx);
  for (;;) {
    m_cv.wait(lk, [&] { return !m_state.Stands(); });
    if (m_state.Is(RunState::Quit)) break;
    m_paceCycle0 = Cycles();
    m_paceWall0 = std::chrono::steady_clock::now();
    m_nextPace = Cycles() + std::max<U64>(1, m_dev.ClockHz / 1000);
    RecalcNextEvent();
    m_attention = true;
    RunUntilStop(lk);
    m_attention = false;
    m_trace.OnHalt();
    if (!m_state.Is(RunState::LockedUp)) m_state.To(RunState::Halted);
    m_cv.notify_all();
  }
}

// The core runs until a stop: engine runs between exception entries and
// returns, timed events while it sleeps.
void CSimTarget::RunUntilStop(std::unique_lock<std::mutex>& Lk) {
  for (;;) {
    RunState st = m_state.Get();
    if (st == RunState::Halting || st == RunState::LockedUp) return;
    if (st == RunState::StepOver && m_stepInsns > 0) {
      m_state.From(RunState::StepOver, RunState::Running);
      continue;
    }
    if (m_resetReq) {
      DoReset();
      m_resetReq = false;
      continue;
    }
    if (m_flushReq) FlushCodeCache();
    // The instruction at the PC of a step runs with interrupts masked.
    int take = -1;
    if (!FirstStepInsn()) {
      std::lock_guard<std::recursive_mutex> sl(m_sys.Mutex());
      take = m_sys.PendingToTakeNow();
    }
    if (take >= 0) {
      m_state.From(RunState::Sleeping, RunState::Running);
      if (!m_sys.TakeException(take, false, 0)) return LockUp();
      if (st == RunState::Step) return;  // the instruction raised it: the step ends at the handler
      continue;
    }
    if (st == RunState::Sleeping) {
      Lk.unlock();
      AdvanceIdle();
      Lk.lock();
      continue;
    }
    m_stopReason = STOP_NONE;
    m_stopIssued = false;
    U32 pc = Reg(UC_ARM_REG_PC);
    Lk.unlock();
    uc_err e = uc_emu_start(m_uc, pc | 1, 0xFFFFFFFE, 0, 0);
    Lk.lock();
    if (!HandleStop(m_stopReason, e)) return;
  }
}

void CSimTarget::LockUp() {
  if (!m_state.To(RunState::LockedUp)) m_log(2, "simulator: lock-up in an unexpected run state");
}

// What the engine's return means: false when the core halts.
bool CSimTarget::HandleStop(StopReason R, uc_err Err) {
  U32 pc = Reg(UC_ARM_REG_PC);
  if (Err != UC_ERR_OK && R == STOP_NONE) {
    // A memory fault or an undefined instruction: escalate to HardFault.
    char at[32];
    snprintf(at, sizeof at, " at 0x%08X", pc);
    if (!m_sys.Fault(std::string(at) + " (" + uc_strerror(Err) + ")")) {
      LockUp();
      return false;
    }
    return true;
  }
  switch (R) {
    case STOP_HALT:
    case STOP_BP:
    case STOP_STEP:
    case STOP_DATA:
    case STOP_BKPT:
      return false;
    case STOP_EXC:
    case STOP_WORK:
      return true;
    case STOP_EXC_RETURN:
      if (!m_sys.ExceptionReturn(m_excReturn)) {
        LockUp();
        return false;
      }
      return !m_state.Is(RunState::Step);
    case STOP_SVC:
      m_sys.Pend(EXC_SVCALL);
      return true;  // taken at the top of the loop; a step ends there
    case STOP_FAULT:
      if (!m_sys.Fault("")) {
        LockUp();
        return false;
      }
      return true;
    case STOP_NONE: {
      // The engine returns by itself after WFI/WFE (the core sleeps).
      U16 prev = 0;
      U8* p = m_mem.HostPtr(pc - 2, 2);
      if (p) memcpy(&prev, p, 2);
      if (prev == 0xBF30 || prev == 0xBF20) {
        m_cycles.fetch_add(1);
        if (m_state.Is(RunState::Step)) return false;
        if (!m_state.To(RunState::Sleeping)) return !m_state.Is(RunState::Halting);
        return true;
      }
      m_log(1, "simulator: the core stopped unexpectedly");
      return false;
    }
  }
  return false;
}

void CSimTarget::DoReset() {
  m_sys.Reset();
  if (m_state.Is(RunState::LockedUp)) m_state.To(RunState::Halted);
  m_state.From(RunState::Sleeping, RunState::Running);
  EventsChanged();
}

// ---------------------------------------------------------------------------
// Run control
// ---------------------------------------------------------------------------

int CSimTarget::IsHalted() { return m_state.Stands() ? 1 : 0; }

int CSimTarget::Halt() {
  std::unique_lock<std::mutex> lk(m_mx);
  if (m_state.Stands()) return 0;
  m_state.To(RunState::Halting);
  m_attention = true;
  bool ok = m_cv.wait_for(lk, std::chrono::seconds(2), [&] { return m_state.Stands(); });
  return ok ? 0 : 1;
}

int CSimTarget::Go(U32 Flags) {
  std::lock_guard<std::mutex> lk(m_mx);
  if (m_state.Is(RunState::LockedUp)) return -1;
  if (!m_state.Is(RunState::Halted)) return 0;  // already running
  m_startPc = Reg(UC_ARM_REG_PC) & ~1u;
  m_stepInsns = 0;
  m_state.To((Flags & VORDENARM_GO_FLAG_OVERSTEP_BP) ? RunState::StepOver : RunState::Running);
  m_cv.notify_all();
  return 0;
}

int CSimTarget::Step() {
  std::unique_lock<std::mutex> lk(m_mx);
  if (!m_state.Is(RunState::Halted)) return 1;
  m_startPc = Reg(UC_ARM_REG_PC) & ~1u;
  m_stepInsns = 0;
  m_state.To(RunState::Step);
  m_cv.notify_all();
  bool ok = m_cv.wait_for(lk, std::chrono::seconds(5), [&] { return m_state.Stands(); });
  return ok ? 0 : 1;
}

int CSimTarget::Reset() {
  if (Halt() != 0) return -1;
  std::lock_guard<std::mutex> lk(m_mx);
  DoReset();
  m_trace.OnHalt();
  return 0;
}

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

bool CSimTarget::ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) {
  if (sName == "simunpaced" || sName == "simpaced") {
    std::lock_guard<std::mutex> lk(m_mx);
    U32 v = 1;
    if (!sValue.empty() && !ParseKnobU32(sValue, v)) {
      sError = "invalid value";
      return true;
    }
    m_paced = (sName == "simpaced") ? v != 0 : v == 0;
    return true;
  }
  if (sName == "simuartfile") {
    m_sys.SetUartFile(sValue, sError);
    return true;
  }
  if (sName == "simuartinput") {
    m_sys.QueueUartInput(sValue);
    return true;
  }
  return m_trace.ExecCommand(sName, sValue, sError) || m_channels.ExecCommand(sName, sValue, sError);
}

}  // namespace vorden
