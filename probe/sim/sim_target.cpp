// The simulated Cortex-M target.
//
// Threading: one emulation thread owns the Unicorn engine while the core runs
// (inside uc_emu_start). Every other use of the engine happens with m_mx held
// while the core stands. RAM and flash are host buffers mapped into the engine,
// so the debug path reads and writes them directly at any moment; the system
// model has its own lock (m_sysMx). The code hook is installed once and runs
// for every instruction: it counts cycles, records trace and statistics, and
// takes the slow path only when something needs attention. Stops are only
// ever requested from inside a hook; exception entry and return are done by
// hand between two runs of the engine.
#include "sim/sim_target.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace vorden {

namespace {
constexpr U32 PPB_BASE = 0xE0000000;
constexpr U32 PPB_SIZE = 0x00100000;
constexpr U32 ITM_TER = 0xE0000E00, ITM_TCR = 0xE0000E80;
constexpr U32 DWT_CTRL = 0xE0001000, DWT_CYCCNT = 0xE0001004;
constexpr U32 ST_CSR = 0xE000E010, ST_RVR = 0xE000E014, ST_CVR = 0xE000E018, ST_CALIB = 0xE000E01C;
constexpr U32 NVIC_ISER = 0xE000E100, NVIC_ICER = 0xE000E180, NVIC_ISPR = 0xE000E200, NVIC_ICPR = 0xE000E280,
              NVIC_IABR = 0xE000E300, NVIC_IPR = 0xE000E400;
constexpr U32 SCB_CPUID = 0xE000ED00, SCB_ICSR = 0xE000ED04, SCB_VTOR = 0xE000ED08, SCB_AIRCR = 0xE000ED0C,
              SCB_SCR = 0xE000ED10, SCB_CCR = 0xE000ED14, SCB_SHPR = 0xE000ED18, SCB_SHCSR = 0xE000ED24,
              SCB_CFSR = 0xE000ED28, SCB_HFSR = 0xE000ED2C, SCB_CPACR = 0xE000ED88, DEMCR = 0xE000EDFC,
              NVIC_STIR = 0xE000EF00;
constexpr U32 EXC_HARDFAULT = 3, EXC_SVCALL = 11, EXC_PENDSV = 14, EXC_SYSTICK = 15;

// Simulator peripheral block registers (offsets from SIM_BLOCK_ADDR).
constexpr U32 SIM_ID = 0x00, SIM_UART_DATA = 0x04, SIM_UART_STATUS = 0x08, SIM_LED = 0x0C,
              SIM_CYCLES_LO = 0x10, SIM_CYCLES_HI = 0x14, SIM_CLOCK_HZ = 0x18, SIM_SUPPLY = 0x1C;
constexpr U32 SIM_ID_VALUE = 0x4D495354;  // "TSIM"

// Power model (microamperes).
constexpr U32 POWER_RUN_UA = 12000, POWER_SLEEP_UA = 3000, POWER_LED_UA = 5000;

const char* kLvtId = "MARLEK LVT";
}  // namespace

CSimTarget::CSimTarget(int DeviceIdx, LogFn Log)
    : m_devIdx(DeviceIdx), m_dev(DeviceList()[DeviceIdx]), m_log(std::move(Log)) {
  m_maxHWBPs = (int)m_dev.NumHWBPs;
  m_maxDataEvents = (int)m_dev.NumDataEvents;
  m_prioMask = m_dev.Core == CORE_M0 ? 0xC0 : 0xF0;
}

CSimTarget::~CSimTarget() {
  if (m_thread.joinable()) {
    Halt();
    {
      std::lock_guard<std::mutex> lk(m_mx);
      m_quit = true;
    }
    m_cv.notify_all();
    m_thread.join();
  }
  if (m_uc) uc_close(m_uc);
  if (m_uartFile) fclose(m_uartFile);
  if (m_pcLogFile) fclose(m_pcLogFile);
  if (m_powerLog) fclose(m_powerLog);
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
  // Memory: real regions first, then aliases onto their host buffers.
  for (const MemRegion& r : m_dev.Regions) {
    if (r.AliasOf) continue;
    m_hostMem.emplace_back(new U8[r.Size]);
    U8* p = m_hostMem.back().get();
    memset(p, r.CpuWritable ? 0 : 0xFF, r.Size);
    m_regions.push_back({r.Addr, r.Size, r.CpuWritable, p, r.sName});
  }
  for (const MemRegion& r : m_dev.Regions) {
    if (!r.AliasOf) continue;
    for (const Region& t : m_regions)
      if (t.Addr == r.AliasOf) m_regions.push_back({r.Addr, r.Size, r.CpuWritable, t.pHost, r.sName});
  }
  for (const Region& r : m_regions) {
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
  for (const Region& r : m_regions)
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
  if (!m_halted) return -1;
  int r = UcRegOf(Idx);
  if (r < 0) return -1;
  U32 v = Reg(r);
  if (Idx == 15) v &= ~1u;
  Value = v;
  return 0;
}

int CSimTarget::WriteReg(U32 Idx, U64 Value) {
  std::lock_guard<std::mutex> lk(m_mx);
  if (!m_halted) return -1;
  int r = UcRegOf(Idx);
  if (r < 0) return -1;
  U32 v = (U32)Value;
  if (Idx == 15) v &= ~1u;
  SetReg(r, v);
  return 0;
}

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------

CSimTarget::Region* CSimTarget::FindRegion(U32 Addr, U32 Len) {
  for (Region& r : m_regions)
    if (Addr >= r.Addr && (U64)Addr + Len <= (U64)r.Addr + r.Size) return &r;
  return nullptr;
}

U8* CSimTarget::HostPtr(U32 Addr, U32 Len) {
  Region* r = FindRegion(Addr, Len);
  return r ? r->pHost + (Addr - r->Addr) : nullptr;
}

bool CSimTarget::CpuRead32(U32 Addr, U32& V) {
  U8* p = HostPtr(Addr, 4);
  if (!p) return false;
  memcpy(&V, p, 4);
  return true;
}

bool CSimTarget::CpuWrite32(U32 Addr, U32 V) {
  Region* r = FindRegion(Addr, 4);
  if (!r || !r->CpuWritable) return false;
  memcpy(r->pHost + (Addr - r->Addr), &V, 4);
  return true;
}

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
    Region* r = FindRegion(a, 1);
    if (r) {
      U32 n = std::min<U64>(NumBytes - done, (U64)r->Addr + r->Size - a);
      memcpy(pData + done, r->pHost + (a - r->Addr), n);
      done += n;
      continue;
    }
    U32 pi;
    if (a >= PPB_BASE && a - PPB_BASE < PPB_SIZE) {
      U32 w = PpbRead(a & ~3u, 4);
      pData[done++] = (U8)(w >> (8 * (a & 3)));
    } else if (a >= SIM_BLOCK_ADDR && a - SIM_BLOCK_ADDR < SIM_BLOCK_SIZE) {
      U32 w = SimBlockRead((a - SIM_BLOCK_ADDR) & ~3u);
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
    Region* r = FindRegion(a, 1);
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
      PpbWrite(a, 4, v);
      done += 4;
    } else if (a >= SIM_BLOCK_ADDR && a - SIM_BLOCK_ADDR < SIM_BLOCK_SIZE && (a & 3) == 0 && NumBytes - done >= 4) {
      U32 v;
      memcpy(&v, pData + done, 4);
      SimBlockWrite(a - SIM_BLOCK_ADDR, v);
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
    if (m_halted) {
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
// System model
// ---------------------------------------------------------------------------

uint64_t CSimTarget::MmioRead(uc_engine*, uint64_t Offset, unsigned Size, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  U32 a = PPB_BASE + (U32)Offset;
  U32 w = t->PpbRead(a & ~3u, Size);
  w >>= 8 * (a & 3);
  if (Size == 1) w &= 0xFF;
  if (Size == 2) w &= 0xFFFF;
  return w;
}

void CSimTarget::MmioWrite(uc_engine*, uint64_t Offset, unsigned Size, uint64_t Value, void* pUser) {
  auto* t = (CSimTarget*)pUser;
  t->PpbWrite(PPB_BASE + (U32)Offset, Size, (U32)Value);
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
  U32 w = t->SimBlockRead((U32)Offset & ~3u) >> (8 * (Offset & 3));
  return Size == 1 ? (w & 0xFF) : Size == 2 ? (w & 0xFFFF) : w;
}

void CSimTarget::SimWrite(uc_engine*, uint64_t Offset, unsigned, uint64_t Value, void* pUser) {
  ((CSimTarget*)pUser)->SimBlockWrite((U32)Offset & ~3u, (U32)Value);
}

void CSimTarget::Pend(int n) {
  if (n < 0 || n >= NUM_EXC) return;
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  m_pending[n] = 1;
  m_attention = true;
}

bool CSimTarget::AnyPending() const {
  for (int i = 2; i < NUM_EXC; ++i)
    if (m_pending[i]) return true;
  return false;
}

int CSimTarget::ExcPriority(int n) const {
  if (n == 1) return -3;
  if (n == 2) return -2;
  if (n == 3) return -1;
  return m_prio[n] & m_prioMask;
}

// The execution priority: the highest priority (lowest number) among the
// active exceptions and the masks. 256 means thread mode without masking.
int CSimTarget::ExecPriority(bool IgnoreActive, int Exclude) {
  int p = 256;
  if (!IgnoreActive)
    for (int i = 1; i < NUM_EXC; ++i)
      if (m_active[i] && i != Exclude) p = std::min(p, ExcPriority(i));
  if (Reg(UC_ARM_REG_PRIMASK) & 1) p = std::min(p, 0);
  if (m_dev.Core != CORE_M0) {
    if (Reg(UC_ARM_REG_FAULTMASK) & 1) p = std::min(p, -1);
    U32 bp = Reg(UC_ARM_REG_BASEPRI) & m_prioMask;
    if (bp) p = std::min(p, (int)bp);
  }
  return p;
}

int CSimTarget::PendingToTake(int ExecPrio) const {
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

U32 CSimTarget::PpbRead(U32 a, unsigned Size) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  U64 c = Cycles();
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

void CSimTarget::PpbWrite(U32 a, unsigned Size, U32 V) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  U64 c = Cycles();
  if (a < 0xE0000080) {  // ITM stimulus port
    U32 port = (a - 0xE0000000) / 4;
    if ((m_itmTcr & 1) && (m_itmTer & (1u << port)) && (m_swoPortMask & (1u << port))) {
      std::lock_guard<std::mutex> dl(m_dataMx);
      auto& buf = m_swo[port];
      if (buf.size() < (16u << 20))
        for (unsigned i = 0; i < Size; ++i) buf.push_back((U8)(V >> (8 * i)));
    }
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
      m_stBase = c;
      m_stBaseVal = cur;
      m_stNext = (cur ? c + cur * div : (m_stRvr ? c + ((U64)m_stRvr + 1) * div : ~0ull));
    } else if (!on && wasOn) {
      U64 olddiv = (old & 4) ? 1 : 8;
      m_stBaseVal = m_stNext == ~0ull ? 0 : (U32)((m_stNext > c ? m_stNext - c : 0) / olddiv);
      m_stNext = ~0ull;
    }
    MarkEventsDirty();
    return;
  }
  if (a == ST_RVR) { m_stRvr = V & 0xFFFFFF; return; }
  if (a == ST_CVR) {
    m_stCsr &= ~0x10000u;
    m_stBaseVal = 0;
    if (m_stCsr & 1) {
      U64 div = (m_stCsr & 4) ? 1 : 8;
      m_stBase = c;
      m_stNext = m_stRvr ? c + ((U64)m_stRvr + 1) * div : ~0ull;
      MarkEventsDirty();
    }
    return;
  }
  auto bits = [&](U32 base, U8* arr, U8 val) {
    U32 first = 16 + (a - base) * 8;
    for (U32 b = 0; b < 32; ++b)
      if ((V >> b) & 1 && first + b < NUM_EXC) arr[first + b] = val;
  };
  if (a >= NVIC_ISER && a < NVIC_ISER + 0x20) { bits(NVIC_ISER, m_enabled, 1); m_attention = true; return; }
  if (a >= NVIC_ICER && a < NVIC_ICER + 0x20) { bits(NVIC_ICER, m_enabled, 0); return; }
  if (a >= NVIC_ISPR && a < NVIC_ISPR + 0x20) { bits(NVIC_ISPR, m_pending, 1); m_attention = true; return; }
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
        m_resetReq = true;
        m_attention = true;
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

U32 CSimTarget::SimBlockRead(U32 Off) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  U64 c = Cycles();
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
    case SIM_SUPPLY: return m_supplyOn ? 1 : 0;
  }
  return 0;
}

void CSimTarget::SimBlockWrite(U32 Off, U32 V) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
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
  if (t->m_traceRecording) {
    t->TraceAdd(pc);
    if (t->m_statsOn) t->StatsCount(pc);
  }
  if (t->m_pcLogOn) t->m_pcLog.push_back(pc);
}

bool CSimTarget::SlowPath(U32 Pc) {
  if (m_stopIssued) return false;  // a stop that cannot take effect here (IT block)
  m_attention = false;
  if (m_haltReq) {
    RequestStop(STOP_HALT);
    return true;
  }
  if (m_stepping && m_stepCount >= 1) {
    RequestStop(STOP_STEP);
    return true;
  }
  if (m_deHitPending) {
    m_deHitPending = 0;
    RequestStop(STOP_DATA);
    return true;
  }
  if (m_flushReq || m_resetReq) {
    RequestStop(STOP_WORK);
    return true;
  }
  if (m_eventsDirty) RecalcNextEvent();
  if (Cycles() + 1 >= m_nextEvent) ServiceEvents();
  {
    std::lock_guard<std::recursive_mutex> lk(m_sysMx);
    if (AnyPending()) {
      if (PendingToTake(ExecPriority()) >= 0) {
        RequestStop(STOP_EXC);
        return true;
      }
      m_attention = true;  // masked for now; look again at the next instruction
    }
  }
  U8 f = m_filter[(Pc >> 1) & 0xFFFF];
  if (f) {
    bool skip = Pc == m_skipBpAddr;
    std::lock_guard<std::mutex> lk(m_bpMx);
    if ((f & 1) && !skip && m_bpAddrs.count(Pc)) {
      RequestStop(STOP_BP);
      return true;
    }
    if ((f & 2) && m_traceStarted && m_trStart.count(Pc)) m_traceRecording = true;
    if ((f & 4) && m_traceStarted && m_trStop.count(Pc)) {
      m_traceRecording = false;
      // The stop address itself is still recorded.
      TraceAdd(Pc);
    }
  }
  m_skipBpAddr = 0xFFFFFFFF;
  if (m_stepping) {
    m_stepCount++;
    m_attention = true;
  }
  if (m_haltReq || m_flushReq || m_resetReq || m_deHitPending) m_attention = true;
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
      t->m_faultPC = pc;
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
    U8* p = t->HostPtr((U32)Addr, (U32)Size);
    if (p) memcpy(&v, p, std::min(Size, 4));
  }
  if (t->DataEventMatch(write, (U32)Addr, Size, v)) {
    t->m_deHitPending = 1;
    t->m_attention = true;
  }
}

bool CSimTarget::DataEventMatch(bool Write, U32 Addr, int Size, U32 Value) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  for (const DataEvent& d : m_des) {
    const VORDENARM_DATA_EVENT& e = d.Ev;
    if (!(e.AccessMask & 1) && ((e.Access & 1) != 0) != Write) continue;
    if (!(e.AccessMask & 6)) {
      int want = (e.Access & 6) == 4 ? 4 : (e.Access & 6) == 2 ? 2 : 1;
      if (want != Size) continue;
    }
    bool hit = false;
    for (int i = 0; i < Size && !hit; ++i)
      hit = (((Addr + i) & ~d.AddrMask) == (e.Addr & ~d.AddrMask));
    if (!hit) continue;
    if (e.DataMask != 0xFFFFFFFF && ((Value ^ e.Data) & ~e.DataMask)) continue;
    return true;
  }
  return false;
}

// ---------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------

// Another thread (or the system model) changed a timed event: the emulation
// thread recomputes the next event at its next instruction.
void CSimTarget::MarkEventsDirty() {
  m_eventsDirty = true;
  m_attention = true;
}

void CSimTarget::RecalcNextEvent() {
  m_eventsDirty = false;
  U64 n = m_stNext;
  if (m_hssOn) n = std::min(n, m_hssNext);
  if (m_powerOn) n = std::min(n, m_powerNext);
  if (m_paced) n = std::min(n, m_nextPace);
  m_nextEvent = n;
}

void CSimTarget::ServiceEvents() {
  U64 c = Cycles();
  {
    std::lock_guard<std::recursive_mutex> lk(m_sysMx);
    while (c >= m_stNext) {
      m_stCsr |= 0x10000;
      if (m_stCsr & 2) Pend(EXC_SYSTICK);
      U64 div = (m_stCsr & 4) ? 1 : 8;
      m_stNext = m_stRvr ? m_stNext + ((U64)m_stRvr + 1) * div : ~0ull;
    }
  }
  {
    std::lock_guard<std::mutex> lk(m_dataMx);
    while (m_hssOn && c >= m_hssNext) {
      HSSSample(m_hssNext);
      m_hssNext += m_hssPeriod;
    }
    while (m_powerOn && c >= m_powerNext) {
      PowerSample(m_powerNext);
      m_powerAcc += m_powerStep;
      m_powerNext = (U64)m_powerAcc;
    }
  }
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
    if (now >= target || m_haltReq) {
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
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  for (int i = 2; i < NUM_EXC; ++i)
    if (m_pending[i] && (i < 16 || m_enabled[i])) m_sleeping = false;
}

// ---------------------------------------------------------------------------
// Exceptions
// ---------------------------------------------------------------------------

// Exception entry. The frame holds R0-R3, R12, LR, the return address and
// xPSR; with the FPU context active (CONTROL.FPCA) also S0-S15 and FPSCR
// (written at once, not lazily), and EXC_RETURN bit 4 is then clear.
bool CSimTarget::TakeException(int n, bool TailChain, U32 ExcReturn) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  U32 xpsr = Reg(UC_ARM_REG_XPSR);
  U32 control = Reg(UC_ARM_REG_CONTROL);
  if (!TailChain) {
    bool thread = (m_curIpsr & 0x1FF) == 0;
    bool psp = thread && (control & 2);
    bool fp = m_dev.HasFPU && (control & 4);
    U32 size = fp ? 0x68 : 0x20;
    U32 sp = Reg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP);
    U32 frame = sp - size;
    bool align = frame & 4;
    frame &= ~7u;
    U32 stackedPsr = (xpsr & ~(1u << 9)) | (align ? (1u << 9) : 0);
    U32 vals[26] = {Reg(UC_ARM_REG_R0), Reg(UC_ARM_REG_R1), Reg(UC_ARM_REG_R2), Reg(UC_ARM_REG_R3),
                    Reg(UC_ARM_REG_R12), Reg(UC_ARM_REG_LR), Reg(UC_ARM_REG_PC) & ~1u, stackedPsr};
    if (fp) {
      for (int i = 0; i < 16; ++i) vals[8 + i] = Reg(UC_ARM_REG_S0 + i);
      vals[24] = Reg(UC_ARM_REG_FPSCR);
      vals[25] = 0;
    }
    for (U32 i = 0; i < size / 4; ++i)
      if (!CpuWrite32(frame + 4 * i, vals[i])) {
        m_log(2, "simulator: exception entry failed, stack not writable; core locked up");
        m_lockedUp = true;
        return false;
      }
    SetReg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP, frame);
    // CONTROL before IPSR: SPSEL is ignored in handler mode. The handler
    // starts on the main stack without an FPU context.
    if (control & 6) SetReg(UC_ARM_REG_CONTROL, control & ~6u);
    ExcReturn = thread ? (psp ? 0xFFFFFFFD : 0xFFFFFFF9) : 0xFFFFFFF1;
    if (fp) ExcReturn &= ~0x10u;
  }
  U32 vec = 0;
  if (!CpuRead32(m_vtor + 4 * n, vec)) {
    m_log(2, "simulator: vector table not readable; core locked up");
    m_lockedUp = true;
    return false;
  }
  if (TailChain && (control & 4)) SetReg(UC_ARM_REG_CONTROL, control & ~4u);
  SetReg(UC_ARM_REG_XPSR, (xpsr & 0xF80F0000u & ~0x0600FC00u) | 0x01000000u | (U32)n);
  SetReg(UC_ARM_REG_LR, ExcReturn);
  SetReg(UC_ARM_REG_PC, vec & ~1u);
  m_curIpsr = (U32)n;
  m_pending[n] = 0;
  m_active[n] = 1;
  TraceMarker(VORDEN_STRACE_MARKER_EXC_ENTRY);
  return true;
}

bool CSimTarget::ExceptionReturn(U32 ER) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  int n = (int)(m_curIpsr & 0x1FF);
  if (n > 0 && n < NUM_EXC) m_active[n] = 0;
  TraceMarker(VORDEN_STRACE_MARKER_EXC_RETURN);
  bool toThread = ER & 8;
  bool psp = ER & 4;
  bool fp = !(ER & 0x10) && m_dev.HasFPU;
  // Tail-chaining: a pending exception that may preempt the context we would
  // return to is taken at once, on the same frame.
  int ctxPrio = ExecPriority();
  int next = PendingToTake(ctxPrio);
  if (next >= 0) return TakeException(next, true, ER);
  U32 sp = Reg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP);
  U32 size = fp ? 0x68 : 0x20;
  U32 v[26];
  for (U32 i = 0; i < size / 4; ++i)
    if (!CpuRead32(sp + 4 * i, v[i])) {
      m_log(2, "simulator: exception return failed, stack not readable; core locked up");
      m_lockedUp = true;
      return false;
    }
  U32 newSp = sp + size + ((v[7] & (1u << 9)) ? 4 : 0);
  U32 psr = v[7] & ~(1u << 9);
  if (toThread) psr &= ~0x1FFu;
  // xPSR first (it selects the mode), then CONTROL, then the stack pointers.
  SetReg(UC_ARM_REG_XPSR, psr);
  m_curIpsr = psr & 0x1FF;
  U32 control = Reg(UC_ARM_REG_CONTROL);
  U32 newControl = control;
  if (toThread) newControl = psp ? (newControl | 2u) : (newControl & ~2u);
  newControl = fp ? (newControl | 4u) : (newControl & ~4u);
  if (newControl != control) SetReg(UC_ARM_REG_CONTROL, newControl);
  SetReg(psp ? UC_ARM_REG_PSP : UC_ARM_REG_MSP, newSp);
  static const int regs[7] = {UC_ARM_REG_R0, UC_ARM_REG_R1, UC_ARM_REG_R2, UC_ARM_REG_R3,
                              UC_ARM_REG_R12, UC_ARM_REG_LR, UC_ARM_REG_PC};
  for (int i = 0; i < 7; ++i) SetReg(regs[i], i == 6 ? (v[i] & ~1u) : v[i]);
  if (fp) {
    for (int i = 0; i < 16; ++i) SetReg(UC_ARM_REG_S0 + i, v[8 + i]);
    SetReg(UC_ARM_REG_FPSCR, v[24]);
  }
  return true;
}

// ---------------------------------------------------------------------------
// Emulation thread
// ---------------------------------------------------------------------------

void CSimTarget::EmuThread() {
  std::unique_lock<std::mutex> lk(m_mx);
  for (;;) {
    m_cv.wait(lk, [&] { return m_quit || m_runReq || m_stepReq; });
    if (m_quit) break;
    m_stepping = m_stepReq;
    m_stepCount = 0;
    m_runReq = m_stepReq = false;
    m_paceCycle0 = Cycles();
    m_paceWall0 = std::chrono::steady_clock::now();
    m_nextPace = Cycles() + std::max<U64>(1, m_dev.ClockHz / 1000);
    RecalcNextEvent();
    m_attention = true;
    for (;;) {
      if (m_haltReq || m_lockedUp) break;
      if (m_resetReq) {
        DoReset();
        m_resetReq = false;
        continue;
      }
      if (m_flushReq) FlushCodeCache();
      int take;
      {
        std::lock_guard<std::recursive_mutex> sl(m_sysMx);
        take = PendingToTake(ExecPriority());
      }
      if (take >= 0) {
        m_sleeping = false;
        if (!TakeException(take, false, 0)) break;
        if (m_stepping) break;
        continue;
      }
      if (m_sleeping) {
        lk.unlock();
        AdvanceIdle();
        lk.lock();
        continue;
      }
      m_stopReason = STOP_NONE;
      m_stopIssued = false;
      U32 pc = Reg(UC_ARM_REG_PC);
      lk.unlock();
      uc_err e = uc_emu_start(m_uc, pc | 1, 0xFFFFFFFE, 0, 0);
      lk.lock();
      if (!HandleStop(m_stopReason, e)) break;
    }
    m_stepping = false;
    m_sleeping = false;
    m_haltReq = false;
    m_attention = false;
    m_traceReadPos = 0;
    if (m_pcLogOn) WritePCLog();
    m_halted = 1;
    m_cv.notify_all();
  }
}

bool CSimTarget::HandleStop(StopReason R, uc_err Err) {
  U32 pc = Reg(UC_ARM_REG_PC);
  if (Err != UC_ERR_OK && R == STOP_NONE) {
    // A memory fault or an undefined instruction: escalate to HardFault.
    std::lock_guard<std::recursive_mutex> lk(m_sysMx);
    if (m_active[EXC_HARDFAULT]) {
      m_log(2, "simulator: fault in the HardFault handler at 0x" + std::to_string(pc) + " (" +
                   uc_strerror(Err) + "); core locked up");
      m_lockedUp = true;
      return false;
    }
    m_hfsr |= 1u << 30;
    m_cfsr |= 1u << 16;
    Pend(EXC_HARDFAULT);
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
      if (!ExceptionReturn(m_excReturn)) return false;
      return !m_stepping;
    case STOP_SVC:
      Pend(EXC_SVCALL);
      return true;  // taken at the top of the loop; a step ends there
    case STOP_FAULT: {
      std::lock_guard<std::recursive_mutex> lk(m_sysMx);
      if (m_active[EXC_HARDFAULT]) {
        m_log(2, "simulator: fault in the HardFault handler; core locked up");
        m_lockedUp = true;
        return false;
      }
      m_cfsr |= 1u << 16;  // UNDEFINSTR
      m_hfsr |= 1u << 30;
      Pend(EXC_HARDFAULT);
      return true;
    }
    case STOP_WFI:
    case STOP_NONE: {
      // The engine returns by itself after WFI/WFE (the core sleeps).
      U16 prev = 0;
      U8* p = HostPtr(pc - 2, 2);
      if (p) memcpy(&prev, p, 2);
      if (prev == 0xBF30 || prev == 0xBF20) {
        m_cycles.fetch_add(1);
        if (m_stepping) return false;
        m_sleeping = true;
        return true;
      }
      m_log(1, "simulator: the core stopped unexpectedly");
      return false;
    }
  }
  return false;
}

void CSimTarget::DoReset() {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
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
  m_lockedUp = false;
  m_sleeping = false;
  SetReg(UC_ARM_REG_XPSR, 0x01000000);
  SetReg(UC_ARM_REG_CONTROL, 0);
  SetReg(UC_ARM_REG_PRIMASK, 0);
  if (m_dev.Core != CORE_M0) {
    SetReg(UC_ARM_REG_BASEPRI, 0);
    SetReg(UC_ARM_REG_FAULTMASK, 0);
  }
  for (int i = 0; i <= 12; ++i) SetReg(UC_ARM_REG_R0 + i, 0);
  U32 sp = 0, pc = 0;
  CpuRead32(0, sp);
  CpuRead32(4, pc);
  SetReg(UC_ARM_REG_PSP, 0);
  SetReg(UC_ARM_REG_MSP, sp & ~3u);
  SetReg(UC_ARM_REG_LR, 0xFFFFFFFF);
  SetReg(UC_ARM_REG_PC, pc & ~1u);
  MarkEventsDirty();
}

// ---------------------------------------------------------------------------
// Run control
// ---------------------------------------------------------------------------

int CSimTarget::IsHalted() { return m_halted.load() ? 1 : 0; }

int CSimTarget::Halt() {
  std::unique_lock<std::mutex> lk(m_mx);
  if (m_halted) return 0;
  m_haltReq = true;
  m_attention = true;
  bool ok = m_cv.wait_for(lk, std::chrono::seconds(2), [&] { return m_halted.load() != 0; });
  return ok ? 0 : 1;
}

int CSimTarget::Go(U32 Flags) {
  std::lock_guard<std::mutex> lk(m_mx);
  if (!m_halted) return 0;
  if (m_lockedUp) return -1;
  m_skipBpAddr = (Flags & VORDENARM_GO_FLAG_OVERSTEP_BP) ? (Reg(UC_ARM_REG_PC) & ~1u) : 0xFFFFFFFF;
  m_halted = 0;
  m_runReq = true;
  m_cv.notify_all();
  return 0;
}

int CSimTarget::Step() {
  std::unique_lock<std::mutex> lk(m_mx);
  if (!m_halted || m_lockedUp) return 1;
  m_skipBpAddr = Reg(UC_ARM_REG_PC) & ~1u;
  m_halted = 0;
  m_stepReq = true;
  m_cv.notify_all();
  bool ok = m_cv.wait_for(lk, std::chrono::seconds(5), [&] { return m_halted.load() != 0; });
  return ok ? 0 : 1;
}

int CSimTarget::Reset() {
  if (Halt() != 0) return -1;
  std::lock_guard<std::mutex> lk(m_mx);
  DoReset();
  m_traceReadPos = 0;
  return 0;
}

// ---------------------------------------------------------------------------
// Breakpoints and data events
// ---------------------------------------------------------------------------

void CSimTarget::RebuildFilter() {
  memset(m_filter, 0, sizeof m_filter);
  for (U32 a : m_bpAddrs) m_filter[(a >> 1) & 0xFFFF] |= 1;
  for (U32 a : m_trStart) m_filter[(a >> 1) & 0xFFFF] |= 2;
  for (U32 a : m_trStop) m_filter[(a >> 1) & 0xFFFF] |= 4;
}

void CSimTarget::SetLimits(int MaxHWBPs, int MaxDataEvents) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  m_maxHWBPs = MaxHWBPs < 0 ? (int)m_dev.NumHWBPs : MaxHWBPs;
  m_maxDataEvents = MaxDataEvents < 0 ? (int)m_dev.NumDataEvents : MaxDataEvents;
}

int CSimTarget::SetBP(U32 Addr, U32 Flags) {
  Addr &= ~1u;
  std::lock_guard<std::mutex> lk(m_bpMx);
  for (const BP& b : m_bps)
    if (b.Addr == Addr) return b.Handle;
  int hw = 0;
  for (const BP& b : m_bps) hw += (b.ImpFlags & VORDENARM_BP_IMP_HW) ? 1 : 0;
  U32 imp = 0;
  bool canHW = (Flags & VORDENARM_BP_TYPE_HW_MASK) && hw < m_maxHWBPs && Addr < 0x20000000;
  Region* r = FindRegion(Addr, 2);
  if (canHW) {
    imp = VORDENARM_BP_IMP_HW;
  } else if ((Flags & VORDENARM_BP_TYPE_SW_MASK) && r) {
    imp = r->CpuWritable ? VORDENARM_BP_IMP_SW_RAM : VORDENARM_BP_IMP_SW_FLASH;
  } else {
    return 0;
  }
  BP b{m_nextBpHandle++, Addr, Flags, imp};
  m_bps.push_back(b);
  m_bpAddrs.insert(Addr);
  RebuildFilter();
  return b.Handle;
}

int CSimTarget::ClrBP(int Handle) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  if (Handle == -1) {
    m_bps.clear();
  } else {
    auto it = std::find_if(m_bps.begin(), m_bps.end(), [&](const BP& b) { return b.Handle == Handle; });
    if (it == m_bps.end()) return -1;
    m_bps.erase(it);
  }
  m_bpAddrs.clear();
  for (const BP& b : m_bps) m_bpAddrs.insert(b.Addr);
  RebuildFilter();
  return 0;
}

int CSimTarget::FindBP(U32 Addr) {
  Addr &= ~1u;
  std::lock_guard<std::mutex> lk(m_bpMx);
  for (const BP& b : m_bps)
    if (b.Addr == Addr) return b.Handle;
  return 0;
}

int CSimTarget::GetBPInfo(int Index, VORDENARM_BP_INFO* pInfo) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  const BP* p = nullptr;
  if (Index == -1) {
    for (const BP& b : m_bps)
      if ((U32)b.Handle == pInfo->Handle) p = &b;
  } else if (Index >= 0 && (size_t)Index < m_bps.size()) {
    p = &m_bps[Index];
  }
  if (!p) return -1;
  pInfo->Handle = (U32)p->Handle;
  pInfo->Addr = p->Addr;
  pInfo->Type = p->Flags;
  pInfo->ImpFlags = p->ImpFlags;
  pInfo->UseCnt = 1;
  pInfo->IsPending = 0;
  return (int)m_bps.size();
}

int CSimTarget::SetDataEvent(const VORDENARM_DATA_EVENT& Ev, U32* pHandle) {
  if (Ev.SizeOfStruct != sizeof(VORDENARM_DATA_EVENT) || Ev.Type != 1) return (int)VORDENARM_EVENT_ERR_UNKNOWN;
  U32 err = 0;
  // Address masks: a contiguous run of low bits, at most 15 of them.
  U32 m = Ev.AddrMask;
  if ((m & (m + 1)) != 0 || m > 0x7FFF) err |= VORDENARM_EVENT_ERR_ADDR_MASK;
  if (Ev.AccessMask & ~0x17u) err |= VORDENARM_EVENT_ERR_ACC_MASK;
  U32 dm = Ev.DataMask;
  bool dataCmp = dm != 0xFFFFFFFF;
  if (dataCmp && dm != 0 && dm != 0xFFFFFF00 && dm != 0xFFFF0000) err |= VORDENARM_EVENT_ERR_DATA_MASK;
  std::lock_guard<std::mutex> lk(m_bpMx);
  if ((int)m_des.size() >= m_maxDataEvents) err |= VORDENARM_EVENT_ERR_NO_MORE_EVENTS | VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP;
  if (dataCmp) {
    int used = 0;
    for (const DataEvent& d : m_des) used += d.Ev.DataMask != 0xFFFFFFFF;
    int avail = m_dev.Core == CORE_M0 ? 0 : 1;
    if (used >= avail) err |= VORDENARM_EVENT_ERR_NO_MORE_DATA_COMP;
  }
  if (err) return (int)(err | 0x80000000u);
  DataEvent d{m_nextDeHandle++, Ev, Ev.AddrMask};
  if (!(Ev.AccessMask & 6)) {
    if ((Ev.Access & 6) == 2) d.AddrMask |= 1;
    if ((Ev.Access & 6) == 4) d.AddrMask |= 3;
  }
  m_des.push_back(d);
  m_deActive = true;
  if (pHandle) *pHandle = d.Handle;
  return 0;
}

int CSimTarget::ClrDataEvent(U32 Handle) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  if (Handle == 0xFFFFFFFF) {
    m_des.clear();
  } else {
    auto it = std::find_if(m_des.begin(), m_des.end(), [&](const DataEvent& d) { return d.Handle == Handle; });
    if (it == m_des.end()) return -1;
    m_des.erase(it);
  }
  m_deActive = !m_des.empty();
  return 0;
}

int CSimTarget::GetWPInfo(int Index, VORDENARM_WP_INFO* pInfo) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  if (Index == -1) return (int)m_des.size();
  if (Index < 0 || (size_t)Index >= m_des.size() || !pInfo) return -1;
  FillWPInfo(m_des[Index], Index, pInfo);
  return 0;
}

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

static bool ParseU32(const std::string& s, U32& v) {
  if (s.empty()) return false;
  char* end = nullptr;
  unsigned long long x = strtoull(s.c_str(), &end, 0);
  if (*end || x > 0xFFFFFFFFull) return false;
  v = (U32)x;
  return true;
}

bool CSimTarget::ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) {
  auto openFile = [&](FILE*& f, const char* mode) {
    if (f) fclose(f);
    f = nullptr;
    if (sValue.empty()) return true;
    f = fopen(sValue.c_str(), mode);
    if (!f) sError = "cannot open file " + sValue;
    return f != nullptr;
  };
  if (sName == "simunpaced" || sName == "simpaced") {
    std::lock_guard<std::mutex> lk(m_mx);
    U32 v = 1;
    if (!sValue.empty() && !ParseU32(sValue, v)) {
      sError = "invalid value";
      return true;
    }
    m_paced = (sName == "simpaced") ? v != 0 : v == 0;
    return true;
  }
  if (sName == "simtracesize") {
    // Ring size in entries (a power of two, 1024 to 16 M), from the next
    // VORDEN_STRACE_Start on.
    U32 v;
    if (!ParseU32(sValue, v) || v < 1024 || v > TRACE_SIZE || (v & (v - 1))) {
      sError = "invalid trace size";
      return true;
    }
    std::lock_guard<std::mutex> lk(m_mx);
    if (!m_halted || m_traceStarted) {
      sError = "trace must be stopped and the target halted";
      return true;
    }
    m_traceSize = v;
    return true;
  }
  if (sName == "simuartfile") {
    std::lock_guard<std::recursive_mutex> lk(m_sysMx);
    openFile(m_uartFile, "ab");
    return true;
  }
  if (sName == "simuartinput") {
    std::lock_guard<std::recursive_mutex> lk(m_sysMx);
    for (char ch : sValue) m_uartIn.push_back((U8)ch);
    m_uartIn.push_back('\n');
    return true;
  }
  if (sName == "simpclog") {
    if (!m_halted) {
      sError = "target must be halted";
      return true;
    }
    std::lock_guard<std::mutex> lk(m_mx);
    m_pcLog.clear();
    openFile(m_pcLogFile, "wb");
    m_pcLogOn = m_pcLogFile != nullptr;
    return true;
  }
  if (sName == "simpowerlog") {
    std::lock_guard<std::mutex> lk(m_dataMx);
    openFile(m_powerLog, "wb");
    return true;
  }
  if (sName == "simdumpstats") {
    // Ground truth of the statistics: "address fetch skip" for every non-zero counter.
    FILE* f = fopen(sValue.c_str(), "wb");
    if (!f) {
      sError = "cannot open file " + sValue;
      return true;
    }
    std::lock_guard<std::mutex> lk(m_mx);
    for (const StatsRange& r : m_stats)
      for (size_t i = 0; i < r.Fetch.size(); ++i)
        if (r.Fetch[i] || r.Skip[i])
          fprintf(f, "%08X %llu %llu\n", r.Addr + (U32)(2 * i), (unsigned long long)r.Fetch[i],
                  (unsigned long long)r.Skip[i]);
    fprintf(f, "TOTAL %llu %llu\n", (unsigned long long)m_totalFetch, (unsigned long long)m_totalSkip);
    fclose(f);
    return true;
  }
  if (sName == "supplypower") {
    U32 v;
    if (!ParseU32(sValue, v)) {
      sError = "invalid value";
      return true;
    }
    m_supplyOn = v != 0;
    return true;
  }
  if (sName == "setlvtaddr") {
    U32 v;
    if (!ParseU32(sValue, v)) {
      sError = "invalid address";
      return true;
    }
    m_lvtAddr = v;
    m_lvtFound = 0xFFFFFFFF;
    return true;
  }
  if (sName == "setlvtsearchranges") {
    // "0xA 0xS, 0xA 0xS": pairs of start address and size.
    std::vector<std::pair<U32, U32>> ranges;
    std::string s = sValue;
    for (char& ch : s)
      if (ch == ',') ch = ' ';
    char* p = s.data();
    for (;;) {
      while (*p == ' ') ++p;
      if (!*p) break;
      char* e1;
      unsigned long long a = strtoull(p, &e1, 0);
      if (e1 == p) {
        sError = "invalid search range";
        return true;
      }
      char* e2;
      unsigned long long n = strtoull(e1, &e2, 0);
      if (e2 == e1 || a > 0xFFFFFFFFull || n > 0xFFFFFFFFull) {
        sError = "invalid search range";
        return true;
      }
      ranges.push_back({(U32)a, (U32)n});
      p = e2;
    }
    m_lvtRanges = ranges;
    m_lvtFound = 0xFFFFFFFF;
    return true;
  }
  return false;
}

// ---------------------------------------------------------------------------
// Trace and statistics
// ---------------------------------------------------------------------------

void CSimTarget::TraceAdd(U32 Pc) {
  m_trace[m_traceSeq & (m_traceSize - 1)] = Pc;
  ++m_traceSeq;
  if (m_traceSeq - m_lastStampSeq >= 4096) {
    m_stamps[m_stampSeq & (STAMP_SIZE - 1)] = {m_traceSeq, Cycles()};
    ++m_stampSeq;
    m_lastStampSeq = m_traceSeq;
  }
}

void CSimTarget::TraceMarker(U32 Marker) {
  if (m_pcLogOn) m_pcLog.push_back(Marker);
  if (!m_traceRecording) return;
  m_trace[m_traceSeq & (m_traceSize - 1)] = Marker;
  ++m_traceSeq;
  // Every marker carries a stamp, so that cycles between stamps are exact.
  m_stamps[m_stampSeq & (STAMP_SIZE - 1)] = {m_traceSeq, Cycles()};
  ++m_stampSeq;
  m_lastStampSeq = m_traceSeq;
}

void CSimTarget::WritePCLog() {
  if (m_pcLogFile && !m_pcLog.empty()) {
    fwrite(m_pcLog.data(), 4, m_pcLog.size(), m_pcLogFile);
    fflush(m_pcLogFile);
  }
  m_pcLog.clear();
}

void CSimTarget::StatsCount(U32 Pc) {
  StatsRange* r = m_lastStats;
  U32 off = r ? Pc - r->Addr : 0;
  if (!r || off >= r->Size) {
    r = nullptr;
    for (StatsRange& x : m_stats)
      if (Pc - x.Addr < x.Size) r = &x;
    if (!r) {
      m_totalFetch++;
      return;
    }
    m_lastStats = r;
    off = Pc - r->Addr;
  }
  r->Fetch[off >> 1]++;
  m_totalFetch++;
  U16 hw;
  memcpy(&hw, r->pHost + off, 2);
  if ((hw & 0xFF00) == 0xBF00 && (hw & 0xF) != 0) CheckIT(Pc);
}

// An IT instruction decides which of the next up to four instructions run.
// The engine does not report the skipped ones to the code hook, so they are
// counted here, as fetched and skipped, with the flags as IT finds them (an
// instruction inside the block that changes the flags is not followed).
void CSimTarget::CheckIT(U32 Pc) {
  U8* p = HostPtr(Pc, 2);
  if (!p) return;
  U16 hw;
  memcpy(&hw, p, 2);
  if ((hw & 0xFF00) != 0xBF00 || (hw & 0xF) == 0) return;
  U32 f = Reg(UC_ARM_REG_APSR);
  bool N = f >> 31 & 1, Z = f >> 30 & 1, C = f >> 29 & 1, V = f >> 28 & 1;
  U32 it = hw & 0xFF;
  U32 a = Pc + 2;
  for (int k = 0; k < 4; ++k) {
    U32 cond = it >> 4;
    bool pass;
    switch (cond >> 1) {
      case 0: pass = Z; break;
      case 1: pass = C; break;
      case 2: pass = N; break;
      case 3: pass = V; break;
      case 4: pass = C && !Z; break;
      case 5: pass = N == V; break;
      case 6: pass = !Z && N == V; break;
      default: pass = true; break;
    }
    if ((cond & 1) && cond != 15) pass = !pass;
    U8* q = HostPtr(a, 2);
    if (!q) break;
    U16 first;
    memcpy(&first, q, 2);
    if (!pass) {
      for (StatsRange& r : m_stats)
        if (a - r.Addr < r.Size) {
          r.Fetch[(a - r.Addr) >> 1]++;
          r.Skip[(a - r.Addr) >> 1]++;
          break;
        }
      m_totalFetch++;
      m_totalSkip++;
    }
    a += ((first >> 11) >= 0x1D) ? 4 : 2;  // 32-bit encodings start with 0b11101, 0b11110, 0b11111
    it = (it & 0xE0) | ((it << 1) & 0x1F);
    if ((it & 0xF) == 0) break;
  }
}

int CSimTarget::TraceStart() {
  std::lock_guard<std::mutex> lk(m_mx);
  if (!m_halted) return -1;
  if (!m_trace || m_traceAlloc != m_traceSize) {
    m_trace.reset(new (std::nothrow) U32[m_traceSize]);
    m_traceAlloc = m_traceSize;
    m_stamps.reset(new (std::nothrow) Stamp[STAMP_SIZE]);
    if (!m_trace || !m_stamps) return -1;
  }
  if (m_stats.empty())
    for (const Region& r : m_regions)
      if (r.Size <= (16u << 20)) m_stats.push_back({r.Addr, r.Size, r.pHost, std::vector<U64>(r.Size / 2), std::vector<U64>(r.Size / 2)});
  m_traceSeq = m_stampSeq = m_lastStampSeq = m_traceReadPos = 0;
  m_stamps[0] = {0, Cycles()};
  m_stampSeq = 1;
  for (StatsRange& r : m_stats) {
    std::fill(r.Fetch.begin(), r.Fetch.end(), 0);
    std::fill(r.Skip.begin(), r.Skip.end(), 0);
  }
  m_totalFetch = m_totalSkip = 0;
  m_traceStarted = true;
  {
    std::lock_guard<std::mutex> bl(m_bpMx);
    m_traceRecording = m_trStart.empty();
  }
  m_statsOn = true;
  return 0;
}

int CSimTarget::TraceStop() {
  std::lock_guard<std::mutex> lk(m_mx);
  if (!m_halted) {
    // Stop recording at once; the data stays readable.
    m_traceRecording = false;
    m_statsOn = false;
    m_traceStarted = false;
    return 0;
  }
  m_traceRecording = m_statsOn = m_traceStarted = false;
  return 0;
}

int CSimTarget::TraceControl(U32 Cmd, void* pData) {
  std::lock_guard<std::mutex> lk(m_bpMx);
  if (Cmd == VORDEN_STRACE_CMD_CLR_ALL_TRACE_EVENTS) {
    m_trStart.clear();
    m_trStop.clear();
  } else if (Cmd == VORDEN_STRACE_CMD_SET_TRACE_EVENT) {
    auto* e = (const VORDEN_STRACE_EVENT_INFO*)pData;
    if (!e || e->SizeOfStruct != sizeof(VORDEN_STRACE_EVENT_INFO) || e->Type != 0 || e->Op > 1 || e->Addr > 0xFFFFFFFFull)
      return -1;
    (e->Op == 0 ? m_trStart : m_trStop).insert((U32)e->Addr & ~1u);
  } else {
    return -1;
  }
  RebuildFilter();
  return 0;
}

int CSimTarget::TraceRead(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps) {
  std::lock_guard<std::mutex> lk(m_mx);
  if (!m_trace) return -1;
  if (!m_halted) return -1;
  U64 avail = std::min<U64>(m_traceSeq, m_traceSize);
  if (m_traceReadPos >= avail) {
    if (pNumStamps) *pNumStamps = 0;
    return 0;
  }
  U32 n = (U32)std::min<U64>(NumItems, avail - m_traceReadPos);
  U64 newest = m_traceSeq - 1 - m_traceReadPos;  // sequence index of item 0
  for (U32 i = 0; i < n; ++i) paItem[i] = m_trace[(newest - i) & (m_traceSize - 1)];
  if (paStamps && pNumStamps) {
    // Stamps at the first item and every 1000 items: the cycle at which that
    // entry was recorded, from the nearest stamp at or before it (one cycle
    // per instruction in between; markers cost nothing).
    int max = *pNumStamps, cnt = 0;
    U64 firstStamp = m_stampSeq > STAMP_SIZE ? m_stampSeq - STAMP_SIZE : 0;
    for (U32 i = 0; i < n && cnt < max; i += 1000) {
      U64 seq = newest - i;  // entry index; it was written when m_traceSeq was seq
      // Binary search the last stamp with Seq <= seq.
      U64 lo = firstStamp, hi = m_stampSeq;
      if (hi == lo) break;
      if (m_stamps[lo & (STAMP_SIZE - 1)].Seq > seq) continue;
      while (hi - lo > 1) {
        U64 mid = (lo + hi) / 2;
        if (m_stamps[mid & (STAMP_SIZE - 1)].Seq <= seq) lo = mid; else hi = mid;
      }
      const Stamp& s = m_stamps[lo & (STAMP_SIZE - 1)];
      if (m_traceSeq - s.Seq > m_traceSize) continue;  // entries behind the stamp are overwritten
      U64 instr = 0;
      for (U64 k = s.Seq; k < seq; ++k)
        if (m_trace[k & (m_traceSize - 1)] < VORDEN_STRACE_MARKER_EXC_ENTRY) ++instr;
      paStamps[cnt].Cycles = s.Cycles + instr;
      paStamps[cnt].InstIndex = i;
      paStamps[cnt].Dummy = 0;
      ++cnt;
    }
    *pNumStamps = cnt;
  }
  m_traceReadPos += n;
  return (int)n;
}

int CSimTarget::GetInstStats(U64* paItem, U32 Addr, U32 NumItems) {
  if (NumItems < 2) return -1;
  U32 n = NumItems / 2 - 1;
  std::lock_guard<std::mutex> lk(m_mx);
  for (U32 i = 0; i < n; ++i) {
    U32 a = Addr + 2 * i;
    U64 f = 0, s = 0;
    for (const StatsRange& r : m_stats)
      if (a - r.Addr < r.Size) {
        f = r.Fetch[(a - r.Addr) >> 1];
        s = r.Skip[(a - r.Addr) >> 1];
        break;
      }
    paItem[i] = f;
    paItem[n + 1 + i] = s;
  }
  paItem[n] = m_totalFetch;
  paItem[2 * n + 1] = m_totalSkip;
  return (int)(2 * n + 2);
}

// ---------------------------------------------------------------------------
// LVT terminal: a control block in target RAM (see firmware/sim/lvt.h).
//   char acID[16]; int MaxNumUp; int MaxNumDown; LVT_BUFFER aUp[], aDown[];
//   LVT_BUFFER: U32 sName, U32 pBuffer, U32 SizeOfBuffer, U32 WrOff, U32 RdOff, U32 Flags
// ---------------------------------------------------------------------------

// The terminal touches RAM only, directly: no peripheral, no code cache.
bool CSimTarget::HostRead(U32 Addr, U32 NumBytes, U8* pData) {
  U8* p = HostPtr(Addr, NumBytes);
  if (!p) return false;
  memcpy(pData, p, NumBytes);
  return true;
}

bool CSimTarget::HostWrite(U32 Addr, U32 NumBytes, const U8* pData) {
  Region* r = FindRegion(Addr, NumBytes);
  if (!r || !r->CpuWritable) return false;
  memcpy(r->pHost + (Addr - r->Addr), pData, NumBytes);
  return true;
}

bool CSimTarget::LVTFind() {
  if (m_lvtFound != 0xFFFFFFFF) {
    char id[16];
    if (HostRead(m_lvtFound, 16, (U8*)id) && memcmp(id, kLvtId, strlen(kLvtId) + 1) == 0) return true;
    m_lvtFound = 0xFFFFFFFF;
  }
  size_t idLen = strlen(kLvtId) + 1;
  if (m_lvtAddr != 0xFFFFFFFF) {
    char id[16];
    if (HostRead(m_lvtAddr, 16, (U8*)id) && memcmp(id, kLvtId, idLen) == 0) {
      m_lvtFound = m_lvtAddr;
      return true;
    }
    return false;
  }
  std::vector<std::pair<U32, U32>> ranges = m_lvtRanges;
  if (ranges.empty()) ranges.push_back({m_dev.RAMAddr, m_dev.RAMSize});
  for (auto& rg : ranges) {
    U8* p = HostPtr(rg.first, 1);
    Region* r = FindRegion(rg.first, 1);
    if (!p || !r) continue;
    U32 len = (U32)std::min<U64>(rg.second, (U64)r->Addr + r->Size - rg.first);
    for (U32 off = 0; off + 16 <= len; off += 4)
      if (memcmp(p + off, kLvtId, idLen) == 0) {
        m_lvtFound = rg.first + off;
        return true;
      }
  }
  return false;
}

int CSimTarget::LVTControl(U32 Cmd) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (Cmd == 0) {
    m_lvtStarted = true;
    LVTFind();  // may succeed later, once the firmware has set the block up
    return 0;
  }
  if (Cmd == 1) {
    m_lvtStarted = false;
    return 0;
  }
  return -1;
}

int CSimTarget::LVTRead(U32 BufIdx, U8* pData, U32 NumBytes) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (!m_lvtStarted) return -1;
  if (!LVTFind()) return 0;
  U32 hdr[2];
  if (!HostRead(m_lvtFound + 16, 8, (U8*)hdr)) return -1;
  if (BufIdx >= hdr[0] || BufIdx > 16) return -1;
  U32 desc = m_lvtFound + 24 + 24 * BufIdx, d[6];
  if (!HostRead(desc, 24, (U8*)d)) return -1;
  U32 buf = d[1], size = d[2], wr = d[3], rd = d[4];
  if (size == 0 || wr >= size || rd >= size) return -1;
  U32 done = 0;
  while (done < NumBytes && rd != wr) {
    U32 chunk = (wr > rd ? wr : size) - rd;
    chunk = std::min(chunk, NumBytes - done);
    if (!HostRead(buf + rd, chunk, pData + done)) return -1;
    done += chunk;
    rd += chunk;
    if (rd == size) rd = 0;
  }
  if (done) HostWrite(desc + 16, 4, (const U8*)&rd);
  return (int)done;
}

int CSimTarget::LVTWrite(U32 BufIdx, const U8* pData, U32 NumBytes) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (!m_lvtStarted) return -1;
  if (!LVTFind()) return -1;
  U32 hdr[2];
  if (!HostRead(m_lvtFound + 16, 8, (U8*)hdr)) return -1;
  if (BufIdx >= hdr[1] || BufIdx > 16) return -1;
  U32 desc = m_lvtFound + 24 + 24 * (hdr[0] + BufIdx), d[6];
  if (!HostRead(desc, 24, (U8*)d)) return -1;
  U32 buf = d[1], size = d[2], wr = d[3], rd = d[4];
  if (size == 0 || wr >= size || rd >= size) return -1;
  U32 done = 0;
  while (done < NumBytes) {
    U32 next = wr + 1 == size ? 0 : wr + 1;
    if (next == rd) break;  // full
    if (!HostWrite(buf + wr, 1, pData + done)) return -1;
    wr = next;
    ++done;
  }
  if (done) HostWrite(desc + 12, 4, (const U8*)&wr);
  return (int)done;
}

// ---------------------------------------------------------------------------
// SWO
// ---------------------------------------------------------------------------

int CSimTarget::SWOEnable(U32 PortMask) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  m_swoPortMask = PortMask;
  // What the probe sets up on the target: ITM on, the ports enabled.
  m_itmTcr |= 1;
  m_itmTer |= PortMask;
  m_demcr |= 1u << 24;
  return 0;
}

int CSimTarget::SWODisable(U32 PortMask) {
  std::lock_guard<std::recursive_mutex> lk(m_sysMx);
  m_swoPortMask &= ~PortMask;
  return 0;
}

int CSimTarget::SWORead(int Port, U8* pData, U32 NumBytes) {
  if (Port < 0 || Port > 31) return -1;
  std::lock_guard<std::mutex> lk(m_dataMx);
  auto& b = m_swo[Port];
  U32 n = (U32)std::min<size_t>(NumBytes, b.size());
  if (n) memcpy(pData, b.data(), n);
  m_swoLastPort = Port;
  return (int)n;
}

int CSimTarget::SWOFlush(U32 NumBytes) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  auto& b = m_swo[m_swoLastPort];
  if (NumBytes >= b.size()) b.clear();
  else b.erase(b.begin(), b.begin() + NumBytes);
  return 0;
}

int CSimTarget::SWOCount() {
  std::lock_guard<std::mutex> lk(m_dataMx);
  size_t n = 0;
  for (auto& b : m_swo) n += b.size();
  return (int)n;
}

// ---------------------------------------------------------------------------
// High speed sampling and power
// ---------------------------------------------------------------------------

int CSimTarget::HSSStart(const VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int PeriodUs) {
  if (!paDesc || NumBlocks < 1) return -1;
  if (NumBlocks > 64) return -3;
  std::vector<HSSBlock> blocks;
  for (int i = 0; i < NumBlocks; ++i) {
    if (paDesc[i].NumBytes == 0 || paDesc[i].NumBytes > 256 || !FindRegion(paDesc[i].Addr, paDesc[i].NumBytes)) return -1;
    blocks.push_back({paDesc[i].Addr, paDesc[i].NumBytes});
  }
  std::lock_guard<std::mutex> dl(m_dataMx);
  m_hssBlocks = blocks;
  U64 period = (U64)std::max(PeriodUs, 10) * m_dev.ClockHz / 1000000;
  m_hssPeriod = std::max<U64>(period, 1);
  m_hssNext = Cycles() + m_hssPeriod;
  m_hssBuf.clear();
  m_hssOn = true;
  MarkEventsDirty();
  return 0;
}

int CSimTarget::HSSStop() {
  std::lock_guard<std::mutex> lk(m_dataMx);
  m_hssOn = false;
  MarkEventsDirty();
  return 0;
}

// Called with m_dataMx held.
void CSimTarget::HSSSample(U64 Cycle) {
  if (m_hssBuf.size() > (32u << 20)) return;  // buffer full: samples are dropped
  U32 t = (U32)(Cycle * 1000000 / m_dev.ClockHz);
  const U8* pt = (const U8*)&t;
  m_hssBuf.insert(m_hssBuf.end(), pt, pt + 4);
  for (const HSSBlock& b : m_hssBlocks) {
    U8* p = HostPtr(b.Addr, b.NumBytes);
    if (p) m_hssBuf.insert(m_hssBuf.end(), p, p + b.NumBytes);
    else m_hssBuf.insert(m_hssBuf.end(), b.NumBytes, 0);
  }
}

int CSimTarget::HSSRead(U8* pBuffer, U32 BufferSize) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (m_hssBlocks.empty()) return -1;
  U32 rec = 4;
  for (const HSSBlock& b : m_hssBlocks) rec += b.NumBytes;
  U32 n = (U32)std::min<size_t>(BufferSize / rec, m_hssBuf.size() / rec) * rec;
  if (n) memcpy(pBuffer, m_hssBuf.data(), n);
  m_hssBuf.erase(m_hssBuf.begin(), m_hssBuf.begin() + n);
  return (int)n;
}

U32 CSimTarget::PowerValue() {
  if (!m_supplyOn) return 0;
  U32 base = m_sleeping ? POWER_SLEEP_UA : POWER_RUN_UA;
  if (m_led) base += POWER_LED_UA;
  // Small deterministic noise: +-0.5 %.
  m_noise = m_noise * 1103515245u + 12345u;
  int span = (int)(base / 200);
  int noise = span ? (int)((m_noise >> 16) % (2 * span + 1)) - span : 0;
  return (U32)((int)base + noise);
}

// Called with m_dataMx held.
void CSimTarget::PowerSample(U64 Cycle) {
  U32 ua = PowerValue();
  VORDEN_POWERTRACE_DATA_ITEM it{(U32)(Cycle * 1000000 / m_dev.ClockHz), m_powerHighRes ? ua * 1000 : ua};
  if (m_powerBuf.size() < 4000000) m_powerBuf.push_back(it);
  if (m_powerLog) fprintf(m_powerLog, "%u %u %d\n", it.Time, it.Value, m_sleeping ? 1 : 0);
}

int CSimTarget::PowerControl(int Cmd, void* pIn, void* pOut) {
  switch (Cmd) {
    case 0: {
      auto* s = (const VORDEN_POWERTRACE_SETUP*)pIn;
      if (!s || s->SizeofStruct != sizeof(VORDEN_POWERTRACE_SETUP) || (s->ChannelMask & ~1u) || !s->ChannelMask) return -1;
      std::lock_guard<std::mutex> lk(m_dataMx);
      U32 f = std::clamp<U32>(s->Freq, 1, 100000);
      m_powerFreq = f;
      m_powerHighRes = (s->Flags & 2) != 0;
      return (int)f;
    }
    case 1: {
      std::lock_guard<std::mutex> lk(m_dataMx);
      m_powerStep = (double)m_dev.ClockHz / m_powerFreq;
      m_powerAcc = (double)Cycles() + m_powerStep;
      m_powerNext = (U64)m_powerAcc;
      m_powerOn = true;
      MarkEventsDirty();
      return 0;
    }
    case 2: {
      std::lock_guard<std::mutex> lk(m_dataMx);
      m_powerOn = false;
      MarkEventsDirty();
      return 0;
    }
    case 3: {
      std::lock_guard<std::mutex> lk(m_dataMx);
      m_powerBuf.clear();
      return 0;
    }
    case 4: {
      auto* c = (VORDEN_POWERTRACE_CAPS*)pOut;
      if (!c) return -1;
      c->SizeofStruct = sizeof(VORDEN_POWERTRACE_CAPS);
      c->ChannelMask = 1;
      c->Caps = 2;
      return 0;
    }
  }
  return -1;
}

int CSimTarget::PowerRead(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  U32 n = (U32)std::min<size_t>(NumItems, m_powerBuf.size());
  if (n) memcpy(paData, m_powerBuf.data(), n * sizeof(VORDEN_POWERTRACE_DATA_ITEM));
  m_powerBuf.erase(m_powerBuf.begin(), m_powerBuf.begin() + n);
  return (int)n;
}

}  // namespace vorden
