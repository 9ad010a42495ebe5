// The worker side of instruction breakpoints, data breakpoints and
// tracepoints: the three fixed tables of CDevice and the probe calls that
// keep the probe in step with them. Everything here runs on the worker, in
// job order; the probe is touched only while connected, so that a session can
// be prepared before connecting.
#include "device/coresupport.h"
#include "device/device.h"
#include "device/events.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr U32 kNoAddr = ~0u;

// Flags of VORDENARM_SetBPEx for a permitted implementation.
U32 TypeMask(BP_TYPES Type) {
  switch (Type) {
    case BP_TYPE_ANY: return 0xFFFFFFF0u;
    case BP_TYPE_HARD: return 0xFFFFFF00u;
    default: return 0x000000F0u;
  }
}

U32 BPFlags(U32 Addr, BP_TYPES Type) {
  const ICoreSupport* p = DEV_GetCoreSupport();
  return (p ? p->GetBPFlags(Addr) : 0u) | TypeMask(Type);
}

// The implementation the probe chose, from the ImpFlags of its record; the
// first bit that matches decides.
BP_TYPES ImplOf(U32 ImpFlags) {
  if (ImpFlags & VORDENARM_BP_IMP_SW_FLASH) return BP_TYPE_FLASH;
  if (ImpFlags & VORDENARM_BP_IMP_SW_RAM) return BP_TYPE_RAM;
  if (ImpFlags & VORDENARM_BP_IMP_HW) return BP_TYPE_HARD;
  if (ImpFlags & VORDENARM_BP_IMP_PENDING) return BP_TYPE_PENDING;
  return BP_TYPE_HARD;
}

// A data breakpoint as the probe's data event record.
VORDENARM_DATA_EVENT ToDataEvent(const WP& w) {
  VORDENARM_DATA_EVENT e{};
  e.SizeOfStruct = sizeof e;
  e.Type = 1;
  e.Addr = w.Addr;
  e.AddrMask = w.AddrMask;
  e.Data = w.MatchValue;
  e.DataMask = U32(w.ValueMask);
  e.Access = w.AccessType == AT_WRITE_ONLY ? 1 : 0;
  if (w.AccessSize == AW_HALF_WORD) e.Access |= 2;
  if (w.AccessSize == AW_WORD) e.Access |= 4;
  e.AccessMask = 0x10;
  if (w.AccessType == AT_READ_WRITE) e.AccessMask |= 1;
  if (w.AccessSize == AW_ANY) e.AccessMask |= 6;
  return e;
}

bool SameWatchpoint(const WP& a, const WP& b) {
  return a.Addr == b.Addr && a.AddrMask == b.AddrMask && a.MatchValue == b.MatchValue &&
         a.ValueMask == b.ValueMask && a.AccessType == b.AccessType && a.AccessSize == b.AccessSize;
}

// The probe's handle of a data breakpoint, or -1. The probe reports the
// address mask widened to the access size, so the widening is applied to
// both sides of the compare.
I64 FindDataEvent(const VORDEN_FUNCS& f, const WP& w) {
  if (!f.VORDENARM_GetWPInfoEx) return -1;
  VORDENARM_WP_INFO Info{};
  Info.SizeOfStruct = sizeof Info;
  const int n = f.VORDENARM_GetWPInfoEx(-1, &Info);
  if (n < 1) return -1;
  const VORDENARM_DATA_EVENT e = ToDataEvent(w);
  const U32 Widen = w.AccessSize == AW_HALF_WORD ? 1u : w.AccessSize == AW_WORD ? 3u : 0u;
  for (int i = 0; i < n && i < 4096; ++i) {
    Info = VORDENARM_WP_INFO{};
    Info.SizeOfStruct = sizeof Info;
    if (f.VORDENARM_GetWPInfoEx(i, &Info) < 0) continue;
    if (Info.Addr == e.Addr && (Info.AddrMask | Widen) == (e.AddrMask | Widen) && Info.Access == e.Access &&
        Info.AccessMask == e.AccessMask && Info.Data == e.Data && Info.DataMask == e.DataMask)
      return Info.Handle;
  }
  return -1;
}

// Steps 3 to 5 of setting one data breakpoint; State and ErrCode of the
// record are updated for the caller.
int ApplyWatchpoint(CDevice& d, WP& w) {
  if (w.State == BP_STATE_OFF) return d.ClearWatchpoint(w);
  if (!d.IsConnected()) return d.WpListInsert(w) < 0 ? -1 : 0;
  const VORDEN_FUNCS& f = d.Probe();
  const I64 Handle = FindDataEvent(f, w);
  if (Handle < 0 && (w.State == BP_STATE_ON || w.State == BP_STATE_ON_HIDDEN)) {
    VORDENARM_DATA_EVENT e = ToDataEvent(w);
    U32 h = 0;
    const int r = f.VORDENARM_SetDataEvent ? f.VORDENARM_SetDataEvent(&e, &h) : int(VORDENARM_EVENT_ERR_UNKNOWN);
    if (r < 0) {
      w.State = BP_STATE_DISABLED;
      w.ErrCode = r;
      DeviceLogError("SetWatchpoint: VORDEN API call failed with error code %d", r);
    } else {
      w.ErrCode = 0;
    }
  } else if (Handle >= 0 && w.State == BP_STATE_DISABLED) {
    const int r = f.VORDENARM_ClrDataEvent(U32(Handle));
    if (r != 0) {
      w.ErrCode = r;
      DeviceLogWarning("SetWatchpoint: VORDEN API call failed");
    } else {
      w.ErrCode = 0;
    }
  }
  if (d.WpListInsert(w) < 0) return -1;
  return w.ErrCode;
}

}  // namespace

// ---------------------------------------------------------------- breakpoints

int CDevice::BpListFind(U32 Addr) const {
  for (int i = 0; i < DEVICE_MAX_BPS && m_aBP[i].Occupied; ++i)
    if (m_aBP[i].Addr == Addr) return i;
  return -1;
}

int CDevice::BpListGetInsertPos() const {
  const int n = m_NumBPs.load();
  return n < DEVICE_MAX_BPS ? n : -1;
}

bool CDevice::BpListOccupied(int Idx) const { return Idx >= 0 && Idx < DEVICE_MAX_BPS && m_aBP[Idx].Occupied; }

int CDevice::BpListInsert(U32 Addr, BP_STATES State, BP_TYPES Type) {
  int Idx = BpListFind(Addr);
  const bool IsNew = Idx < 0;
  if (IsNew) Idx = BpListGetInsertPos();
  if (Idx < 0) return DeviceLogError("breakpoint list full."), -1;
  DEVICE_BP& b = m_aBP[Idx];
  b.Addr = Addr;
  b.State = State;
  b.Type = Type;
  b.ImplType = BP_TYPE_ANY;
  b.Occupied = 1;
  if (IsNew) m_NumBPs.fetch_add(1);
  return Idx;
}

// The table stays without holes: the entries behind move down, keeping
// their hit counts and condition flags.
int CDevice::BpListRemove(int Idx) {
  const int n = m_NumBPs.load();
  if (Idx < 0 || Idx >= n || !m_aBP[Idx].Occupied) return -1;
  memmove(&m_aBP[Idx], &m_aBP[Idx + 1], sizeof(DEVICE_BP) * size_t(n - Idx - 1));
  memset(&m_aBP[n - 1], 0, sizeof(DEVICE_BP));
  m_NumBPs.store(n - 1);
  return 0;
}

int CDevice::SetBreakpoint(U32 Addr, BP_STATES State, BP_TYPES Type) {
  if (State == BP_STATE_OFF) return ClearBreakpoint(Addr);
  if (m_bConnected.load()) {
    const int Handle = m_Probe.VORDENARM_FindBP ? m_Probe.VORDENARM_FindBP(Addr) : 0;
    bool Cleared = false;
    if (Handle != 0) {
      const bool Unchanged = State != BP_STATE_DISABLED && GetBreakpoint(Addr).Type == Type;
      if (!Unchanged) {
        // Taken off the probe only: the table entry keeps its place, hit
        // count and condition flag while it is set again below.
        if (m_Probe.VORDENARM_ClrBPEx(Handle) != 0) {
          DeviceLogError("SetBreakpoint: VORDEN API call failed");
          return -1;
        }
        if (Addr == m_HiddenBPAddr.load()) m_HiddenBPAddr.store(kNoAddr);
        Cleared = true;
      }
    }
    if (Handle == 0 || Cleared) {
      if (State != BP_STATE_ON && State != BP_STATE_ON_HIDDEN) return BpListInsert(Addr, State, Type) < 0 ? -1 : 0;
      const int h = m_Probe.VORDENARM_SetBPEx ? m_Probe.VORDENARM_SetBPEx(Addr, BPFlags(Addr, Type)) : 0;
      if (h == 0) {
        DeviceLogError("SetBreakpoint: VORDEN API call failed");
        if (!Cleared) return -1;
        // The old one is gone from the probe: it stays visible, disabled.
        return BpListInsert(Addr, BP_STATE_DISABLED, Type) < 0 ? -1 : 0;
      }
    }
  }
  if (State == BP_STATE_ON_HIDDEN) {
    m_HiddenBPAddr.store(Addr);
    return 0;
  }
  return BpListInsert(Addr, State, Type) < 0 ? -1 : 0;
}

int CDevice::SetBreakpoints(U32 Cnt, const U32* paAddrs, BP_STATES State, BP_TYPES Type) {
  if (!paAddrs) return -1;
  int n = 0;
  for (U32 i = 0; i < Cnt; ++i)
    if (SetBreakpoint(paAddrs[i], State, Type) >= 0) ++n;
  return n;
}

int CDevice::ClearBreakpoint(U32 Addr) {
  if (m_bConnected.load()) {
    const int Handle = m_Probe.VORDENARM_FindBP ? m_Probe.VORDENARM_FindBP(Addr) : 0;
    if (Handle != 0 && m_Probe.VORDENARM_ClrBPEx(Handle) != 0) {
      DeviceLogWarning("ClearBreakpoint: VORDEN API call failed");
      return -1;
    }
  }
  const int Idx = BpListFind(Addr);
  if (Idx >= 0) BpListRemove(Idx);
  if (Addr == m_HiddenBPAddr.load()) m_HiddenBPAddr.store(kNoAddr);
  return 0;
}

int CDevice::ClearBreakpoints(U32 Cnt, const U32* paAddrs) {
  if (!paAddrs) return -1;
  int n = 0;
  for (U32 i = 0; i < Cnt; ++i)
    if (ClearBreakpoint(paAddrs[i]) == 0) ++n;
  return n;
}

int CDevice::ClearAllBreakpoints() {
  if (m_bConnected.load() && m_Probe.VORDENARM_ClrBPEx(-1) != 0) {
    DeviceLogWarning("ClearAllBreakpoints: VORDEN API call failed");
    return -1;
  }
  memset(m_aBP, 0, sizeof m_aBP);
  m_NumBPs.store(0);
  m_HiddenBPAddr.store(kNoAddr);
  return 0;
}

int CDevice::ClearAllBreakpoints(BP_STATES State) {
  if (State == BP_STATE_ON_HIDDEN) {
    const U32 Addr = m_HiddenBPAddr.load();
    if (Addr == kNoAddr) return 0;
    // A user's breakpoint at the same place is set again as it was; its
    // entry keeps its place in the table.
    const int Idx = BpListFind(Addr);
    const DEVICE_BP User = Idx >= 0 ? m_aBP[Idx] : DEVICE_BP{};
    if (m_bConnected.load()) {
      const int Handle = m_Probe.VORDENARM_FindBP ? m_Probe.VORDENARM_FindBP(Addr) : 0;
      if (Handle != 0 && m_Probe.VORDENARM_ClrBPEx(Handle) != 0) {
        DeviceLogWarning("ClearBreakpoint: VORDEN API call failed");
        return -1;
      }
    }
    m_HiddenBPAddr.store(kNoAddr);
    if (User.Occupied && User.State != BP_STATE_ON_HIDDEN) SetBreakpoint(Addr, User.State, User.Type);
    return 1;
  }
  int n = 0;
  for (int i = m_NumBPs.load() - 1; i >= 0; --i)
    if (m_aBP[i].Occupied && m_aBP[i].State == State && ClearBreakpoint(m_aBP[i].Addr) == 0) ++n;
  return n;
}

int CDevice::ResetBreakpoints() {
  for (DEVICE_BP& b : m_aBP) b.HitCount = 0;
  return 0;
}

void CDevice::UpdateBPImplTypes() {
  const int n = m_NumBPs.load();
  for (int i = 0; i < n; ++i) m_aBP[i].ImplType = BP_TYPE_HARD;
  if (!m_bConnected.load() || !m_Probe.VORDENARM_FindBP || !m_Probe.VORDENARM_GetBPInfoEx) return;
  for (int i = 0; i < n; ++i) {
    const int Handle = m_Probe.VORDENARM_FindBP(m_aBP[i].Addr);
    if (Handle == 0) continue;
    VORDENARM_BP_INFO Info{};
    Info.SizeOfStruct = sizeof Info;
    Info.Handle = U32(Handle);
    if (m_Probe.VORDENARM_GetBPInfoEx(-1, &Info) >= 0) m_aBP[i].ImplType = ImplOf(Info.ImpFlags);
  }
}

// Around a program download the probe holds no breakpoint while the table
// stands unchanged; only the count is remembered between the two halves.
int CDevice::ClearBreakpointsBeforeFlashDL() {
  m_NumBPsBeforeDL = m_NumBPs.load();
  if (!m_bConnected.load()) return 0;
  m_HiddenBPAddr.store(kNoAddr);
  if (m_Probe.VORDENARM_ClrBPEx(-1) != 0) {
    DeviceLogWarning("ClearAllBreakpoints: VORDEN API call failed");
    return -1;
  }
  return 0;
}

int CDevice::RestoreBreakpointsAfterFlashDL() {
  const int n = std::min(m_NumBPsBeforeDL, DEVICE_MAX_BPS);
  m_NumBPsBeforeDL = 0;
  int r = 0;
  for (int i = 0; i < n; ++i) {
    const DEVICE_BP b = m_aBP[i];
    if (!b.Occupied) continue;
    if (SetBreakpoint(b.Addr, b.State, b.Type) < 0) {
      DeviceLogWarning("Failed to restore breakpoint following flash download at address %X", b.Addr);
      r = -1;
    }
  }
  UpdateBPImplTypes();
  return r;
}

// ---------------------------------------------------------------- data breakpoints

int CDevice::WpListFind(const WP& Wp) const {
  for (int i = 0; i < DEVICE_MAX_WPS; ++i)
    if (m_aWP[i].Occupied && SameWatchpoint(m_aWP[i], Wp)) return i;
  return -1;
}

int CDevice::WpListGetInsertPos() const {
  for (int i = 0; i < DEVICE_MAX_WPS; ++i)
    if (!m_aWP[i].Occupied) return i;
  return -1;
}

bool CDevice::WpListOccupied(int Idx) const { return Idx >= 0 && Idx < DEVICE_MAX_WPS && m_aWP[Idx].Occupied; }

int CDevice::WpListInsert(const WP& Wp) {
  int Idx = WpListFind(Wp);
  const bool IsNew = Idx < 0;
  if (IsNew) Idx = WpListGetInsertPos();
  if (Idx < 0) return DeviceLogWarning("data breakpoint list full"), -1;
  m_aWP[Idx] = Wp;
  m_aWP[Idx].Symbol[sizeof Wp.Symbol - 1] = 0;
  m_aWP[Idx].Occupied = 1;
  if (IsNew) m_NumWPs.fetch_add(1);
  return Idx;
}

// Data breakpoints keep their slots: removal leaves a hole.
int CDevice::WpListRemove(int Idx) {
  if (!WpListOccupied(Idx)) return -1;
  memset(static_cast<void*>(&m_aWP[Idx]), 0, sizeof(WP));
  m_NumWPs.fetch_sub(1);
  return 0;
}

int CDevice::SetWatchpoint(WP Wp) { return ApplyWatchpoint(*this, Wp); }

int CDevice::SetWatchpoints(U32 Cnt, WP* paWPs) {
  if (!paWPs) return -1;
  int n = 0;
  for (U32 i = 0; i < Cnt && i < U32(DEVICE_MAX_WPS); ++i)
    if (ApplyWatchpoint(*this, paWPs[i]) == 0) ++n;
  return n;
}

int CDevice::ClearWatchpoint(WP Wp) {
  if (m_bConnected.load()) {
    const I64 Handle = FindDataEvent(m_Probe, Wp);
    if (Handle >= 0 && m_Probe.VORDENARM_ClrDataEvent(U32(Handle)) != 0) {
      DeviceLogWarning("ClearWatchpoint: VORDEN API call failed");
      return -1;
    }
  }
  const int Idx = WpListFind(Wp);
  if (Idx >= 0) WpListRemove(Idx);
  return 0;
}

int CDevice::ClearWatchpoints(U32 Cnt, WP* paWPs) {
  if (!paWPs) return -1;
  int n = 0;
  for (U32 i = 0; i < Cnt && i < U32(DEVICE_MAX_WPS); ++i)
    if (ClearWatchpoint(paWPs[i]) == 0) ++n;
  return n;
}

int CDevice::ClearAllWatchpoints() {
  int r = 0;
  if (m_bConnected.load() && m_Probe.VORDENARM_ClrDataEvent(0xFFFFFFFFu) != 0) {
    DeviceLogWarning("ClearAllWatchpoints: VORDEN API call failed");
    r = -1;
  }
  memset(static_cast<void*>(m_aWP), 0, sizeof m_aWP);
  m_NumWPs.store(0);
  return r;
}

int CDevice::ClearAllWatchpoints(BP_STATES State) {
  int n = 0;
  for (int i = 0; i < DEVICE_MAX_WPS; ++i)
    if (m_aWP[i].Occupied && m_aWP[i].State == State && ClearWatchpoint(m_aWP[i]) == 0) ++n;
  return n;
}

// ---------------------------------------------------------------- tracepoints

int CDevice::TpListFind(U64 Addr) const {
  for (int i = 0; i < DEVICE_MAX_TPS; ++i)
    if (m_aTP[i].Occupied && m_aTP[i].Addr == Addr) return i;
  return -1;
}

int CDevice::TpListGetInsertPos() const {
  for (int i = 0; i < DEVICE_MAX_TPS; ++i)
    if (!m_aTP[i].Occupied) return i;
  return -1;
}

bool CDevice::TpListOccupied(int Idx) const { return Idx >= 0 && Idx < DEVICE_MAX_TPS && m_aTP[Idx].Occupied; }

int CDevice::TpListInsert(const TP& Tp) {
  int Idx = TpListFind(Tp.Addr);
  const bool IsNew = Idx < 0;
  if (IsNew) Idx = TpListGetInsertPos();
  if (Idx < 0) return DeviceLogWarning("data breakpoint list full"), -1;
  m_aTP[Idx] = Tp;
  m_aTP[Idx].Occupied = 1;
  if (IsNew) m_NumTPs.fetch_add(1);
  return Idx;
}

// Entries behind a removed one move down, so that every tracepoint stands
// below the count that the event list is rebuilt from.
int CDevice::TpListRemove(int Idx) {
  const int n = m_NumTPs.load();
  if (Idx < 0 || Idx >= n || !m_aTP[Idx].Occupied) return -1;
  for (int i = Idx; i + 1 < n; ++i) m_aTP[i] = m_aTP[i + 1];
  m_aTP[n - 1] = TP{};
  m_NumTPs.store(n - 1);
  return 0;
}

// The table is the truth: the probe's whole event list is rewritten from it.
int CDevice::UpdateTraceEventsVorden() {
  if (!m_bConnected.load() || !m_Probe.VORDEN_STRACE_Control) return -1;
  if (m_Probe.VORDEN_STRACE_Control(VORDEN_STRACE_CMD_CLR_ALL_TRACE_EVENTS, nullptr) < 0) {
    DeviceLogWarning("UpdateTraceEvents: VORDEN API call failed");
    return -1;
  }
  int r = 0;
  const int n = m_NumTPs.load();
  for (int i = 0; i < n && i < DEVICE_MAX_TPS; ++i) {
    const TP& t = m_aTP[i];
    if (!t.Occupied || t.State != BP_STATE_ON) continue;
    VORDEN_STRACE_EVENT_INFO e{};
    e.SizeOfStruct = sizeof e;
    e.Type = 0;
    e.Op = t.Op == TP_OP_START ? 0 : 1;
    e.Addr = t.Addr;
    if (m_Probe.VORDEN_STRACE_Control(VORDEN_STRACE_CMD_SET_TRACE_EVENT, &e) < 0) r = -1;
  }
  if (r < 0) DeviceLogWarning("UpdateTraceEvents: VORDEN API call failed");
  return r;
}

int CDevice::SetTracepoints(U32 Cnt, TP* paTps) {
  if (!paTps) return -1;
  int n = 0;
  for (U32 i = 0; i < Cnt && i < U32(DEVICE_MAX_TPS); ++i) {
    const TP& t = paTps[i];
    if (t.Addr == ~0ull) continue;  // names no tracepoint
    if (t.State != 0) {
      if (TpListInsert(t) >= 0) ++n;
    } else if (TpListRemove(TpListFind(t.Addr)) == 0) {
      ++n;
    }
    if (m_bConnected.load()) UpdateTraceEventsVorden();
  }
  return n;
}

int CDevice::SetTracepoint(TP Tp) { return SetTracepoints(1, &Tp) == 1 ? 0 : -1; }

int CDevice::ClearTracepoints(U32 Cnt, TP* paTps) {
  if (!paTps) return -1;
  int n = 0;
  for (U32 i = 0; i < Cnt && i < U32(DEVICE_MAX_TPS); ++i) {
    if (TpListRemove(TpListFind(paTps[i].Addr)) == 0) ++n;
    if (m_bConnected.load()) UpdateTraceEventsVorden();
  }
  return n;
}

int CDevice::ClearTracepoint(TP Tp) { return ClearTracepoints(1, &Tp) == 1 ? 0 : -1; }

int CDevice::ClearAllTracepoints() {
  if (m_bConnected.load() &&
      (!m_Probe.VORDEN_STRACE_Control ||
       m_Probe.VORDEN_STRACE_Control(VORDEN_STRACE_CMD_CLR_ALL_TRACE_EVENTS, nullptr) != 0)) {
    DeviceLogWarning("ClearAllTracepoints: VORDEN API call failed");
    return -1;
  }
  for (TP& t : m_aTP) t = TP{};
  m_NumTPs.store(0);
  return 0;
}
