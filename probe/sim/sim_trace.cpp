// Instruction trace and execution statistics (see sim_trace.h).
#include "sim/sim_trace.h"

#include <unicorn/unicorn.h>

#include <algorithm>
#include <cstring>

namespace vorden {

CSimTrace::~CSimTrace() {
  if (m_pcLogFile) fclose(m_pcLogFile);
}

void CSimTrace::Stamp() {
  m_stamps[m_stampSeq & (STAMP_SIZE - 1)] = {m_traceSeq, m_core.Cycles()};
  ++m_stampSeq;
  m_lastStampSeq = m_traceSeq;
}

void CSimTrace::AtEvent(U32 Pc, U8 FilterBits) {
  if (!m_traceStarted) return;
  std::lock_guard<std::mutex> lk(m_eventMx);
  if ((FilterBits & 2) && m_trStart.count(Pc)) m_traceRecording = true;
  if ((FilterBits & 4) && m_trStop.count(Pc)) {
    m_traceRecording = false;
    // The stop address itself is still recorded.
    m_trace[m_traceSeq & (m_traceSize - 1)] = Pc;
    ++m_traceSeq;
    if (m_traceSeq - m_lastStampSeq >= 4096) Stamp();
  }
}

void CSimTrace::EventAddresses(std::vector<U32>& Start, std::vector<U32>& Stop) {
  std::lock_guard<std::mutex> lk(m_eventMx);
  Start.assign(m_trStart.begin(), m_trStart.end());
  Stop.assign(m_trStop.begin(), m_trStop.end());
}

void CSimTrace::OnHalt() {
  m_traceReadPos = 0;
  if (m_pcLogOn) WritePCLog();
}

bool CSimTrace::ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) {
  if (sName == "simtracesize") {
    // Ring size in entries (a power of two, 1024 to 16 M), from the next
    // VORDEN_STRACE_Start on.
    U32 v;
    if (!ParseKnobU32(sValue, v) || v < 1024 || v > TRACE_SIZE || (v & (v - 1))) {
      sError = "invalid trace size";
      return true;
    }
    std::lock_guard<std::mutex> lk(m_core.RunMutex());
    if (!m_core.Halted() || m_traceStarted) {
      sError = "trace must be stopped and the target halted";
      return true;
    }
    m_traceSize = v;
    return true;
  }
  if (sName == "simpclog") {
    if (!m_core.Halted()) {
      sError = "target must be halted";
      return true;
    }
    std::lock_guard<std::mutex> lk(m_core.RunMutex());
    m_pcLog.clear();
    if (m_pcLogFile) fclose(m_pcLogFile);
    m_pcLogFile = sValue.empty() ? nullptr : fopen(sValue.c_str(), "wb");
    if (!sValue.empty() && !m_pcLogFile) sError = "cannot open file " + sValue;
    m_pcLogOn = m_pcLogFile != nullptr;
    return true;
  }
  if (sName == "simdumpstats") {
    // Ground truth of the statistics: "address fetch skip" for every non-zero counter.
    FILE* f = fopen(sValue.c_str(), "wb");
    if (!f) {
      sError = "cannot open file " + sValue;
      return true;
    }
    std::lock_guard<std::mutex> lk(m_core.RunMutex());
    for (const StatsRange& r : m_stats)
      for (size_t i = 0; i < r.Fetch.size(); ++i)
        if (r.Fetch[i] || r.Skip[i])
          fprintf(f, "%08X %llu %llu\n", r.Addr + (U32)(2 * i), (unsigned long long)r.Fetch[i],
                  (unsigned long long)r.Skip[i]);
    fprintf(f, "TOTAL %llu %llu\n", (unsigned long long)m_totalFetch, (unsigned long long)m_totalSkip);
    fclose(f);
    return true;
  }
  return false;
}


void CSimTrace::Marker(U32 Marker) {
  if (m_pcLogOn) m_pcLog.push_back(Marker);
  if (!m_traceRecording) return;
  m_trace[m_traceSeq & (m_traceSize - 1)] = Marker;
  ++m_traceSeq;
  // Every marker carries a stamp, so that cycles between stamps are exact.
  m_stamps[m_stampSeq & (STAMP_SIZE - 1)] = {m_traceSeq, m_core.Cycles()};
  ++m_stampSeq;
  m_lastStampSeq = m_traceSeq;
}

void CSimTrace::WritePCLog() {
  if (m_pcLogFile && !m_pcLog.empty()) {
    fwrite(m_pcLog.data(), 4, m_pcLog.size(), m_pcLogFile);
    fflush(m_pcLogFile);
  }
  m_pcLog.clear();
}

void CSimTrace::CountStatsElsewhere(U32 Pc) {
  StatsRange* r = nullptr;
  for (StatsRange& x : m_stats)
    if (Pc - x.Addr < x.Size) r = &x;
  if (!r) {
    m_totalFetch++;
    return;
  }
  m_lastStats = r;
  CountStats(Pc);
}

// An IT instruction decides which of the next up to four instructions run.
// The engine does not report the skipped ones to the code hook, so they are
// counted here, as fetched and skipped, with the flags as IT finds them (an
// instruction inside the block that changes the flags is not followed).
void CSimTrace::CheckIT(U32 Pc) {
  U8* p = m_mem.HostPtr(Pc, 2);
  if (!p) return;
  U16 hw;
  memcpy(&hw, p, 2);
  if ((hw & 0xFF00) != 0xBF00 || (hw & 0xF) == 0) return;
  U32 f = m_core.Reg(UC_ARM_REG_APSR);
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
    U8* q = m_mem.HostPtr(a, 2);
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

int CSimTrace::TraceStart() {
  std::lock_guard<std::mutex> lk(m_core.RunMutex());
  if (!m_core.Halted()) return -1;
  if (!m_trace || m_traceAlloc != m_traceSize) {
    m_trace.reset(new (std::nothrow) U32[m_traceSize]);
    m_traceAlloc = m_traceSize;
    m_stamps.reset(new (std::nothrow) StampRec[STAMP_SIZE]);
    if (!m_trace || !m_stamps) return -1;
  }
  if (m_stats.empty())
    for (const CSimMemory::Region& r : m_mem.Regions())
      if (r.Size <= (16u << 20)) m_stats.push_back({r.Addr, r.Size, r.pHost, std::vector<U64>(r.Size / 2), std::vector<U64>(r.Size / 2)});
  m_traceSeq = m_stampSeq = m_lastStampSeq = m_traceReadPos = 0;
  m_stamps[0] = {0, m_core.Cycles()};
  m_stampSeq = 1;
  for (StatsRange& r : m_stats) {
    std::fill(r.Fetch.begin(), r.Fetch.end(), 0);
    std::fill(r.Skip.begin(), r.Skip.end(), 0);
  }
  m_totalFetch = m_totalSkip = 0;
  m_traceStarted = true;
  {
    std::lock_guard<std::mutex> el(m_eventMx);
    m_traceRecording = m_trStart.empty();
  }
  m_statsOn = true;
  return 0;
}

int CSimTrace::TraceStop() {
  std::lock_guard<std::mutex> lk(m_core.RunMutex());
  if (!m_core.Halted()) {
    // Stop recording at once; the data stays readable.
    m_traceRecording = false;
    m_statsOn = false;
    m_traceStarted = false;
    return 0;
  }
  m_traceRecording = m_statsOn = m_traceStarted = false;
  return 0;
}

int CSimTrace::TraceControl(U32 Cmd, void* pData) {
  std::unique_lock<std::mutex> lk(m_eventMx);
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
  lk.unlock();
  m_core.TraceEventsChanged();
  return 0;
}

int CSimTrace::TraceRead(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps) {
  std::lock_guard<std::mutex> lk(m_core.RunMutex());
  if (!m_trace) return -1;
  if (!m_core.Halted()) return -1;
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
      const StampRec& s = m_stamps[lo & (STAMP_SIZE - 1)];
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

int CSimTrace::GetInstStats(U64* paItem, U32 Addr, U32 NumItems) {
  if (NumItems < 2) return -1;
  U32 n = NumItems / 2 - 1;
  std::lock_guard<std::mutex> lk(m_core.RunMutex());
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

}  // namespace vorden
