// Breakpoints and data events of the simulated target. The code hook finds
// breakpoints and trace event addresses through a 64 K-entry filter indexed by
// address bits 1..16; the memory hook matches data events.
#include <algorithm>
#include <cstring>

#include "sim/sim_target.h"

namespace vorden {

void CSimTarget::RebuildFilter() {
  std::vector<U32> start, stop;
  m_trace.EventAddresses(start, stop);
  memset(m_filter, 0, sizeof m_filter);
  for (U32 a : m_bpAddrs) m_filter[(a >> 1) & 0xFFFF] |= 1;
  for (U32 a : start) m_filter[(a >> 1) & 0xFFFF] |= 2;
  for (U32 a : stop) m_filter[(a >> 1) & 0xFFFF] |= 4;
}

void CSimTarget::TraceEventsChanged() {
  std::lock_guard<std::mutex> lk(m_bpMx);
  RebuildFilter();
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
  const CSimMemory::Region* r = m_mem.Find(Addr, 2);
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
  if ((int)m_des.size() >= m_maxDataEvents) err |= VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP;
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

}  // namespace vorden
