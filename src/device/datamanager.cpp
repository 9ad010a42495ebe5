// The memory, register and coprocessor register caches of
// CDeviceDataManager, the pending requests and their completion. Symbol data
// is in datamanager_sym.cpp.
#include "device/datamanager.h"

#include "device/coresupport.h"
#include "device/device.h"
#include "device/events.h"
#include "log/log.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <QElapsedTimer>
#include <QThread>
#include <algorithm>
#include <cstring>

namespace {

constexpr U32 kPageSize = 0x10000;
constexpr U32 kNumPages = 0x10000;
constexpr U64 k4GiB = 0x100000000ull;

CDeviceDataManager* s_pInstance = nullptr;

bool IsValueSize(U32 n) { return n == 2 || n == 4 || n == 8; }

// Calls Fn(Page, Off, n, Done) for each piece of [Addr, Addr + nBytes) that
// lies in one 64 KiB page, up to 4 GiB; Done counts the bytes before the
// piece. Returns the bytes walked.
template <class F>
U32 ForEachPagePiece(U32 Addr, U32 nBytes, F Fn) {
  U64 Pos = Addr;
  const U64 End = std::min<U64>(U64(Addr) + nBytes, k4GiB);
  U32 Done = 0;
  while (Pos < End) {
    const U32 Off = U32(Pos & 0xFFFF);
    const U32 n = U32(std::min<U64>(End - Pos, kPageSize - Off));
    Fn(U32(Pos >> 16), Off, n, Done);
    Pos += n;
    Done += n;
  }
  return Done;
}

CDevice* ConnectedDevice() {
  CDevice* d = CDevice::InstanceIfCreated();
  return d && d->IsConnected() ? d : nullptr;
}

bool HaltedTarget() {
  CDevice* d = ConnectedDevice();
  return d && d->IsStandingForReaders();
}

const char* ZoneArg(const QByteArray& sZone) { return sZone.isEmpty() ? nullptr : sZone.constData(); }

template <class T>
void Put(QByteArray& b, T v) {
  b.append(reinterpret_cast<const char*>(&v), sizeof v);
}
template <class T>
T Get(const QByteArray& b, qsizetype Off) {
  T v{};
  if (Off + qsizetype(sizeof v) <= b.size()) memcpy(&v, b.constData() + Off, sizeof v);
  return v;
}

QByteArray MemPayload(U32 Addr, U32 nBytes, const QByteArray& sZone) {
  QByteArray p;
  Put(p, Addr);
  Put(p, nBytes);
  return p + sZone;
}

QByteArray RegPayload(U32 Cnt, const U32* paIdx) {
  QByteArray p;
  Put(p, U8(Cnt));
  for (U32 i = 0; i < Cnt; ++i) Put(p, paIdx[i]);
  return p;
}

}  // namespace

struct CDeviceDataManager::ZONE_CACHE {
  char acName[128] = {};
  std::vector<std::unique_ptr<U8[]>> apPages{kNumPages};
  std::vector<U32> Made;  // indexes of the pages made, for clearing

  // Data bytes, then status bytes.
  U8* Page(U32 Idx, bool Create) {
    if (!apPages[Idx] && Create) {
      apPages[Idx].reset(new U8[2 * kPageSize]);
      memset(apPages[Idx].get(), 0, kPageSize);
      memset(apPages[Idx].get() + kPageSize, CACHE_INVALID, kPageSize);
      Made.push_back(Idx);
    }
    return apPages[Idx].get();
  }
  // First byte in [Pos, End) whose status satisfies Pred; End if none.
  template <class P>
  U64 Find(U64 Pos, U64 End, P Pred) {
    while (Pos < End) {
      const U32 PageIdx = U32(Pos >> 16), Off = U32(Pos & 0xFFFF);
      const U32 n = U32(std::min<U64>(End - Pos, kPageSize - Off));
      const U8* p = apPages[PageIdx].get();
      if (!p) {
        if (Pred(U8(CACHE_INVALID))) return Pos;
      } else {
        const U8* s = p + kPageSize + Off;
        for (U32 i = 0; i < n; ++i)
          if (Pred(s[i])) return Pos + i;
      }
      Pos += n;
    }
    return End;
  }
};

// ---------------------------------------------------------------- lifecycle

void CDeviceDataManager::DirectRead(U32 Addr, U32 nBytes, const QByteArray& sZone, U8* pData, U8* pStatus) {
  memset(pData, 0, nBytes);
  memset(pStatus, 1, nBytes);
  CDevice* d = ConnectedDevice();
  if (!d) return;
  std::lock_guard<std::recursive_mutex> g(d->DeviceMutex());
  for (U32 Off = 0; Off < nBytes;) {
    const U32 n = std::min(nBytes - Off, DM_MAX_DIRECT_READ);
    d->ReadMem(Addr + Off, n, 0, AW_ANY, MEM_FLAG_ITEM_RETRY, ZoneArg(sZone), pData + Off, pStatus + Off);
    Off += n;
  }
  for (U32 i = 0; i < nBytes; ++i) pStatus[i] = pStatus[i] ? 1 : 0;
}

CDeviceDataManager& CDeviceDataManager::Instance() {
  if (!s_pInstance) s_pInstance = new CDeviceDataManager;  // lives to the end of the process
  return *s_pInstance;
}

CDeviceDataManager* CDeviceDataManager::InstanceIfCreated() { return s_pInstance; }

CDeviceDataManager::CDeviceDataManager() { DEV_SetReadReportSink(this); }

CDeviceDataManager::~CDeviceDataManager() {
  DEV_SetReadReportSink(nullptr);
  if (s_pInstance == this) s_pInstance = nullptr;
}

U8 CDeviceDataManager::MergeStatus(U8 a, U8 b) {
  if (a == b) return a;
  if (a == 3 || b == 3) return 3;
  if (a == 2 || b == 2) return 2;
  if (a == 1 || b == 1) return 1;
  return 0;
}

U32 CDeviceDataManager::NameHash(const char* sName) {
  if (!sName) return 0;
  U32 h = 5381;
  for (const U8* p = reinterpret_cast<const U8*>(sName); *p; ++p) h = h * 33 + *p;
  return h;
}

QByteArray CDeviceDataManager::ResolveZone(const char* sZone) {
  if (sZone && *sZone) return QByteArray(sZone);
  CDevice* d = ConnectedDevice();
  if (d && !d->HaltReported()) {
    const QByteArray s = SysVars::GetString(VAR_MEM_ZONE_RUNNING).toUtf8();
    if (!s.isEmpty() && s != "Default") return s;
  }
  return QByteArray();
}

// ---------------------------------------------------------------- memory cache

CDeviceDataManager::ZONE_CACHE* CDeviceDataManager::Zone(const QByteArray& sZone, bool Create) {
  const QByteArrayView sName = QByteArrayView(sZone).first(std::min<qsizetype>(sZone.size(), 126));
  for (auto& z : m_Zones)
    if (sName == QByteArrayView(z->acName)) return z.get();
  if (!Create || int(m_Zones.size()) >= DM_MAX_ZONES) return nullptr;
  auto z = std::make_unique<ZONE_CACHE>();
  if (!sName.isEmpty()) memcpy(z->acName, sName.data(), size_t(sName.size()));
  m_Zones.push_back(std::move(z));
  return m_Zones.back().get();
}

U8 CDeviceDataManager::RangeStatus(ZONE_CACHE* z, U32 Addr, U32 nBytes, U8* pData, U8* pStatus) {
  if (!nBytes) return CACHE_VALID;
  U8 Merged = 0xFF;
  const U32 Out = ForEachPagePiece(Addr, nBytes, [&](U32 Page, U32 Off, U32 n, U32 Done) {
    const U8* p = z ? z->Page(Page, false) : nullptr;
    if (!p) {
      if (pData) memset(pData + Done, 0, n);
      if (pStatus) memset(pStatus + Done, CACHE_INVALID, n);
      Merged = Merged == 0xFF ? U8(CACHE_INVALID) : MergeStatus(Merged, CACHE_INVALID);
      return;
    }
    if (pData) memcpy(pData + Done, p + Off, n);
    if (pStatus) memcpy(pStatus + Done, p + kPageSize + Off, n);
    // Over the values 0..3 merging is taking the largest.
    const U8* s = p + kPageSize + Off;
    U8 Max = 0;
    for (U32 i = 0; i < n; ++i) Max = s[i] > Max ? s[i] : Max;
    Merged = Merged == 0xFF ? Max : MergeStatus(Merged, Max);
  });
  if (Out < nBytes) {  // past 4 GiB: nothing there
    if (pData) memset(pData + Out, 0, nBytes - Out);
    if (pStatus) memset(pStatus + Out, CACHE_UNREADABLE, nBytes - Out);
    Merged = MergeStatus(Merged == 0xFF ? U8(CACHE_UNREADABLE) : Merged, CACHE_UNREADABLE);
  }
  return Merged;
}

void CDeviceDataManager::SetRangeStatus(ZONE_CACHE* z, U32 Addr, U32 nBytes, U8 Status) {
  if (!z) return;
  ForEachPagePiece(Addr, nBytes, [&](U32 Page, U32 Off, U32 n, U32) {
    // Making a range invalid needs no page where none is.
    if (U8* p = z->Page(Page, Status != CACHE_INVALID)) memset(p + kPageSize + Off, Status, n);
  });
}

void CDeviceDataManager::StoreRange(ZONE_CACHE* z, U32 Addr, U32 nBytes, const U8* pData, const U8* pStatus) {
  if (!z) return;
  ForEachPagePiece(Addr, nBytes, [&](U32 Page, U32 Off, U32 n, U32 In) {
    U8* p = z->Page(Page, true);
    for (U32 i = 0; i < n; ++i) {
      const bool Good = !pStatus || pStatus[In + i] == 0;
      p[Off + i] = Good ? pData[In + i] : 0;
      p[kPageSize + Off + i] = Good ? CACHE_VALID : CACHE_UNREADABLE;
    }
  });
}

// A read's answer into the cache: 2, 4 and 8 bytes are a value (swapped on
// a big-endian target), anything else is stored as it comes.
void CDeviceDataManager::StoreRead(ZONE_CACHE* z, U32 Addr, U32 nBytes, const U8* pData, const U8* pStatus) {
  if (m_bBigEndian && IsValueSize(nBytes)) {
    U8 Swapped[8], St[8];
    for (U32 i = 0; i < nBytes; ++i) Swapped[i] = pData[nBytes - 1 - i], St[i] = pStatus ? pStatus[nBytes - 1 - i] : 0;
    StoreRange(z, Addr, nBytes, Swapped, St);
  } else {
    StoreRange(z, Addr, nBytes, pData, pStatus);
  }
}

U8 CDeviceDataManager::ReadValue(ZONE_CACHE* z, U32 Addr, U32 nBytes, U8* pOut) {
  const U8 s = RangeStatus(z, Addr, nBytes, pOut, nullptr);
  if (m_bBigEndian && IsValueSize(nBytes)) std::reverse(pOut, pOut + nBytes);
  return s;
}

U8 CDeviceDataManager::MemStatus(U32 Addr, U32 nBytes, const char* sZone, U8* pData) {
  return RangeStatus(Zone(ResolveZone(sZone), false), Addr, nBytes, pData, nullptr);
}

int CDeviceDataManager::ReadUncached(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, const QByteArray& sZone) {
  CDevice* d = ConnectedDevice();
  ZONE_CACHE* z = Zone(sZone, true);
  if (!d || !z || !nBytes || U64(Addr) + nBytes > k4GiB) return -1;
  Flags &= ~DM_FLAG_BYPASS_CACHE;
  const U64 End = U64(Addr) + nBytes;
  auto Schedule = [&](U64 Start, U64 Len) {
    SetRangeStatus(z, U32(Start), U32(Len), CACHE_PENDING);
    if (d->PostReadMem(U32(Start), U32(Len), ChunkSize, AW, Flags, ZoneArg(sZone)) == 0) return m_BytesScheduled += Len, true;
    SetRangeStatus(z, U32(Start), U32(Len), CACHE_INVALID);
    return false;
  };
  int Jobs = 0;
  U64 Pos = Addr;
  for (int Round = 0; Round < 5; ++Round) {
    U64 Start = z->Find(Pos, End, [](U8 s) { return s == CACHE_INVALID; });
    if (Start >= End) return Jobs;
    // The hole ends where something is known or under way.
    U64 HoleEnd = z->Find(Start + 1, End, [](U8 s) { return s != CACHE_INVALID; });
    U64 Len = HoleEnd - Start;
    if (IsValueSize(U32(Len)) && Start % Len) {
      Start -= Start % Len;
      Len = HoleEnd - Start;
      if ((Len & 1) && HoleEnd < k4GiB) ++HoleEnd, ++Len;
    }
    if (!Schedule(Start, Len)) return -1;
    ++Jobs;
    Pos = HoleEnd;
    if (Pos >= End) return Jobs;
  }
  if (z->Find(Pos, End, [](U8 s) { return s == CACHE_INVALID; }) >= End) return Jobs;
  // Too many holes: the whole range in one read.
  return Schedule(Addr, nBytes) ? Jobs + 1 : -1;
}

int CDeviceDataManager::ReadMemAsync(CDeviceEventListener* pListener, U32 Addr, U32 nBytes, const char* sZone,
                                     U32 ChunkSize, I8 AW, U32 Flags) {
  if (!nBytes || !pListener) return 1;
  CDevice* d = ConnectedDevice();
  if (!d || !d->CanAccessMemory()) return 1;
  const QByteArray Zn = ResolveZone(sZone);
  ZONE_CACHE* z = Zone(Zn, true);
  if (!z) return 1;  // a zone beyond the sixteenth has nowhere to keep the answer
  // Small answers (values, watch items) need no allocation.
  U8 aSmall[2][64];
  std::vector<U8> Big[2];
  U8* pData = aSmall[0];
  U8* pSt = aSmall[1];
  if (nBytes > sizeof aSmall[0]) {
    Big[0].resize(nBytes), Big[1].resize(nBytes);
    pData = Big[0].data(), pSt = Big[1].data();
  }
  if (U64(Addr) + nBytes > k4GiB) {
    // A range over the end of the address space is refused: unreadable.
    memset(pData, 0, nBytes);
    memset(pSt, CACHE_UNREADABLE, nBytes);
    pListener->OnDeviceReadMemDone(Addr, nBytes, Zn.constData(), pData, pSt);
    return 0;
  }
  if (d->HaltReported() && !(Flags & DM_FLAG_BYPASS_CACHE)) {
    U8 s = RangeStatus(z, Addr, nBytes, pData, pSt);
    if (m_bBigEndian && IsValueSize(nBytes)) std::reverse(pData, pData + nBytes);
    if (s <= CACHE_UNREADABLE) {
      pListener->OnDeviceReadMemDone(Addr, nBytes, Zn.constData(), pData, pSt);
      return 0;
    }
    if (s == CACHE_PENDING) {
      AddRequest(0, MemPayload(Addr, nBytes, Zn), pListener);
      return 2;
    }
  } else {
    SetRangeStatus(z, Addr, nBytes, CACHE_INVALID);
  }
  const bool Added = AddRequest(0, MemPayload(Addr, nBytes, Zn), pListener);
  if (ReadUncached(Addr, nBytes, ChunkSize, AW, Flags, Zn) < 0) {
    if (Added) m_Pending.pop_back();
    return 1;
  }
  return 2;
}

int CDeviceDataManager::WriteMemAsync(U32 Addr, U32 nBytes, const U8* pData, U32 ChunkSize, I8 AW, U32 Flags,
                                      const char* sZone) {
  CDevice* d = ConnectedDevice();
  if (!d || !pData || !nBytes) return -1;
  // The write jobs take no zone: they reach memory the way the probe's
  // default access does. The report invalidates what was written.
  (void)sZone;
  return d->PostWriteMem(Addr, nBytes, ChunkSize, AW, Flags, pData);
}

int CDeviceDataManager::WriteMemMultipleAsync(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* pData,
                                              U32 ChunkSize, I8 AW, U32 Flags, const char* sZone) {
  CDevice* d = ConnectedDevice();
  if (!d || !pData || !paAddrRanges || !Cnt) return -1;
  (void)sZone;
  return d->PostWriteMemMultiple(Cnt, paAddrRanges, NumBytes, pData, ChunkSize, AW, Flags);
}

int CDeviceDataManager::ReadMemDirect(U32 Addr, U32 nBytes, U8* pOut) {
  static U8 s_aStatus[DM_MAX_DIRECT_READ];
  CDevice* d = ConnectedDevice();
  if (!pOut || nBytes == 0 || nBytes > DM_MAX_DIRECT_READ || U64(Addr) + nBytes > k4GiB || !d ||
      !d->CanAccessMemory())
    return 1;
  DirectRead(Addr, nBytes, QByteArray(), pOut, s_aStatus);
  for (U32 i = 0; i < nBytes; ++i)
    if (s_aStatus[i]) return 1;
  return 0;
}

int CDeviceDataManager::ReadMemSync(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus) {
  CDevice* d = ConnectedDevice();
  if (!d || !d->CanAccessMemory() || !paData || !paStatus || !nBytes || U64(Addr) + nBytes > k4GiB) return -1;
  const QByteArray Zn = ResolveZone(sZone);
  ZONE_CACHE* z = d->HaltReported() ? Zone(Zn, true) : nullptr;
  if (!z) {
    DirectRead(Addr, nBytes, Zn, paData, paStatus);
  } else {
    // Holes (nothing known, or an answer still on its way) are read now, at
    // most five of them, then the rest of the range in one read.
    auto Hole = [](U8 s) { return s >= CACHE_PENDING; };
    std::vector<U8> Buf, St;
    auto ReadNow = [&](U64 Start, U64 End) {
      Buf.resize(size_t(End - Start));
      St.resize(size_t(End - Start));
      DirectRead(U32(Start), U32(End - Start), Zn, Buf.data(), St.data());
      StoreRead(z, U32(Start), U32(End - Start), Buf.data(), St.data());
    };
    const U64 End = U64(Addr) + nBytes;
    U64 Pos = Addr;
    for (int Round = 0; Round <= 5 && Pos < End; ++Round) {
      const U64 Start = z->Find(Pos, End, Hole);
      if (Start >= End) break;
      const U64 HoleEnd = Round == 5 ? End : z->Find(Start + 1, End, [](U8 s) { return s <= CACHE_UNREADABLE; });
      ReadNow(Start, HoleEnd);
      Pos = HoleEnd;
    }
    RangeStatus(z, Addr, nBytes, paData, paStatus);
    if (m_bBigEndian && IsValueSize(nBytes)) std::reverse(paData, paData + nBytes);
  }
  U8 Merged = 0;
  for (U32 i = 0; i < nBytes; ++i) Merged |= paStatus[i] = paStatus[i] ? 1 : 0;
  return Merged;
}

// ---------------------------------------------------------------- registers

void CDeviceDataManager::EnsureRegCache() {
  const U32 Gen = DEV_CoreSupportGeneration();
  if (Gen == m_RegGeneration) return;
  m_RegGeneration = Gen;
  const ICoreSupport* cs = DEV_GetCoreSupport();
  const U32 n = cs ? cs->NumProbeRegs() : 0;
  m_aRegVal.assign(n, 0);
  m_aRegStatus.assign(n, CACHE_INVALID);
}

U32 CDeviceDataManager::NumCachedRegs() {
  EnsureRegCache();
  return U32(m_aRegVal.size());
}

U8 CDeviceDataManager::RegStatus(U32 Idx, U64* pValue) {
  EnsureRegCache();
  if (pValue) *pValue = 0;
  if (Idx >= m_aRegStatus.size()) return CACHE_UNREADABLE;
  if (pValue) *pValue = m_aRegVal[Idx];
  return m_aRegStatus[Idx];
}

void CDeviceDataManager::SetRegStatus(U32 Idx, U8 Status) {
  EnsureRegCache();
  if (Idx < m_aRegStatus.size()) m_aRegStatus[Idx] = Status;
}

void CDeviceDataManager::StoreReg(U32 Idx, U64 Value, U8 Status) {
  EnsureRegCache();
  if (Idx >= m_aRegStatus.size()) return;
  m_aRegVal[Idx] = Status == CACHE_VALID ? Value : 0;
  m_aRegStatus[Idx] = Status;
}

// Marks the named registers that nobody has asked for pending and reads them.
int CDeviceDataManager::ScheduleRegReads(U32 Cnt, const U32* paIdx) {
  CDevice* d = ConnectedDevice();
  if (!d) return -1;
  std::vector<U32> Wanted;
  for (U32 i = 0; i < Cnt; ++i)
    if (RegStatus(paIdx[i]) == CACHE_INVALID && std::find(Wanted.begin(), Wanted.end(), paIdx[i]) == Wanted.end())
      Wanted.push_back(paIdx[i]);
  if (Wanted.empty()) return 0;
  for (U32 i : Wanted) SetRegStatus(i, CACHE_PENDING);
  if (d->PostReadRegs(U32(Wanted.size()), Wanted.data()) == 0) return 1;
  for (U32 i : Wanted) SetRegStatus(i, CACHE_INVALID);
  return -1;
}

int CDeviceDataManager::ReadRegsAsync(CDeviceEventListener* pListener, U32 Cnt) {
  if (!pListener || Cnt == 0 || Cnt > DM_MAX_SHARED_REG_IDXS || !HaltedTarget()) return 1;
  std::vector<U32> Idx(m_aSharedRegIdxs, m_aSharedRegIdxs + Cnt);
  std::vector<U64> Val(Cnt);
  std::vector<U8> St(Cnt);
  U8 s = 0;
  for (U32 i = 0; i < Cnt; ++i) {
    St[i] = RegStatus(Idx[i], &Val[i]);
    s = i ? MergeStatus(s, St[i]) : St[i];
  }
  if (s <= CACHE_UNREADABLE) {
    if (Cnt == 1) pListener->OnDeviceReadRegDone(Idx[0], Val[0]);
    else pListener->OnDeviceReadRegsDone(Cnt, Idx.data(), Val.data(), St.data());
    return s;
  }
  const bool Added = AddRequest(1, RegPayload(Cnt, Idx.data()), pListener);
  if (s == CACHE_INVALID && Cnt <= NumCachedRegs() && ScheduleRegReads(Cnt, Idx.data()) < 0) {
    if (Added) m_Pending.pop_back();
    return 1;
  }
  return 2;
}

int CDeviceDataManager::WaitSettled(U32 RegIdx) {
  QElapsedTimer t;
  t.start();
  for (;;) {
    const U8 s = RegStatus(RegIdx);
    if (s <= CACHE_UNREADABLE) return s;
    if (t.elapsed() >= DM_REG_WAIT_MS || !HaltedTarget()) break;
    if (DeliverDeviceEvents(10) == 0) QThread::yieldCurrentThread();
  }
  LogError(QStringLiteral("Timeout while waiting for register data arrival. VordenRegIdx = %1").arg(RegIdx));
  return CACHE_UNREADABLE;
}

int CDeviceDataManager::ReadRegSync(CDeviceEventListener* pListener, U32 RegIdx, U64* pValue) {
  U64 Dummy;
  if (!pValue) pValue = &Dummy;
  *pValue = 0;
  if (!HaltedTarget()) return 1;
  U8 s = RegStatus(RegIdx, pValue);
  if (s <= CACHE_UNREADABLE) return s;
  if (s == CACHE_INVALID) {
    if (pListener) AddRequest(1, RegPayload(1, &RegIdx), pListener);
    SetRegStatus(RegIdx, CACHE_PENDING);
    if (ConnectedDevice()->PostReadReg(RegIdx) < 0) {
      SetRegStatus(RegIdx, CACHE_INVALID);
      return 1;
    }
  }
  s = U8(WaitSettled(RegIdx));
  if (s == CACHE_UNREADABLE && RegStatus(RegIdx) >= CACHE_PENDING) return 1;
  RegStatus(RegIdx, pValue);
  return s;
}

int CDeviceDataManager::ReadRegNow(U32 RegIdx, U64* pValue) {
  *pValue = 0;
  if (!HaltedTarget()) return 1;
  const U8 s = RegStatus(RegIdx, pValue);
  if (s <= CACHE_UNREADABLE) return s;
  if (RegIdx >= m_aRegStatus.size()) return 1;
  CDevice* d = ConnectedDevice();
  int r;
  {
    std::lock_guard<std::recursive_mutex> g(d->DeviceMutex());
    r = d->ReadReg(RegIdx, pValue);
  }
  // A read of the same register already under way will store the same value.
  StoreReg(RegIdx, *pValue, r == 0 ? CACHE_VALID : CACHE_UNREADABLE);
  if (r != 0) *pValue = 0;
  return r == 0 ? 0 : 1;
}

int CDeviceDataManager::WriteRegAsync(U32 RegIdx, U64 Value) {
  CDevice* d = ConnectedDevice();
  return d ? d->PostWriteReg(RegIdx, Value) : -1;
}

int CDeviceDataManager::CPFind(U32 Hash) const {
  for (int i = 0; i < m_CPFilled; ++i)
    if (m_aCP[i].Hash == Hash) return i;
  return -1;
}

void CDeviceDataManager::CPStore(U32 Hash, U64 Value, U8 Status) {
  int i = CPFind(Hash);
  if (i < 0) {
    i = m_CPNext;
    m_CPNext = (m_CPNext + 1) % DM_CP_RING_SIZE;
    m_CPFilled = std::min(m_CPFilled + 1, DM_CP_RING_SIZE);
  }
  m_aCP[i] = {Status == CACHE_VALID ? Value : 0, Hash, Status};
}

U8 CDeviceDataManager::CPRegStatus(const char* sReg, U64* pValue) const {
  const int i = CPFind(NameHash(sReg));
  if (pValue) *pValue = i < 0 ? 0 : m_aCP[i].Value;
  return i < 0 ? U8(CACHE_INVALID) : m_aCP[i].Status;
}

int CDeviceDataManager::ReadCPRegAsync(CDeviceEventListener* pListener, const char* sReg) {
  if (!pListener || !sReg || !*sReg || !HaltedTarget()) return 1;
  U64 v = 0;
  const U8 s = CPRegStatus(sReg, &v);
  if (s == CACHE_VALID) pListener->OnDeviceReadCPRegDone(sReg, v);
  if (s == CACHE_UNREADABLE) pListener->OnDeviceReadCPRegFailed(sReg);
  if (s <= CACHE_UNREADABLE) return s;
  const bool Added = AddRequest(2, QByteArray(sReg), pListener);
  if (s == CACHE_INVALID) {
    DEVICE_JOB j{};
    j.Type = JT_READ_CP_REG;
    CPStore(NameHash(sReg), 0, CACHE_PENDING);
    if (SetJobParam(&j, 0, U32(strlen(sReg)), sReg) < 0 || ConnectedDevice()->ScheduleJob(&j) < 0) {
      CPStore(NameHash(sReg), 0, CACHE_INVALID);
      if (Added) m_Pending.pop_back();
      return 1;
    }
  }
  return 2;
}

// ---------------------------------------------------------------- requests

bool CDeviceDataManager::AddRequest(U32 Kind, const QByteArray& Payload, CDeviceEventListener* pListener) {
  auto Same = [&](const REQUEST& r) { return r.pListener == pListener && r.Kind == Kind && r.Payload == Payload; };
  if (std::any_of(m_Pending.begin(), m_Pending.end(), Same)) return false;
  for (const std::vector<REQUEST>* w : m_Walks)
    if (std::any_of(w->begin(), w->end(), Same)) return false;
  m_Pending.push_back({Kind, Payload, pListener});
  return true;
}

bool CDeviceDataManager::TryServe(const REQUEST& r) {
  switch (r.Kind) {
    case 0: {
      const U32 Addr = Get<U32>(r.Payload, 0), n = Get<U32>(r.Payload, 4);
      const QByteArray Zn = r.Payload.mid(8);
      std::vector<U8> Data(n), St(n);
      const U8 s = RangeStatus(Zone(Zn, false), Addr, n, Data.data(), St.data());
      if (s > CACHE_UNREADABLE) return false;
      if (m_bBigEndian && IsValueSize(n)) std::reverse(Data.begin(), Data.end());
      r.pListener->OnDeviceReadMemDone(Addr, n, Zn.constData(), Data.data(), St.data());
      return true;
    }
    case 1: {
      const U32 Cnt = Get<U8>(r.Payload, 0);
      std::vector<U32> Idx(Cnt);
      std::vector<U64> Val(Cnt);
      std::vector<U8> St(Cnt);
      U8 s = 0;
      for (U32 i = 0; i < Cnt; ++i) {
        Idx[i] = Get<U32>(r.Payload, 1 + 4 * i);
        St[i] = RegStatus(Idx[i], &Val[i]);
        s = i ? MergeStatus(s, St[i]) : St[i];
      }
      if (s > CACHE_UNREADABLE || !Cnt) return !Cnt;
      if (Cnt == 1) r.pListener->OnDeviceReadRegDone(Idx[0], Val[0]);
      else r.pListener->OnDeviceReadRegsDone(Cnt, Idx.data(), Val.data(), St.data());
      return true;
    }
    case 2: {
      U64 v = 0;
      const U8 s = CPRegStatus(r.Payload.constData(), &v);
      if (s == CACHE_VALID) r.pListener->OnDeviceReadCPRegDone(r.Payload.constData(), v);
      else if (s == CACHE_UNREADABLE) r.pListener->OnDeviceReadCPRegFailed(r.Payload.constData());
      return s <= CACHE_UNREADABLE;
    }
    case 3: {
      const U32 n = Get<U8>(r.Payload, 0);
      const ELF_SYM_LOC Loc = Get<ELF_SYM_LOC>(r.Payload, 1);
      const QByteArray Zn = r.Payload.mid(1 + qsizetype(sizeof(ELF_SYM_LOC)));
      U8 Buf[8] = {};
      const U8 s = ReadSymDataFromCache(Loc, n, Zn, Buf, sizeof Buf);
      if (s > CACHE_UNREADABLE) return false;
      if (s == CACHE_UNREADABLE) memset(Buf, 0, sizeof Buf);
      r.pListener->OnDeviceReadLocDone(Loc, n, Zn.constData(), Buf);
      return true;
    }
    default: return true;
  }
}

void CDeviceDataManager::Serve(U32 Kind) {
  // Callbacks may add requests (they land in m_Pending, after the ones kept)
  // or cancel them (CancelRequests also reaches the list being walked).
  std::vector<REQUEST> Walk;
  Walk.swap(m_Pending);
  m_Walks.push_back(&Walk);
  for (size_t i = 0; i < Walk.size(); ++i) {
    if (Walk[i].pListener == this) Walk[i].pListener = nullptr;
    if (!Walk[i].pListener || Walk[i].Kind != Kind) continue;
    const REQUEST r = Walk[i];
    if (TryServe(r) && i < Walk.size()) Walk[i].pListener = nullptr;
  }
  m_Walks.pop_back();
  std::vector<REQUEST> Kept;
  for (REQUEST& r : Walk)
    if (r.pListener) Kept.push_back(std::move(r));
  for (REQUEST& r : m_Pending) Kept.push_back(std::move(r));
  m_Pending.swap(Kept);
}

void CDeviceDataManager::DropPending() {
  m_Pending.clear();
  for (std::vector<REQUEST>* w : m_Walks)
    for (REQUEST& r : *w) r.pListener = nullptr;
}

void CDeviceDataManager::InvalidateRequest(const REQUEST& r) {
  switch (r.Kind) {
    case 0: SetRangeStatus(Zone(r.Payload.mid(8), false), Get<U32>(r.Payload, 0), Get<U32>(r.Payload, 4), CACHE_INVALID); break;
    case 1:
      for (U32 i = 0, n = Get<U8>(r.Payload, 0); i < n; ++i) SetRegStatus(Get<U32>(r.Payload, 1 + 4 * i), CACHE_INVALID);
      break;
    case 2: CPStore(NameHash(r.Payload.constData()), 0, CACHE_INVALID); break;
    case 3:
      InvalidateCache(Get<ELF_SYM_LOC>(r.Payload, 1), Get<U8>(r.Payload, 0),
                      r.Payload.mid(1 + qsizetype(sizeof(ELF_SYM_LOC))));
      break;
    default: break;
  }
}

void CDeviceDataManager::CancelRequests(CDeviceEventListener* pListener) {
  if (!pListener) return;
  auto Drop = [&](std::vector<REQUEST>& List, bool Erase) {
    for (REQUEST& r : List)
      if (r.pListener == pListener) {
        InvalidateRequest(r);
        r.pListener = nullptr;
      }
    if (Erase)
      List.erase(std::remove_if(List.begin(), List.end(), [](const REQUEST& r) { return !r.pListener; }), List.end());
  };
  Drop(m_Pending, true);
  for (std::vector<REQUEST>* w : m_Walks) Drop(*w, false);
}

void CDeviceDataManager::CancelMemReads() {
  std::vector<REQUEST> Kept;
  for (REQUEST& r : m_Pending) {
    if (r.Kind == 0 && r.pListener != this) InvalidateRequest(r);
    else Kept.push_back(std::move(r));
  }
  m_Pending.swap(Kept);
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d) return;
  d->CancelJobs(JT_READ_MEM, QUEUE_SEL_CLASS_OF_TYPE);
  // Symbol data still awaited lost its reads with the others: ask again.
  for (const REQUEST& r : std::vector<REQUEST>(m_Pending))
    if (r.Kind == 3) {
      const ELF_SYM_LOC Loc = Get<ELF_SYM_LOC>(r.Payload, 1);
      const QByteArray Zn = r.Payload.mid(1 + qsizetype(sizeof(ELF_SYM_LOC)));
      InvalidateCache(Loc, Get<U8>(r.Payload, 0), Zn);
      ReadUncachedSymDataAsync(Loc, Get<U8>(r.Payload, 0), Zn);
    }
}

// ---------------------------------------------------------------- reports

void CDeviceDataManager::ClearCaches() {
  for (auto& z : m_Zones)
    for (U32 i : z->Made) {
      U8* p = z->apPages[i].get();
      memset(p, 0, kPageSize);
      memset(p + kPageSize, CACHE_INVALID, kPageSize);
    }
  EnsureRegCache();
  std::fill(m_aRegVal.begin(), m_aRegVal.end(), 0);
  std::fill(m_aRegStatus.begin(), m_aRegStatus.end(), U8(CACHE_INVALID));
  m_CPFilled = m_CPNext = 0;
  if (CDevice* d = CDevice::InstanceIfCreated()) m_bBigEndian = d->Info().DataEndian != 0;
}

void CDeviceDataManager::OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus) {
  if (!ConnectedDevice() || !paData || !paStatus) return;
  ZONE_CACHE* z = Zone(QByteArray(sZone ? sZone : ""), true);
  StoreRead(z, Addr, nBytes, paData, paStatus);
  // What could not be read is named once per run of failed bytes.
  for (U32 i = 0; i < nBytes;) {
    if (!paStatus[i]) {
      ++i;
      continue;
    }
    U32 j = i;
    while (j < nBytes && paStatus[j]) ++j;
    LogError(QString::asprintf("Target memory readout of %u bytes @ 0x%08X failed.", j - i, Addr + i));
    i = j;
  }
  Serve(0);
  Serve(3);
}

void CDeviceDataManager::OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char* sZone) {
  if (!ConnectedDevice()) return;
  LogError(QString::asprintf("Target memory readout of %u bytes @ 0x%08X failed.", nBytes, Addr));
  ZONE_CACHE* z = Zone(QByteArray(sZone ? sZone : ""), true);
  SetRangeStatus(z, Addr, nBytes, CACHE_UNREADABLE);
  Serve(0);
  Serve(3);
}

void CDeviceDataManager::OnDeviceReadRegDone(U32 Idx, U64 Value) {
  if (!HaltedTarget()) return;
  StoreReg(Idx, Value, CACHE_VALID);
  Serve(1);
  Serve(3);
}

void CDeviceDataManager::OnDeviceReadRegFailed(U32 Idx) {
  if (!HaltedTarget()) return;
  StoreReg(Idx, 0, CACHE_UNREADABLE);
  Serve(1);
  Serve(3);
}

void CDeviceDataManager::OnDeviceReadRegsDone(U32 Cnt, U32* paIdxs, U64* paVals, U8* paStatus) {
  if (!HaltedTarget() || !paIdxs || !paVals || !paStatus) return;
  for (U32 i = 0; i < Cnt; ++i) StoreReg(paIdxs[i], paVals[i], paStatus[i] ? CACHE_UNREADABLE : CACHE_VALID);
  Serve(1);
  Serve(3);
}

void CDeviceDataManager::OnDeviceReadRegsFailed(U32 Cnt, U32* paIdxs) {
  if (!HaltedTarget() || !paIdxs) return;
  for (U32 i = 0; i < Cnt; ++i) StoreReg(paIdxs[i], 0, CACHE_UNREADABLE);
  Serve(1);
  Serve(3);
}

void CDeviceDataManager::OnDeviceReadCPRegDone(const char* sReg, U64 Value) {
  if (!HaltedTarget()) return;
  CPStore(NameHash(sReg), Value, CACHE_VALID);
  Serve(2);
}

void CDeviceDataManager::OnDeviceReadCPRegFailed(const char* sReg) {
  if (!HaltedTarget()) return;
  CPStore(NameHash(sReg), 0, CACHE_UNREADABLE);
  Serve(2);
}

void CDeviceDataManager::OnDeviceSetTargetExecStateDone(U64 PC, U64 SP) {
  // The first windows to update find them here.
  const ICoreSupport* cs = DEV_GetCoreSupport();
  const int PcIdx = cs ? cs->GetRegIndex(VORDENARM_REG_PC) : -1, SpIdx = cs ? cs->GetRegIndex(VORDENARM_REG_SP) : -1;
  StoreReg(PcIdx < 0 ? U32(VORDENARM_REG_PC) : U32(PcIdx), PC, CACHE_VALID);
  StoreReg(SpIdx < 0 ? U32(VORDENARM_REG_SP) : U32(SpIdx), SP, CACHE_VALID);
}

void CDeviceDataManager::OnDeviceConnectDone(CONNECT_MODES) { ClearCaches(), DropPending(); }
void CDeviceDataManager::OnDeviceDisconnectDone() { ClearCaches(), DropPending(); }
void CDeviceDataManager::OnDeviceConnectionLost() { ClearCaches(), DropPending(); }
void CDeviceDataManager::OnDeviceHaltDone(U32, HALT_REASONS) { ClearCaches(), DropPending(); }
// A step or a reset is a new halt as far as the target's data goes.
void CDeviceDataManager::OnDeviceStepped(U32) { ClearCaches(), DropPending(); }
void CDeviceDataManager::OnDeviceResetDone(U32, RESET_MODES) { ClearCaches(), DropPending(); }
// Requests stay: a window that waits while the target starts gets the
// answer of the read under way.
void CDeviceDataManager::OnDeviceResumeDone(RESUME_MODES) { ClearCaches(); }

// Writes change what is cached: the written bytes and registers are read again.
void CDeviceDataManager::OnDeviceWriteMemDone(U32 Addr, U32 nBytes, U8*) {
  for (auto& z : m_Zones) SetRangeStatus(z.get(), Addr, nBytes, CACHE_INVALID);
}
void CDeviceDataManager::OnDeviceWriteMemFailed(U32 Addr, U32 nBytes, U8* p) { OnDeviceWriteMemDone(Addr, nBytes, p); }
void CDeviceDataManager::OnDeviceWriteMemMultipleDone(U32 Cnt, U32* paAddrRanges, U8*) {
  for (U32 i = 0; paAddrRanges && i < Cnt; ++i)
    if (paAddrRanges[2 * i + 1] > paAddrRanges[2 * i])
      OnDeviceWriteMemDone(paAddrRanges[2 * i], paAddrRanges[2 * i + 1] - paAddrRanges[2 * i], nullptr);
}
void CDeviceDataManager::OnDeviceWriteRegDone(U32 Idx, U64) { SetRegStatus(Idx, CACHE_INVALID); }
void CDeviceDataManager::OnDeviceWriteRegFailed(U32 Idx) { SetRegStatus(Idx, CACHE_INVALID); }
void CDeviceDataManager::OnDeviceWriteCPRegDone(const char* sReg, U64) {
  if (CPFind(NameHash(sReg)) >= 0) CPStore(NameHash(sReg), 0, CACHE_INVALID);
}
