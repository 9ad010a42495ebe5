// The built-in simulated Cortex-M target: a Unicorn CPU on its own emulation
// thread plus a system model (NVIC, SysTick, SCB, DWT cycle counter, ITM,
// simulator peripheral block) written here.
#pragma once

#include <unicorn/unicorn.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "backend.h"
#include "devices.h"

namespace vorden {

class CSimTarget : public CBackend {
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
  int TraceControl(U32 Cmd, void* pData) override;
  int TraceStart() override;
  int TraceStop() override;
  int TraceRead(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps) override;
  int GetInstStats(U64* paItem, U32 Addr, U32 NumItems) override;
  int LVTControl(U32 Cmd) override;
  int LVTRead(U32 BufIdx, U8* pData, U32 NumBytes) override;
  int LVTWrite(U32 BufIdx, const U8* pData, U32 NumBytes) override;
  int SWOEnable(U32 PortMask) override;
  int SWODisable(U32 PortMask) override;
  int SWORead(int Port, U8* pData, U32 NumBytes) override;
  int SWOFlush(U32 NumBytes) override;
  int SWOCount() override;
  int HSSStart(const VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int PeriodUs) override;
  int HSSStop() override;
  int HSSRead(U8* pBuffer, U32 BufferSize) override;
  int PowerControl(int Cmd, void* pIn, void* pOut) override;
  int PowerRead(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems) override;

  U64 Cycles() const { return m_cycles.load(std::memory_order_relaxed); }

 private:
  struct Region {
    U32 Addr, Size;
    bool CpuWritable;
    U8* pHost;
    std::string sName;
  };
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
  struct StatsRange {
    U32 Addr, Size;
    const U8* pHost;
    std::vector<U64> Fetch, Skip;
  };
  struct HSSBlock {
    U32 Addr, NumBytes;
  };
  enum StopReason {
    STOP_NONE, STOP_HALT, STOP_BP, STOP_STEP, STOP_DATA, STOP_EXC, STOP_EXC_RETURN, STOP_SVC,
    STOP_BKPT, STOP_FAULT, STOP_WFI, STOP_WORK
  };

  // Hooks (emulation thread).
  static void HookCode(uc_engine* uc, uint64_t Addr, uint32_t Size, void* pUser);
  static void HookBlock(uc_engine* uc, uint64_t Addr, uint32_t Size, void* pUser);
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

  void EmuThread();
  void RunSlice();                   // one uc_emu_start and its stop handling
  bool HandleStop(StopReason R, uc_err Err);
  void ServiceEvents();              // SysTick, HSS, power, pacing at m_nextEvent
  void RecalcNextEvent();
  void MarkEventsDirty();
  void AdvanceIdle();                // WFI: skip to the next event
  void Pace();
  void DoReset();
  void FlushCodeCache();

  // Exceptions.
  int ExcPriority(int n) const;
  int ExecPriority(bool IgnoreActive = false, int Exclude = -1);
  int PendingToTake(int ExecPrio) const;
  bool TakeException(int n, bool TailChain, U32 ExcReturn);
  bool ExceptionReturn(U32 ExcReturn);
  void Pend(int n);
  bool AnyPending() const;

  // Memory.
  Region* FindRegion(U32 Addr, U32 Len);
  U8* HostPtr(U32 Addr, U32 Len);
  bool CpuRead32(U32 Addr, U32& V);
  bool CpuWrite32(U32 Addr, U32 V);
  U32 PpbRead(U32 Addr, unsigned Size);
  void PpbWrite(U32 Addr, unsigned Size, U32 V);
  U32 SimBlockRead(U32 Off);
  void SimBlockWrite(U32 Off, U32 V);
  bool IsPeriph(U32 Addr, U32& Index);
  U32 Reg(int UcReg);
  void SetReg(int UcReg, U32 V);
  int UcRegOf(U32 Idx) const;

  // Breakpoints, trace, statistics.
  void RebuildFilter();
  bool DataEventMatch(bool Write, U32 Addr, int Size, U32 Value);
  void TraceAdd(U32 Pc);
  void TraceMarker(U32 Marker);
  void StatsCount(U32 Pc);
  void CheckIT(U32 Pc);
  void WritePCLog();
  void PowerSample(U64 Cycle);
  U32 PowerValue();
  void HSSSample(U64 Cycle);
  bool LVTFind();
  bool HostRead(U32 Addr, U32 NumBytes, U8* pData);
  bool HostWrite(U32 Addr, U32 NumBytes, const U8* pData);

  int m_devIdx;
  const DeviceDesc& m_dev;
  LogFn m_log;
  uc_engine* m_uc = nullptr;
  std::vector<Region> m_regions;
  std::vector<std::unique_ptr<U8[]>> m_hostMem;
  struct PeriphCtx {
    CSimTarget* pTarget;
    U32 Index;
  };
  std::vector<std::unique_ptr<PeriphCtx>> m_periphCtx;
  std::vector<bool> m_periphLogged;
  std::mutex m_periphMx;

  // Thread and run state.
  std::thread m_thread;
  std::mutex m_mx;                 // guards run state and every uc call outside the thread
  std::condition_variable m_cv;
  bool m_quit = false;
  bool m_runReq = false;
  bool m_stepReq = false;
  std::atomic<int> m_halted{1};
  std::atomic<bool> m_attention{false};
  std::atomic<bool> m_haltReq{false};
  std::atomic<bool> m_lockedUp{false};

  // Emulation thread state.
  std::atomic<U64> m_cycles{0};
  U64 m_nextEvent = ~0ull;
  std::atomic<bool> m_eventsDirty{false};
  StopReason m_stopReason = STOP_NONE;
  bool m_stopIssued = false;
  U32 m_skipBpAddr = 0xFFFFFFFF;
  bool m_stepping = false;
  int m_stepCount = 0;
  U32 m_excReturn = 0;
  U32 m_faultPC = 0;
  bool m_sleeping = false;
  bool m_paced = true;
  U64 m_paceCycle0 = 0;
  std::chrono::steady_clock::time_point m_paceWall0;
  U64 m_nextPace = ~0ull;
  std::atomic<bool> m_flushReq{false};
  std::vector<std::pair<U32, U32>> m_flushRanges;  // guarded by m_mx
  std::atomic<bool> m_resetReq{false};

  // System model (guarded by m_sysMx for access from the debug path).
  std::recursive_mutex m_sysMx;
  static constexpr int NUM_EXC = 16 + 96;
  U8 m_pending[NUM_EXC] = {};
  U8 m_active[NUM_EXC] = {};
  U8 m_enabled[NUM_EXC] = {};
  U8 m_prio[NUM_EXC] = {};
  U8 m_prioMask = 0xF0;
  U32 m_vtor = 0, m_aircr = 0, m_scr = 0, m_ccr = 0x200, m_shcsr = 0, m_cpacr = 0, m_cfsr = 0, m_hfsr = 0;
  U32 m_stCsr = 0, m_stRvr = 0;
  U64 m_stBase = 0;      // cycle at which the current countdown started
  U32 m_stBaseVal = 0;   // counter value at m_stBase
  U64 m_stNext = ~0ull;  // cycle of the next wrap
  U32 m_dwtCtrl = 0x40000000, m_demcr = 0;
  U64 m_cycOffset = 0;   // DWT_CYCCNT = cycles - offset
  U32 m_itmTcr = 0, m_itmTer = 0;
  U32 m_led = 0;
  U32 m_curIpsr = 0;
  std::string m_uartOut;
  std::deque<U8> m_uartIn;
  FILE* m_uartFile = nullptr;

  // Breakpoints and data events (guarded by m_bpMx).
  std::mutex m_bpMx;
  std::vector<BP> m_bps;
  int m_nextBpHandle = 1;
  int m_maxHWBPs, m_maxDataEvents;
  std::vector<DataEvent> m_des;
  U32 m_nextDeHandle = 1;
  std::atomic<bool> m_deActive{false};
  U8 m_filter[65536] = {};  // bit 0 breakpoint, bit 1 trace start, bit 2 trace stop
  std::set<U32> m_bpAddrs, m_trStart, m_trStop;
  U32 m_deHitPending = 0;

  // Trace.
  static constexpr U32 TRACE_SIZE = 16u * 1024 * 1024;
  static constexpr U32 STAMP_SIZE = 1u * 1024 * 1024;
  struct Stamp { U64 Seq, Cycles; };
  std::unique_ptr<U32[]> m_trace;
  U32 m_traceSize = TRACE_SIZE;  // entries, a power of two
  U32 m_traceAlloc = 0;
  std::unique_ptr<Stamp[]> m_stamps;
  U64 m_traceSeq = 0;        // entries written
  U64 m_stampSeq = 0;
  U64 m_traceReadPos = 0;    // entries already read since the last halt
  U64 m_lastStampSeq = 0;
  bool m_traceStarted = false;
  bool m_traceRecording = false;
  bool m_statsOn = false;
  std::vector<StatsRange> m_stats;
  StatsRange* m_lastStats = nullptr;
  U64 m_totalFetch = 0, m_totalSkip = 0;
  std::vector<U32> m_pcLog;
  FILE* m_pcLogFile = nullptr;
  bool m_pcLogOn = false;
  std::mutex m_dataMx;       // guards SWO, HSS, power buffers

  // SWO.
  U32 m_swoPortMask = 0;
  std::vector<std::vector<U8>> m_swo{32};
  int m_swoLastPort = 0;
  // LVT.
  bool m_lvtStarted = false;
  U32 m_lvtAddr = 0xFFFFFFFF;       // configured address
  U32 m_lvtFound = 0xFFFFFFFF;
  std::vector<std::pair<U32, U32>> m_lvtRanges;
  // HSS.
  bool m_hssOn = false;
  std::vector<HSSBlock> m_hssBlocks;
  U64 m_hssPeriod = 0, m_hssNext = ~0ull;
  std::vector<U8> m_hssBuf;
  // Power.
  bool m_powerOn = false, m_powerHighRes = false, m_supplyOn = true;
  U32 m_powerFreq = 1000;
  U64 m_powerNext = ~0ull;
  double m_powerStep = 0, m_powerAcc = 0;
  std::vector<VORDEN_POWERTRACE_DATA_ITEM> m_powerBuf;
  U32 m_noise = 12345;
  FILE* m_powerLog = nullptr;
};

}  // namespace vorden
