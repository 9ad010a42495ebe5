// The built-in simulated Cortex-M target: a Unicorn CPU on its own emulation
// thread, driven by one run state machine (run_state.h). The parts it owns:
// memory (sim_memory.h), the system model (sim_system.h), the data channels
// (sim_channels.h) and trace with statistics (sim_trace.h). Breakpoints and
// data events are served here, by the code and memory hooks.
#pragma once

#include <unicorn/unicorn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "backend.h"
#include "devices.h"
#include "sim/run_state.h"
#include "sim/sim_channels.h"
#include "sim/sim_core.h"
#include "sim/sim_memory.h"
#include "sim/sim_system.h"
#include "sim/sim_trace.h"

namespace vorden {

class CSimTarget : public CBackend, private ISimCore {
 public:
  CSimTarget(int DeviceIdx, LogFn Log);
  ~CSimTarget() override;
  bool Init(std::string& sError);

  int DeviceIndex() const override { return m_devIdx; }
  int IsHalted() override;
  int Halt() override;
  int Go(U32 Flags) override;
  int Step() override;
  int Reset() override;
  int ReadReg(U32 Idx, U64& Value) override;
  int WriteReg(U32 Idx, U64 Value) override;
  int ReadMem(U32 Addr, U32 NumBytes, U8* pData) override;
  int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) override;
  int SetBP(U32 Addr, U32 Flags) override;
  int ClrBP(int Handle) override;
  int FindBP(U32 Addr) override;
  int GetBPInfo(int Index, VORDENARM_BP_INFO* pInfo) override;
  int SetDataEvent(const VORDENARM_DATA_EVENT& Ev, U32* pHandle) override;
  int ClrDataEvent(U32 Handle) override;
  int GetWPInfo(int Index, VORDENARM_WP_INFO* pInfo) override;
  void SetLimits(int MaxHWBPs, int MaxDataEvents) override;
  bool ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) override;
  ITraceBackend* Trace() override { return &m_trace; }
  ITerminalBackend* Terminal() override { return &m_channels; }
  ISamplingBackend* Sampling() override { return &m_channels; }
  IPowerBackend* Power() override { return &m_channels; }

  U64 Cycles() const override { return m_cycles.load(std::memory_order_relaxed); }

 private:
  struct BP {
    int Handle;
    U32 Addr;
    U32 Flags;
    U32 ImpFlags;
  };
  struct DataEvent {
    U32 Handle;
    VORDENARM_DATA_EVENT Ev;
    U32 AddrMask;  // widened to the access size
  };
  // Why the engine returned (set by the hook that stopped it).
  enum StopReason {
    STOP_NONE, STOP_HALT, STOP_BP, STOP_STEP, STOP_DATA, STOP_EXC, STOP_EXC_RETURN, STOP_SVC,
    STOP_BKPT, STOP_FAULT, STOP_WORK
  };

  // ISimCore.
  U32 Reg(int UcReg) override;
  void SetReg(int UcReg, U32 V) override;
  void Attention() override { m_attention = true; }
  void EventsChanged() override;
  void RequestReset() override;
  void Log(int Level, const std::string& sText) override { m_log(Level, sText); }
  void TraceMarker(U32 Marker) override { m_trace.Marker(Marker); }
  bool Sleeping() const override { return m_state.Is(RunState::Sleeping); }
  std::mutex& RunMutex() override { return m_mx; }
  bool Halted() const override { return m_state.Stands(); }
  void TraceEventsChanged() override;

  // Hooks (emulation thread).
  static void HookCode(uc_engine* uc, uint64_t Addr, uint32_t Size, void* pUser);
  static void HookIntr(uc_engine* uc, uint32_t IntNo, void* pUser);
  static void HookMem(uc_engine* uc, uc_mem_type Type, uint64_t Addr, int Size, int64_t Value, void* pUser);
  static uint64_t MmioRead(uc_engine* uc, uint64_t Offset, unsigned Size, void* pUser);
  static void MmioWrite(uc_engine* uc, uint64_t Offset, unsigned Size, uint64_t Value, void* pUser);
  static uint64_t PeriphRead(uc_engine* uc, uint64_t Offset, unsigned Size, void* pUser);
  static void PeriphWrite(uc_engine* uc, uint64_t Offset, unsigned Size, uint64_t Value, void* pUser);
  static uint64_t SimRead(uc_engine* uc, uint64_t Offset, unsigned Size, void* pUser);
  static void SimWrite(uc_engine* uc, uint64_t Offset, unsigned Size, uint64_t Value, void* pUser);
  void LogPeriph(U32 Index);
  bool SlowPath(U32 Addr);
  void RequestStop(StopReason R);

  // Emulation thread.
  void EmuThread();
  void RunUntilStop(std::unique_lock<std::mutex>& Lk);
  bool HandleStop(StopReason R, uc_err Err);
  void LockUp();
  void ServiceEvents();  // SysTick, HSS, power, pacing at m_nextEvent
  void RecalcNextEvent();
  void AdvanceIdle();    // WFI: skip to the next event
  void Pace();
  void DoReset();
  void FlushCodeCache();
  bool FirstStepInsn() const { return m_stepInsns == 0 && m_state.Stepping(); }

  // Debug path helpers.
  bool IsPeriph(U32 Addr, U32& Index);
  int UcRegOf(U32 Idx) const;
  void RebuildFilter();  // with m_bpMx held
  bool DataEventMatch(bool Write, U32 Addr, int Size, U32 Value);

  int m_devIdx;
  const DeviceDesc& m_dev;
  LogFn m_log;
  uc_engine* m_uc = nullptr;
  CSimMemory m_mem;
  CSimSystem m_sys;
  CSimChannels m_channels;
  CSimTrace m_trace;
  struct PeriphCtx {
    CSimTarget* pTarget;
    U32 Index;
  };
  std::vector<std::unique_ptr<PeriphCtx>> m_periphCtx;
  std::vector<bool> m_periphLogged;
  std::mutex m_periphMx;

  // Run state. m_mx guards every engine call outside the emulation thread
  // and every transition the debug path makes.
  std::thread m_thread;
  std::mutex m_mx;
  std::condition_variable m_cv;
  CRunState m_state;
  U32 m_startPc = 0;    // PC when the current step or step-over began
  int m_stepInsns = 0;  // instructions begun in Step / StepOver

  // Work for the emulation thread, looked at when m_attention is set.
  std::atomic<bool> m_attention{false};
  std::atomic<bool> m_eventsDirty{false};
  std::atomic<bool> m_flushReq{false};
  std::vector<std::pair<U32, U32>> m_flushRanges;  // guarded by m_mx
  std::atomic<bool> m_resetReq{false};

  // Emulation thread state.
  std::atomic<U64> m_cycles{0};
  U64 m_nextEvent = ~0ull;
  StopReason m_stopReason = STOP_NONE;
  bool m_stopIssued = false;
  U32 m_excReturn = 0;
  bool m_paced = true;
  U64 m_paceCycle0 = 0;
  std::chrono::steady_clock::time_point m_paceWall0;
  U64 m_nextPace = ~0ull;

  // Breakpoints and data events (guarded by m_bpMx).
  std::mutex m_bpMx;
  std::vector<BP> m_bps;
  int m_nextBpHandle = 1;
  int m_maxHWBPs, m_maxDataEvents;
  std::vector<DataEvent> m_des;
  U32 m_nextDeHandle = 1;
  std::atomic<bool> m_deActive{false};
  U8 m_filter[65536] = {};  // bit 0 breakpoint, bit 1 trace start, bit 2 trace stop
  std::set<U32> m_bpAddrs;
  bool m_deHitPending = false;
};

}  // namespace vorden
