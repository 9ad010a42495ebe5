// Symbol data of CDeviceDataManager: values of up to 8 bytes at a location
// of one or two pieces (memory, register or constant), read from the caches,
// read from the target, written, and invalidated piece by piece.
#include "device/datamanager.h"

#include "device/coresupport.h"
#include "device/device.h"
#include "log/log.h"

#include <cstring>

namespace {

// A memory piece whose address is known.
bool IsMemPiece(const ELF_LOC_PART& p) { return p.kind == ELF_LOC_ADDR || p.kind == ELF_LOC_ADDR_OFFSET; }
// A register piece naming a real register.
bool IsRegPiece(const ELF_LOC_PART& p) {
  return (p.kind == ELF_LOC_REG || p.kind == ELF_LOC_REG_VALUE) && p.reg != ELF_REG_UNDEFINED && p.reg != ELF_REG_SAME;
}
U32 PieceAddr(const ELF_LOC_PART& p) { return p.address + (p.kind == ELF_LOC_ADDR_OFFSET ? U32(p.offset) : 0u); }
U32 PieceCount(const ELF_SYM_LOC& Loc) { return Loc.count < 2 ? Loc.count : 2; }
// A single piece is as large as the value asked for.
U32 PieceSize(const ELF_SYM_LOC& Loc, U32 i, U32 nBytes) { return Loc.count == 1 ? nBytes : Loc.parts[i].size; }
bool Evaluated(const ELF_SYM_LOC& Loc) { return ELF_IsResolvedLocation(Loc); }
bool IsConstant(const ELF_SYM_LOC& Loc) { return Loc.count == 1 && Loc.parts[0].kind == ELF_LOC_CONST; }

// The probe register of a core register: through the processor support, or
// the same number without one.
int ProbeReg(U32 CoreReg, bool Fallback) {
  const ICoreSupport* cs = DEV_GetCoreSupport();
  if (cs) return cs->GetRegIndex(CoreReg);
  return Fallback ? int(CoreReg) : -1;
}

U64 BytesToValue(const U8* p, U32 n) {
  U64 v = 0;
  memcpy(&v, p, n < 8 ? n : 8);
  return v;
}

void Error(const char* s) { LogError(QString::fromLatin1(s)); }

// Appends a piece's Size bytes at Off of a buffer of Cap bytes; without room
// the error sNoRoom and status unreadable, else Status.
U8 AppendPiece(U8* pOut, U32 Cap, U32& Off, const U8* pPiece, U32 Size, U8 Status, const char* sNoRoom) {
  if (Off + Size > Cap) {
    Error(sNoRoom);
    return CACHE_UNREADABLE;
  }
  memcpy(pOut + Off, pPiece, Size);
  Off += Size;
  return Status;
}

}  // namespace

QByteArray CDeviceDataManager::SymPayload(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone) {
  QByteArray p;
  p.append(char(U8(nBytes)));
  p.append(reinterpret_cast<const char*>(&Loc), sizeof Loc);
  return p + sZone;
}

U8 CDeviceDataManager::ReadSymDataFromCache(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone, U8* pBuf,
                                            U32 BufSize) {
  if (!Loc.count) return CACHE_INVALID;
  U8 Merged = CACHE_VALID;
  U32 Off = 0;
  for (U32 i = 0; i < PieceCount(Loc); ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    const U32 Size = PieceSize(Loc, i, nBytes);
    U8 v[8] = {};
    U8 s;
    if (Size > 8) {
      Error("CDeviceDataManager::_ReadSymDataFromCache: data location pieces of size > 8 bytes are not supported.");
      s = CACHE_UNREADABLE;
    } else if (p.kind == ELF_LOC_CONST) {
      memcpy(v, &p.value, Size);
      s = CACHE_VALID;
    } else if (IsMemPiece(p)) {
      s = ReadValue(Zone(sZone, false), PieceAddr(p), Size, v);
    } else if (!IsRegPiece(p)) {
      Error("CDeviceDataManager::_ReadSymDataFromCache: data location piece could not be evaluated.");
      s = CACHE_UNREADABLE;
    } else {
      U64 r = 0;
      if (m_pTaskRegs && m_pTaskRegs->OtherTaskSelected()) {
        s = m_pTaskRegs->GetRegister(p.reg, r) ? CACHE_VALID : CACHE_UNREADABLE;
      } else {
        const int Idx = ProbeReg(p.reg, false);
        s = Idx < 0 ? U8(CACHE_UNREADABLE) : RegStatus(U32(Idx), &r);
      }
      if (p.kind == ELF_LOC_REG_VALUE) r += U64(I64(p.offset));
      memcpy(v, &r, Size);
    }
    if (s <= CACHE_UNREADABLE && Size <= 8) {
      if (s == CACHE_UNREADABLE) memset(v, 0, sizeof v);
      s = AppendPiece(pBuf, BufSize, Off, v, Size, s,
                      "CDeviceDataManager::_ReadSymDataFromCache: output buffer has not enough space.");
    }
    Merged = i ? MergeStatus(Merged, s) : s;
  }
  return Merged;
}

int CDeviceDataManager::ReadSymDataCached(CDeviceEventListener* pListener, const ELF_SYM_LOC& Loc, U32 nBytes,
                                          const QByteArray& sZone, U8* pOut) {
  if (nBytes > 8) return CACHE_UNREADABLE;
  U8 Buf[8] = {};
  U8 s;
  if (IsConstant(Loc)) {
    memcpy(Buf, &Loc.parts[0].value, nBytes);
    s = CACHE_VALID;
  } else {
    s = ReadSymDataFromCache(Loc, nBytes, sZone, Buf, sizeof Buf);
    if (s == CACHE_UNREADABLE) memset(Buf, 0, sizeof Buf);
  }
  if (s <= CACHE_UNREADABLE) {
    if (pOut) memcpy(pOut, Buf, nBytes);
    if (pListener) pListener->OnDeviceReadLocDone(Loc, nBytes, sZone.constData(), Buf);
  }
  return s;
}

int CDeviceDataManager::ReadSymDataAsync(CDeviceEventListener* pListener, const ELF_SYM_LOC& Loc, U32 nBytes,
                                         const char* sZone) {
  if (nBytes > 8 || !pListener || !Loc.count) return 1;
  const QByteArray Zn = ResolveZone(sZone);
  if (IsConstant(Loc)) return ReadSymDataCached(pListener, Loc, nBytes, Zn, nullptr), 0;
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return 1;
  if (d->HaltReported()) {
    const int s = ReadSymDataCached(pListener, Loc, nBytes, Zn, nullptr);
    if (s <= CACHE_UNREADABLE) return 0;
    if (s == CACHE_PENDING) return AddRequest(3, SymPayload(Loc, nBytes, Zn), pListener), 2;
  } else {
    if (!Evaluated(Loc)) return 1;
    // A running target's registers cannot be read; nothing to do.
    if (ELF_IsRegisterLocation(Loc) || !ELF_IsMemoryLocation(Loc)) return 0;
    if (!d->CanAccessMemory()) return 1;
  }
  InvalidateCache(Loc, nBytes, Zn);
  const bool Added = AddRequest(3, SymPayload(Loc, nBytes, Zn), pListener);
  if (ReadUncachedSymDataAsync(Loc, nBytes, Zn) < 0) {
    if (Added) m_Pending.pop_back();
    return 1;
  }
  return 2;
}

int CDeviceDataManager::ReadUncachedSymDataAsync(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone) {
  std::vector<U32> Regs;
  for (U32 i = 0; i < PieceCount(Loc); ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    const U32 Size = PieceSize(Loc, i, nBytes);
    if (IsMemPiece(p)) {
      if (Size && ReadUncached(PieceAddr(p), Size, 0, AW_ANY, 0, sZone) < 0) return -1;
    } else if (IsRegPiece(p)) {
      const int Idx = ProbeReg(p.reg, false);
      if (Idx >= 0) Regs.push_back(U32(Idx));
    } else if (p.kind != ELF_LOC_CONST) {
      Error("CDeviceDataManager::ReadUncachedSymDataAsync: unsupported data piece encountered");
      return -1;
    }
  }
  if (!Regs.empty() && Regs.size() <= NumCachedRegs() && ScheduleRegReads(U32(Regs.size()), Regs.data()) < 0)
    return -1;
  return 0;
}

int CDeviceDataManager::ReadSymData(const ELF_SYM_LOC& Loc, U32 nBytes, const char* sZone, U8* pOut) {
  if (nBytes > 8 || !pOut) return -1;
  const QByteArray Zn = ResolveZone(sZone);
  CDevice* d = CDevice::InstanceIfCreated();
  if (IsConstant(Loc) || (d && d->IsConnected() && d->HaltReported())) {
    const int s = ReadSymDataCached(nullptr, Loc, nBytes, Zn, pOut);
    if (s <= CACHE_UNREADABLE) return s;
  } else {
    if (!Evaluated(Loc)) return 1;
    if (!ELF_IsRegisterLocation(Loc) && !ELF_IsMemoryLocation(Loc)) return 1;
    InvalidateCache(Loc, nBytes, Zn);
  }
  const U8 s = ReadSymDataFromTarget(Loc, nBytes, Zn, pOut);
  UpdateCache(s, Loc, nBytes, Zn, pOut);
  return s != CACHE_VALID ? 1 : 0;
}

U8 CDeviceDataManager::ReadSymDataFromTarget(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone, U8* pOut) {
  memset(pOut, 0, nBytes);
  CDevice* d = CDevice::InstanceIfCreated();
  U8 Merged = CACHE_UNREADABLE;
  bool Any = false;
  U32 Off = 0;
  for (U32 i = 0; i < PieceCount(Loc); ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    const U32 Size = PieceSize(Loc, i, nBytes);
    if (!Size) continue;
    U8 v[8] = {};
    U8 s = CACHE_UNREADABLE;
    if (Size > 8 || ((p.kind == ELF_LOC_REG || p.kind == ELF_LOC_REG_VALUE) && !IsRegPiece(p))) {
      s = CACHE_UNREADABLE;
    } else if (p.kind == ELF_LOC_CONST) {
      memcpy(v, &p.value, Size);
      s = CACHE_VALID;
    } else if (IsMemPiece(p)) {
      U8 St[8];
      DirectRead(PieceAddr(p), Size, sZone, v, St);
      s = memchr(St, 1, Size) ? CACHE_UNREADABLE : CACHE_VALID;
    } else if (IsRegPiece(p) && d && d->IsConnected()) {
      const int Idx = ProbeReg(p.reg, true);
      U64 r = 0;
      std::lock_guard<std::recursive_mutex> g(d->DeviceMutex());
      if (Idx >= 0 && d->ReadReg(U32(Idx), &r) == 0) {
        if (p.kind == ELF_LOC_REG_VALUE) r += U64(I64(p.offset));
        memcpy(v, &r, Size);
        s = CACHE_VALID;
      }
    }
    if (s != CACHE_VALID) memset(v, 0, sizeof v);
    s = AppendPiece(pOut, nBytes, Off, v, Size, s,
                    "CDeviceDataManager::_ReadSymDataFromTarget: not all data bytes were read successfully.");
    Merged = Any ? MergeStatus(Merged, s) : s;
    Any = true;
  }
  return Merged;
}

void CDeviceDataManager::UpdateCache(U8 Status, const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone,
                                     const U8* pData) {
  if (!Evaluated(Loc)) {
    Error("CDeviceDataManager::_UpdateCache: not all data location parts have been evaluated");
    return;
  }
  U32 Off = 0;
  for (U32 i = 0; i < PieceCount(Loc); ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    const U32 Size = PieceSize(Loc, i, nBytes);
    if (Off + Size > nBytes) {
      Error("CDeviceDataManager::UpdateCache: input data buffer is too small");
      return;
    }
    if (IsMemPiece(p) && Size) {
      ZONE_CACHE* z = Zone(sZone, true);
      if (Status == CACHE_VALID) StoreRead(z, PieceAddr(p), Size, pData + Off, nullptr);
      else SetRangeStatus(z, PieceAddr(p), Size, CACHE_UNREADABLE);
    } else if (IsRegPiece(p)) {
      const int Idx = ProbeReg(p.reg, false);
      // Only a whole register is worth keeping: a narrower value would cut it.
      U64 v = BytesToValue(pData + Off, Size);
      if (p.kind == ELF_LOC_REG_VALUE) v -= U64(I64(p.offset));
      if (Idx >= 0 && Status != CACHE_VALID) StoreReg(U32(Idx), 0, CACHE_UNREADABLE);
      else if (Idx >= 0 && Size >= 4) StoreReg(U32(Idx), v, CACHE_VALID);
    }
    Off += Size;
  }
}

void CDeviceDataManager::InvalidateCache(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone) {
  if (!Evaluated(Loc)) {
    Error("CDeviceDataManager::_InvalidateCache: not all data location parts have been evaluated");
    return;
  }
  for (U32 i = 0; i < PieceCount(Loc); ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    if (IsMemPiece(p)) SetRangeStatus(Zone(sZone, false), PieceAddr(p), PieceSize(Loc, i, nBytes), CACHE_INVALID);
    else if (IsRegPiece(p) && ProbeReg(p.reg, false) >= 0) SetRegStatus(U32(ProbeReg(p.reg, false)), CACHE_INVALID);
  }
}

int CDeviceDataManager::WriteSymDataAsync(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* pData, const char* sZone) {
  if (nBytes > 8) return -1;
  if (!Evaluated(Loc)) {
    Error("CDeviceDataManager::WriteSymDataAsync: not all data location parts have been evaluated");
    return -1;
  }
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected() || !pData) return -1;
  (void)sZone;  // the write jobs take the default access path
  U32 Off = 0;
  for (U32 i = 0; i < PieceCount(Loc); ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    const U32 Size = PieceSize(Loc, i, nBytes);
    if (Off + Size > nBytes) {
      Error("CDeviceDataManager::WriteSymDataAsync: input buffer has insufficient byte size");
      return -1;
    }
    if (IsMemPiece(p)) {
      if (Size && d->PostWriteMem(PieceAddr(p), Size, 0, I8(-1), 0, pData + Off) < 0) return -1;
    } else if (IsRegPiece(p)) {
      const int Idx = ProbeReg(p.reg, true);
      U64 v = BytesToValue(pData + Off, Size);
      if (p.kind == ELF_LOC_REG_VALUE) v -= U64(I64(p.offset));
      if (Idx < 0 || d->PostWriteReg(U32(Idx), v) < 0) return -1;
    } else {
      return -1;
    }
    Off += Size;
  }
  return Off == nBytes ? 0 : -1;
}
