// The system model of the simulated Cortex-M: the private peripheral bus
// (NVIC, SysTick, SCB, DWT cycle counter, ITM), exception entry and return,
// and the simulator peripheral block (UART, LED, cycle counter, clock).
// Guarded by its own lock, since the debug path reaches it at any time.
#pragma once

#include <cstdio>
#include <deque>
#include <mutex>
#include <string>

#include "devices.h"
#include "sim/sim_core.h"
#include "sim/sim_memory.h"

namespace vorden {

class CSimChannels;

constexpr U32 PPB_BASE = 0xE0000000;
constexpr U32 PPB_SIZE = 0x00100000;
constexpr U32 EXC_HARDFAULT = 3, EXC_SVCALL = 11, EXC_PENDSV = 14, EXC_SYSTICK = 15;

class CSimSystem {
 public:
  CSimSystem(const DeviceDesc& Dev, const CSimMemory& Mem, ISimCore& Core);
  ~CSimSystem();
  void SetChannels(CSimChannels* p) { m_channels = p; }
  std::recursive_mutex& Mutex() { return m_mx; }

  // Bus access: PPB at an aligned word, the simulator block at its offset.
  U32 PpbRead(U32 Addr, unsigned Size);
  void PpbWrite(U32 Addr, unsigned Size, U32 V);
  U32 SimBlockRead(U32 Off);
  void SimBlockWrite(U32 Off, U32 V);

  // Exceptions. The caller holds Mutex() across a decision and its action.
  void Pend(int n);
  bool AnyPending() const;
  bool WakeUpPending() const;  // an exception that ends a WFI sleep
  int ExecPriority();
  int PendingToTake(int ExecPrio) const;
  int PendingToTakeNow() { return PendingToTake(ExecPriority()); }
  // false: the core locked up (logged).
  bool TakeException(int n, bool TailChain, U32 ExcReturn);
  bool ExceptionReturn(U32 ExcReturn);
  // A fault of the running code becomes HardFault; false when it happened in
  // the HardFault handler (lock-up, logged).
  bool Fault(const std::string& sWhat);

  // Reset: system registers to their reset values, SP and PC from the vector
  // table at 0.
  void Reset();

  // SysTick: the cycle of the next wrap, and its servicing up to a cycle.
  U64 NextTick() const { return m_stNext; }
  void ServiceTick(U64 Cycle);

  // For the channels: ITM set up by the probe, LED state.
  void EnableItm(U32 PortMask);
  bool Led() const { return m_led != 0; }

  // UART knobs.
  bool SetUartFile(const std::string& sPath, std::string& sError);
  void QueueUartInput(const std::string& sText);

 private:
  int ExcPriority(int n) const;
  int ExecPriorityOf(bool IgnoreActive);

  const DeviceDesc& m_dev;
  const CSimMemory& m_mem;
  ISimCore& m_core;
  CSimChannels* m_channels = nullptr;
  std::recursive_mutex m_mx;

  static constexpr int NUM_EXC = 16 + 96;
  U8 m_pending[NUM_EXC] = {};
  U8 m_active[NUM_EXC] = {};
  U8 m_enabled[NUM_EXC] = {};
  U8 m_prio[NUM_EXC] = {};
  U8 m_prioMask = 0xF0;
  U32 m_vtor = 0, m_aircr = 0, m_scr = 0, m_ccr = 0x200, m_shcsr = 0, m_cpacr = 0, m_cfsr = 0, m_hfsr = 0;
  U32 m_stCsr = 0, m_stRvr = 0;
  U32 m_stBaseVal = 0;   // counter value while stopped
  U64 m_stNext = ~0ull;  // cycle of the next wrap
  U32 m_dwtCtrl = 0x40000000, m_demcr = 0;
  U64 m_cycOffset = 0;   // DWT_CYCCNT = cycles - offset
  U32 m_itmTcr = 0, m_itmTer = 0;
  U32 m_led = 0;
  U32 m_curIpsr = 0;
  std::string m_uartOut;
  std::deque<U8> m_uartIn;
  FILE* m_uartFile = nullptr;
};

}  // namespace vorden
