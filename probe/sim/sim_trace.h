// Instruction trace and execution statistics of the simulated target: a ring
// of executed PCs with exception markers and cycle stamps, fetch and skip
// counters per 2-byte address, and the PC log used as ground truth. The
// emulation thread records without locks; reads need the core halted.
#pragma once

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "backend.h"
#include "sim/sim_core.h"
#include "sim/sim_memory.h"

namespace vorden {

class CSimTrace : public ITraceBackend {
 public:
  CSimTrace(const CSimMemory& Mem, ISimCore& Core) : m_mem(Mem), m_core(Core) {}
  ~CSimTrace() override;

  int TraceControl(U32 Cmd, void* pData) override;
  int TraceStart() override;
  int TraceStop() override;
  int TraceRead(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps) override;
  int GetInstStats(U64* paItem, U32 Addr, U32 NumItems) override;

  // Emulation thread, for every executed instruction.
  bool Recording() const { return m_traceRecording; }
  bool PcLogOn() const { return m_pcLogOn; }
  void Add(U32 Pc) {
    m_trace[m_traceSeq & (m_traceSize - 1)] = Pc;
    ++m_traceSeq;
    if (m_traceSeq - m_lastStampSeq >= 4096) Stamp();
    if (m_statsOn) CountStats(Pc);
  }
  void PcLogAdd(U32 Pc) { m_pcLog.push_back(Pc); }
  void Marker(U32 Marker);
  // At a trace event address (filter bits 2 start, 4 stop).
  void AtEvent(U32 Pc, U8 FilterBits);
  // Trace event addresses for the core's address filter.
  void EventAddresses(std::vector<U32>& Start, std::vector<U32>& Stop);
  // The core halted (or was reset): reads restart at the newest entry, the
  // PC log is written.
  void OnHalt();

  // "SimTraceSize", "SimPCLog", "SimDumpStats"; false if not one of them.
  bool ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError);

 private:
  struct StatsRange {
    U32 Addr, Size;
    const U8* pHost;
    std::vector<U64> Fetch, Skip;
  };
  struct StampRec {
    U64 Seq, Cycles;
  };
  void Stamp();
  // Fetch counters: the range of the previous instruction inline, the rest
  // out of line.
  void CountStats(U32 Pc) {
    StatsRange* r = m_lastStats;
    U32 off = r ? Pc - r->Addr : 0;
    if (!r || off >= r->Size) return CountStatsElsewhere(Pc);
    r->Fetch[off >> 1]++;
    m_totalFetch++;
    U16 hw;
    memcpy(&hw, r->pHost + off, 2);
    if ((hw & 0xFF00) == 0xBF00 && (hw & 0xF) != 0) CheckIT(Pc);
  }
  void CountStatsElsewhere(U32 Pc);
  void CheckIT(U32 Pc);
  void WritePCLog();

  const CSimMemory& m_mem;
  ISimCore& m_core;

  static constexpr U32 TRACE_SIZE = 16u * 1024 * 1024;
  static constexpr U32 STAMP_SIZE = 1u * 1024 * 1024;
  std::unique_ptr<U32[]> m_trace;
  U32 m_traceSize = TRACE_SIZE;  // entries, a power of two
  U32 m_traceAlloc = 0;
  std::unique_ptr<StampRec[]> m_stamps;
  U64 m_traceSeq = 0;  // entries written
  U64 m_stampSeq = 0;
  U64 m_traceReadPos = 0;  // entries already read since the last halt
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
  std::mutex m_eventMx;  // guards the trace event addresses
  std::set<U32> m_trStart, m_trStop;
};

}  // namespace vorden
