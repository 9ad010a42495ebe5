// The system model of the simulated Cortex-M (see sim_system.h).
#include "sim/sim_system.h"

#include <unicorn/unicorn.h>

#include <algorithm>
#include <cstring>

#include "sim/sim_channels.h"

namespace vorden {

namespace {
constexpr U32 ITM_TER = 0xE0000E00, ITM_TCR = 0xE0000E80;
constexpr U32 DWT_CTRL = 0xE0001000, DWT_CYCCNT = 0xE0001004;
constexpr U32 ST_CSR = 0xE000E010, ST_RVR = 0xE000E014, ST_CVR = 0xE000E018, ST_CALIB = 0xE000E01C;
constexpr U32 NVIC_ISER = 0xE000E100, NVIC_ICER = 0xE000E180, NVIC_ISPR = 0xE000E200, NVIC_ICPR = 0xE000E280,
              NVIC_IABR = 0xE000E300, NVIC_IPR = 0xE000E400;
constexpr U32 SCB_CPUID = 0xE000ED00, SCB_ICSR = 0xE000ED04, SCB_VTOR = 0xE000ED08, SCB_AIRCR = 0xE000ED0C,
              SCB_SCR = 0xE000ED10, SCB_CCR = 0xE000ED14, SCB_SHPR = 0xE000ED18, SCB_SHCSR = 0xE000ED24,
              SCB_CFSR = 0xE000ED28, SCB_HFSR = 0xE000ED2C, SCB_CPACR = 0xE000ED88, DEMCR = 0xE000EDFC,
              NVIC_STIR = 0xE000EF00;

// Simulator peripheral block registers (offsets from SIM_BLOCK_ADDR).
constexpr U32 SIM_ID = 0x00, SIM_UART_DATA = 0x04, SIM_UART_STATUS = 0x08, SIM_LED = 0x0C,
              SIM_CYCLES_LO = 0x10, SIM_CYCLES_HI = 0x14, SIM_CLOCK_HZ = 0x18, SIM_SUPPLY = 0x1C;
constexpr U32 SIM_ID_VALUE = 0x4D495354;  // "TSIM"
}  // namespace

CSimSystem::CSimSystem(const DeviceDesc& Dev, const CSimMemory& Mem, ISimCore& Core)
    : m_dev(Dev), m_mem(Mem), m_core(Core) {
  m_prioMask = m_dev.Core == CORE_M0 ? 0xC0 : 0xF0;
}

CSimSystem::~CSimSystem() {
  if (m_uartFile) fclose(m_uartFile);
}

bool CSimSystem::WakeUpPending() const {
  for (int i = 2; i < NUM_EXC; ++i)
    if (m_pending[i] && (i < 16 || m_enabled[i])) return true;
  return false;
}

void CSimSystem::ServiceTick(U64 Cycle) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  while (Cycle >= m_stNext) {
    m_stCsr |= 0x10000;
    if (m_stCsr & 2) Pend(EXC_SYSTICK);
    U64 div = (m_stCsr & 4) ? 1 : 8;
    m_stNext = m_stRvr ? m_stNext + ((U64)m_stRvr + 1) * div : ~0ull;
  }
}

bool CSimSystem::Fault(const std::string& sWhat) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  if (m_active[EXC_HARDFAULT]) {
    m_core.Log(2, "simulator: fault in the HardFault handler" + sWhat + "; core locked up");
    return false;
  }
  m_hfsr |= 1u << 30;  // FORCED
  m_cfsr |= 1u << 16;  // UNDEFINSTR
  Pend(EXC_HARDFAULT);
  return true;
}

void CSimSystem::EnableItm(U32 PortMask) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  m_itmTcr |= 1;
  m_itmTer |= PortMask;
  m_demcr |= 1u << 24;
}

bool CSimSystem::SetUartFile(const std::string& sPath, std::string& sError) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  if (m_uartFile) fclose(m_uartFile);
  m_uartFile = nullptr;
  if (sPath.empty()) return true;
  m_uartFile = fopen(sPath.c_str(), "ab");
  if (!m_uartFile) sError = "cannot open file " + sPath;
  return m_uartFile != nullptr;
}

void CSimSystem::QueueUartInput(const std::string& sText) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  for (char ch : sText) m_uartIn.push_back((U8)ch);
  m_uartIn.push_back('\n');
}

void CSimSystem::Pend(int n) {
  if (n < 0 || n >= NUM_EXC) return;
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  m_pending[n] = 1;
  m_core.Attention();
}

bool CSimSystem::AnyPending() const {
  for (int i = 2; i < NUM_EXC; ++i)
    if (m_pending[i]) return true;
  return false;
}

int CSimSystem::ExcPriority(int n) const {
  if (n == 1) return -3;
  if (n == 2) return -2;
  if (n == 3) return -1;
  return m_prio[n] & m_prioMask;
}

// The execution priority: the highest priority (lowest number) among the
// active exceptions and the masks. 256 means thread mode without masking.
int CSimSystem::ExecPriority() { return ExecPriorityOf(false); }

int CSimSystem::ExecPriorityOf(bool IgnoreActive) {
  int p = 256;
  if (!IgnoreActive)
    for (int i = 1; i < NUM_EXC; ++i)
      if (m_active[i]) p = std::min(p, ExcPriority(i));
  if (m_core.Reg(UC_ARM_REG_PRIMASK) & 1) p = std::min(p, 0);
  if (m_dev.Core != CORE_M0) {
    if (m_core.Reg(UC_ARM_REG_FAULTMASK) & 1) p = std::min(p, -1);
    U32 bp = m_core.Reg(UC_ARM_REG_BASEPRI) & m_prioMask;
    if (bp) p = std::min(p, (int)bp);
  }
  return p;
}

int CSimSystem::PendingToTake(int ExecPrio) const {
  int best = -1, bestPrio = 1000;
  for (int i = 2; i < NUM_EXC; ++i) {
    if (!m_pending[i]) continue;
    if (i >= 16 && !m_enabled[i]) continue;
    int p = ExcPriority(i);
    if (p < bestPrio) {
      bestPrio = p;
      best = i;
    }
  }
  if (best >= 0 && bestPrio < ExecPrio) return best;
  return -1;
}

U32 CSimSystem::PpbRead(U32 a, unsigned Size) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  U64 c = m_core.Cycles();
  if (a < 0xE0000080) {  // ITM stimulus: FIFO ready while enabled
    return (m_itmTcr & 1) ? 1 : 0;
  }
  if (a == ITM_TER) return m_itmTer;
  if (a == ITM_TCR) return m_itmTcr;
  if (a == DWT_CTRL) return m_dwtCtrl;
  if (a == DWT_CYCCNT) return (U32)(c - m_cycOffset);
  if (a == ST_CSR) {
    U32 v = m_stCsr;
    m_stCsr &= ~0x10000u;  // COUNTFLAG clears on read
    return v;
  }
  if (a == ST_RVR) return m_stRvr;
  if (a == ST_CVR) {
    if (!(m_stCsr & 1) || m_stNext == ~0ull) return m_stBaseVal;
    U64 div = (m_stCsr & 4) ? 1 : 8;
    U64 left = m_stNext > c ? m_stNext - c : 0;
    return (U32)((left + div - 1) / div) & 0xFFFFFF;
  }
  if (a == ST_CALIB) return 0x40000000 | ((m_dev.ClockHz / 100) & 0xFFFFFF);
  if (a >= NVIC_ISER && a < NVIC_ISER + 0x20) {
    U32 v = 0, base = 16 + (a - NVIC_ISER) * 8;
    for (U32 b = 0; b < 32; ++b)
      if (base + b < NUM_EXC && m_enabled[base + b]) v |= 1u << b;
    return v;
  }
  if (a >= NVIC_ICER && a < NVIC_ICER + 0x20) return PpbRead(NVIC_ISER + (a - NVIC_ICER), Size);
  if ((a >= NVIC_ISPR && a < NVIC_ISPR + 0x20) || (a >= NVIC_ICPR && a < NVIC_ICPR + 0x20) ||
      (a >= NVIC_IABR && a < NVIC_IABR + 0x20)) {
    U32 off = a & 0x7F;
    const U8* arr = a >= NVIC_IABR ? m_active : m_pending;
    U32 v = 0, base = 16 + off * 8;
    for (U32 b = 0; b < 32; ++b)
      if (base + b < NUM_EXC && arr[base + b]) v |= 1u << b;
    return v;
  }
  if (a >= NVIC_IPR && a < NVIC_IPR + (NUM_EXC - 16)) {
    U32 n = 16 + (a - NVIC_IPR), v = 0;
    for (U32 b = 0; b < 4; ++b)
      if (n + b < NUM_EXC) v |= (U32)m_prio[n + b] << (8 * b);
    return v;
  }
  switch (a) {
    case SCB_CPUID:
      switch (m_dev.Core) {
        case CORE_M0: return 0x410CC200;
        case CORE_M3: return 0x412FC230;
        case CORE_M4: return 0x410FC241;
        case CORE_M7: return 0x411FC270;
      }
      return 0;
    case SCB_ICSR: {
      U32 v = m_curIpsr & 0x1FF;
      int pend = -1, pp = 1000;
      bool isr = false;
      for (int i = 2; i < NUM_EXC; ++i)
        if (m_pending[i]) {
          if (i >= 16) isr = true;
          if (ExcPriority(i) < pp) pp = ExcPriority(i), pend = i;
        }
      if (pend > 0) v |= (U32)pend << 12;
      if (isr) v |= 1u << 22;
      if (m_pending[EXC_PENDSV]) v |= 1u << 28;
      if (m_pending[EXC_SYSTICK]) v |= 1u << 26;
      if (m_pending[2]) v |= 1u << 31;
      int act = 0;
      for (int i = 1; i < NUM_EXC; ++i) act += m_active[i];
      if (act <= 1) v |= 1u << 11;  // RETTOBASE
      return v;
    }
    case SCB_VTOR: return m_vtor;
    case SCB_AIRCR: return 0xFA050000 | (m_aircr & 0x700);
    case SCB_SCR: return m_scr;
    case SCB_CCR: return m_ccr;
    case SCB_SHPR:
    case SCB_SHPR + 4:
    case SCB_SHPR + 8: {
      U32 n = 4 + (a - SCB_SHPR), v = 0;
      for (U32 b = 0; b < 4; ++b) v |= (U32)m_prio[n + b] << (8 * b);
      return v;
    }
    case SCB_SHCSR: {
      U32 v = m_shcsr & 0x70000;
      if (m_active[EXC_SVCALL]) v |= 1u << 7;
      if (m_active[EXC_PENDSV]) v |= 1u << 10;
      if (m_active[EXC_SYSTICK]) v |= 1u << 11;
      if (m_pending[EXC_SVCALL]) v |= 1u << 15;
      return v;
    }
    case SCB_CFSR: return m_cfsr;
    case SCB_HFSR: return m_hfsr;
    case SCB_CPACR: return m_cpacr;
    case DEMCR: return m_demcr;
  }
  return 0;
}

void CSimSystem::PpbWrite(U32 a, unsigned Size, U32 V) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  U64 c = m_core.Cycles();
  if (a < 0xE0000080) {  // ITM stimulus port
    U32 port = (a - 0xE0000000) / 4;
    if ((m_itmTcr & 1) && (m_itmTer & (1u << port)) && m_channels) m_channels->SwoPut(port, V, Size);
    return;
  }
  if (Size == 1 && a >= NVIC_IPR && a < NVIC_IPR + (NUM_EXC - 16)) {
    m_prio[16 + (a - NVIC_IPR)] = (U8)V & m_prioMask;
    return;
  }
  if (Size == 1 && a >= SCB_SHPR && a < SCB_SHPR + 12) {
    m_prio[4 + (a - SCB_SHPR)] = (U8)V & m_prioMask;
    return;
  }
  if (a == ITM_TER) { m_itmTer = V; return; }
  if (a == ITM_TCR) { m_itmTcr = V; return; }
  if (a == DWT_CTRL) { m_dwtCtrl = (m_dwtCtrl & 0xF0000000) | (V & 0x0FFFFFFF); return; }
  if (a == DWT_CYCCNT) { m_cycOffset = c - V; return; }
  if (a == ST_CSR) {
    U32 old = m_stCsr;
    m_stCsr = (m_stCsr & 0x10000) | (V & 7);
    bool wasOn = old & 1, on = V & 1;
    U64 div = (V & 4) ? 1 : 8;
    if (on && (!wasOn || ((old ^ V) & 4))) {
      U32 cur = m_stBaseVal;
      if (wasOn && m_stNext != ~0ull) {
        U64 olddiv = (old & 4) ? 1 : 8;
        cur = (U32)((m_stNext > c ? m_stNext - c : 0) / olddiv);
      }
      m_stBaseVal = cur;
      m_stNext = (cur ? c + cur * div : (m_stRvr ? c + ((U64)m_stRvr + 1) * div : ~0ull));
    } else if (!on && wasOn) {
      U64 olddiv = (old & 4) ? 1 : 8;
      m_stBaseVal = m_stNext == ~0ull ? 0 : (U32)((m_stNext > c ? m_stNext - c : 0) / olddiv);
      m_stNext = ~0ull;
    }
    m_core.EventsChanged();
    return;
  }
  if (a == ST_RVR) { m_stRvr = V & 0xFFFFFF; return; }
  if (a == ST_CVR) {
    m_stCsr &= ~0x10000u;
    m_stBaseVal = 0;
    if (m_stCsr & 1) {
      U64 div = (m_stCsr & 4) ? 1 : 8;
      m_stNext = m_stRvr ? c + ((U64)m_stRvr + 1) * div : ~0ull;
      m_core.EventsChanged();
    }
    return;
  }
  auto bits = [&](U32 base, U8* arr, U8 val) {
    U32 first = 16 + (a - base) * 8;
    for (U32 b = 0; b < 32; ++b)
      if ((V >> b) & 1 && first + b < NUM_EXC) arr[first + b] = val;
  };
  if (a >= NVIC_ISER && a < NVIC_ISER + 0x20) { bits(NVIC_ISER, m_enabled, 1); m_core.Attention(); return; }
  if (a >= NVIC_ICER && a < NVIC_ICER + 0x20) { bits(NVIC_ICER, m_enabled, 0); return; }
  if (a >= NVIC_ISPR && a < NVIC_ISPR + 0x20) { bits(NVIC_ISPR, m_pending, 1); m_core.Attention(); return; }
  if (a >= NVIC_ICPR && a < NVIC_ICPR + 0x20) { bits(NVIC_ICPR, m_pending, 0); return; }
  if (a >= NVIC_IPR && a < NVIC_IPR + (NUM_EXC - 16)) {
    U32 n = 16 + (a - NVIC_IPR);
    for (U32 b = 0; b < 4; ++b)
      if (n + b < NUM_EXC) m_prio[n + b] = (U8)(V >> (8 * b)) & m_prioMask;
    return;
  }
  switch (a) {
    case SCB_ICSR:
      if (V & (1u << 31)) Pend(2);
      if (V & (1u << 28)) Pend(EXC_PENDSV);
      if (V & (1u << 27)) m_pending[EXC_PENDSV] = 0;
      if (V & (1u << 26)) Pend(EXC_SYSTICK);
      if (V & (1u << 25)) m_pending[EXC_SYSTICK] = 0;
      return;
    case SCB_VTOR: m_vtor = V & 0xFFFFFF80; return;
    case SCB_AIRCR:
      if ((V >> 16) != 0x05FA) return;
      m_aircr = V & 0x700;
      if (V & 4) {  // SYSRESETREQ
        m_core.RequestReset();
      }
      return;
    case SCB_SCR: m_scr = V & 0x16; return;
    case SCB_CCR: m_ccr = V; return;
    case SCB_SHPR:
    case SCB_SHPR + 4:
    case SCB_SHPR + 8: {
      U32 n = 4 + (a - SCB_SHPR);
      for (U32 b = 0; b < 4; ++b) m_prio[n + b] = (U8)(V >> (8 * b)) & m_prioMask;
      return;
    }
    case SCB_SHCSR: m_shcsr = V & 0x70000; return;
    case SCB_CFSR: m_cfsr &= ~V; return;
    case SCB_HFSR: m_hfsr &= ~V; return;
    case SCB_CPACR: m_cpacr = V; return;
    case DEMCR: m_demcr = V; return;
    case NVIC_STIR: Pend(16 + (int)(V & 0x1FF)); return;
  }
}

U32 CSimSystem::SimBlockRead(U32 Off) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  U64 c = m_core.Cycles();
  switch (Off) {
    case SIM_ID: return SIM_ID_VALUE;
    case SIM_UART_DATA: {
      if (m_uartIn.empty()) return 0;
      U8 b = m_uartIn.front();
      m_uartIn.pop_front();
      return b;
    }
    case SIM_UART_STATUS: return 1u | (m_uartIn.empty() ? 0u : 2u);
    case SIM_LED: return m_led;
    case SIM_CYCLES_LO: return (U32)c;
    case SIM_CYCLES_HI: return (U32)(c >> 32);
    case SIM_CLOCK_HZ: return m_dev.ClockHz;
    case SIM_SUPPLY: return m_channels && !m_channels->SupplyOn() ? 0 : 1;
  }
  return 0;
}

void CSimSystem::SimBlockWrite(U32 Off, U32 V) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  switch (Off) {
    case SIM_UART_DATA:
      if (m_uartOut.size() < (1u << 20)) m_uartOut.push_back((char)V);
      if (m_uartFile) {
        fputc((int)(V & 0xFF), m_uartFile);
        if ((V & 0xFF) == '\n') fflush(m_uartFile);
      }
      return;
    case SIM_LED: m_led = V & 1; return;
  }
}

// Exception entry. The frame holds R0-R3, R12, LR, the return address and
// xPSR; with the FPU context active (CONTROL.FPCA) also S0-S15 and FPSCR
// (written at once, not lazily), and EXC_RETURN bit 4 is then clear.
bool CSimSystem::TakeException(int n, bool TailChain, U32 ExcReturn) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  U32 xpsr = m_core.Reg(UC_ARM_REG_XPSR);
  U32 control = m_core.Reg(UC_ARM_REG_CONTROL);
  if (!TailChain) {
    bool thread = (m_curIpsr & 0x1FF) == 0;
    bool psp = thread && (control & 2);
    bool fp = m_dev.HasFPU && (control & 4);
    U32 size = fp ? 0x68 : 0x20;
    U32 sp = m_core.Reg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP);
    U32 frame = sp - size;
    bool align = frame & 4;
    frame &= ~7u;
    U32 stackedPsr = (xpsr & ~(1u << 9)) | (align ? (1u << 9) : 0);
    U32 vals[26] = {m_core.Reg(UC_ARM_REG_R0), m_core.Reg(UC_ARM_REG_R1), m_core.Reg(UC_ARM_REG_R2), m_core.Reg(UC_ARM_REG_R3),
                    m_core.Reg(UC_ARM_REG_R12), m_core.Reg(UC_ARM_REG_LR), m_core.Reg(UC_ARM_REG_PC) & ~1u, stackedPsr};
    if (fp) {
      for (int i = 0; i < 16; ++i) vals[8 + i] = m_core.Reg(UC_ARM_REG_S0 + i);
      vals[24] = m_core.Reg(UC_ARM_REG_FPSCR);
      vals[25] = 0;
    }
    for (U32 i = 0; i < size / 4; ++i)
      if (!m_mem.CpuWrite32(frame + 4 * i, vals[i])) {
        m_core.Log(2, "simulator: exception entry failed, stack not writable; core locked up");
        return false;
      }
    m_core.SetReg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP, frame);
    // CONTROL before IPSR: SPSEL is ignored in handler mode. The handler
    // starts on the main stack without an FPU context.
    if (control & 6) m_core.SetReg(UC_ARM_REG_CONTROL, control & ~6u);
    ExcReturn = thread ? (psp ? 0xFFFFFFFD : 0xFFFFFFF9) : 0xFFFFFFF1;
    if (fp) ExcReturn &= ~0x10u;
  }
  U32 vec = 0;
  if (!m_mem.CpuRead32(m_vtor + 4 * n, vec)) {
    m_core.Log(2, "simulator: vector table not readable; core locked up");
    return false;
  }
  if (TailChain && (control & 4)) m_core.SetReg(UC_ARM_REG_CONTROL, control & ~4u);
  m_core.SetReg(UC_ARM_REG_XPSR, (xpsr & 0xF80F0000u & ~0x0600FC00u) | 0x01000000u | (U32)n);
  m_core.SetReg(UC_ARM_REG_LR, ExcReturn);
  m_core.SetReg(UC_ARM_REG_PC, vec & ~1u);
  m_curIpsr = (U32)n;
  m_pending[n] = 0;
  m_active[n] = 1;
  m_core.TraceMarker(VORDEN_STRACE_MARKER_EXC_ENTRY);
  return true;
}

bool CSimSystem::ExceptionReturn(U32 ER) {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  int n = (int)(m_curIpsr & 0x1FF);
  if (n > 0 && n < NUM_EXC) m_active[n] = 0;
  m_core.TraceMarker(VORDEN_STRACE_MARKER_EXC_RETURN);
  bool toThread = ER & 8;
  bool psp = ER & 4;
  bool fp = !(ER & 0x10) && m_dev.HasFPU;
  // Tail-chaining: a pending exception that may preempt the context we would
  // return to is taken at once, on the same frame.
  int ctxPrio = ExecPriority();
  int next = PendingToTake(ctxPrio);
  if (next >= 0) return TakeException(next, true, ER);
  U32 sp = m_core.Reg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP);
  U32 size = fp ? 0x68 : 0x20;
  U32 v[26];
  for (U32 i = 0; i < size / 4; ++i)
    if (!m_mem.CpuRead32(sp + 4 * i, v[i])) {
      m_core.Log(2, "simulator: exception return failed, stack not readable; core locked up");
      return false;
    }
  U32 newSp = sp + size + ((v[7] & (1u << 9)) ? 4 : 0);
  U32 psr = v[7] & ~(1u << 9);
  if (toThread) psr &= ~0x1FFu;
  // xPSR first (it selects the mode), then CONTROL, then the stack pointers.
  m_core.SetReg(UC_ARM_REG_XPSR, psr);
  m_curIpsr = psr & 0x1FF;
  U32 control = m_core.Reg(UC_ARM_REG_CONTROL);
  U32 newControl = control;
  if (toThread) newControl = psp ? (newControl | 2u) : (newControl & ~2u);
  newControl = fp ? (newControl | 4u) : (newControl & ~4u);
  if (newControl != control) m_core.SetReg(UC_ARM_REG_CONTROL, newControl);
  m_core.SetReg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP, newSp);
  static const int regs[7] = {UC_ARM_REG_R0, UC_ARM_REG_R1, UC_ARM_REG_R2, UC_ARM_REG_R3,
                              UC_ARM_REG_R12, UC_ARM_REG_LR, UC_ARM_REG_PC};
  for (int i = 0; i < 7; ++i) m_core.SetReg(regs[i], i == 6 ? (v[i] & ~1u) : v[i]);
  if (fp) {
    for (int i = 0; i < 16; ++i) m_core.SetReg(UC_ARM_REG_S0 + i, v[8 + i]);
    m_core.SetReg(UC_ARM_REG_FPSCR, v[24]);
  }
  return true;
}

void CSimSystem::Reset() {
  std::lock_guard<std::recursive_mutex> lk(m_mx);
  memset(m_pending, 0, sizeof m_pending);
  memset(m_active, 0, sizeof m_active);
  memset(m_enabled, 0, sizeof m_enabled);
  memset(m_prio, 0, sizeof m_prio);
  m_vtor = 0;
  m_aircr = 0;
  m_scr = 0;
  m_shcsr = 0;
  m_cfsr = m_hfsr = 0;
  m_stCsr = m_stRvr = 0;
  m_stBaseVal = 0;
  m_stNext = ~0ull;
  m_itmTcr = m_itmTer = 0;
  m_led = 0;
  m_curIpsr = 0;
  m_core.SetReg(UC_ARM_REG_XPSR, 0x01000000);
  m_core.SetReg(UC_ARM_REG_CONTROL, 0);
  m_core.SetReg(UC_ARM_REG_PRIMASK, 0);
  if (m_dev.Core != CORE_M0) {
    m_core.SetReg(UC_ARM_REG_BASEPRI, 0);
    m_core.SetReg(UC_ARM_REG_FAULTMASK, 0);
  }
  for (int i = 0; i <= 12; ++i) m_core.SetReg(UC_ARM_REG_R0 + i, 0);
  U32 sp = 0, pc = 0;
  m_mem.CpuRead32(0, sp);
  m_mem.CpuRead32(4, pc);
  m_core.SetReg(UC_ARM_REG_PSP, 0);
  m_core.SetReg(UC_ARM_REG_MSP, sp & ~3u);
  m_core.SetReg(UC_ARM_REG_LR, 0xFFFFFFFF);
  m_core.SetReg(UC_ARM_REG_PC, pc & ~1u);
  m_core.EventsChanged();
}
}  // namespace vorden
