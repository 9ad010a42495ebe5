// Readers of the breakpoint tables; any thread. The tables are written by
// the worker only (breakpoints.cpp), in job order.
#include "device/device.h"

DEVICE_BP CDevice::GetBreakpoint(U32 Addr) const {
  const int n = m_NumBPs.load();
  for (int i = 0; i < n && i < DEVICE_MAX_BPS; ++i)
    if (m_aBP[i].Occupied && m_aBP[i].Addr == Addr) return m_aBP[i];
  DEVICE_BP Bp{};
  if (Addr == m_HiddenBPAddr.load()) {
    Bp.Addr = Addr;
    Bp.State = BP_STATE_ON_HIDDEN;
    Bp.Type = BP_TYPE_ANY;
    Bp.ImplType = BP_TYPE_HARD;
    Bp.Occupied = 1;
  }
  return Bp;
}

std::vector<WP> CDevice::OccupiedWatchpoints() const {
  std::vector<WP> v;
  for (const WP& w : m_aWP)
    if (w.Occupied) v.push_back(w);
  return v;
}

std::vector<TP> CDevice::OccupiedTracepoints() const {
  std::vector<TP> v;
  for (const TP& t : m_aTP)
    if (t.Occupied) v.push_back(t);
  return v;
}

void CDevice::SetBPHasCondition(U32 Addr, bool On) {
  const int n = m_NumBPs.load();
  for (int i = 0; i < n && i < DEVICE_MAX_BPS; ++i)
    if (m_aBP[i].Occupied && m_aBP[i].Addr == Addr) m_aBP[i].HasCondition = On ? 1 : 0;
}
