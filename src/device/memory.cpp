// Memory and register access of CDevice: validation, the read and write
// families (one call, then chunks, then items), registers and downloads.
#include "device/coresupport.h"
#include "device/device.h"

#include "device/events.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace {

bool Natural(U32 Addr, U32 n) { return (n == 1 || n == 2 || n == 4 || n == 8) && Addr % n == 0; }
bool HasZone(const char* sZone) { return sZone && *sZone; }

// A range in chunks: each chunk in one call (Chunk(Off, n)), and with
// MEM_FLAG_ITEM_RETRY what a chunk left over item by item (Items(Off, n)).
// With Single the caller has just tried the whole range in one call. Ranges
// above 4000 bytes show progress. Returns the bytes moved.
template <class ChunkFn, class ItemsFn>
int ChunkWise(U32 nBytes, U32 ChunkSize, U32 Flags, const char* sProgressMsg, const std::atomic<bool>& Halted,
              ChunkFn Chunk, ItemsFn Items) {
  const bool Single = ChunkSize == 0 || ChunkSize >= nBytes;
  const U32 Size = Single ? nBytes : ChunkSize;
  const U32 NumChunks = (nBytes + Size - 1) / Size;
  const bool Progress = nBytes > 4000;
  if (Progress) {
    PostDeviceEvent(DEV_EVENT_SET_PROGRESS_MSG, 0, 0, sProgressMsg);
    if (NumChunks > 1) PostDeviceEvent(DEV_EVENT_START_PROGRESS, 0, NumChunks - 1);
  }
  int Sum = 0;
  for (U32 i = 0; i < NumChunks; ++i) {
    const U32 Off = i * Size;
    const U32 n = std::min(Size, nBytes - Off);
    int Got = Single ? 0 : Chunk(Off, n);
    if ((Flags & MEM_FLAG_ITEM_RETRY) && Got < int(n)) Got += Items(Off + U32(Got), n - U32(Got));
    Sum += Got;
    if (Progress && NumChunks > 1) PostDeviceEvent(DEV_EVENT_SET_PROGRESS_VALUE, i);
  }
  if (Progress && Halted.load()) PostDeviceEvent(DEV_EVENT_END_PROGRESS);
  return Sum;
}

}  // namespace

bool CDevice::CanAccessMemory() const {
  if (!m_bConnected.load()) return false;
  if (IsWorkerThread() ? m_bHalted.load() : IsStandingForReaders()) return true;
  const int BMA = Info().aCaps[0];
  return BMA == 1 || (BMA == 2 && SysVars::GetValue(VAR_ALLOW_BMA_EMULATION));
}

int CDevice::ValidateMemoryAccessParams(bool IsRead, U32 Addr, U32 nBytes, const U8* paData, const U8* paStatus) {
  const char* sPrefix = IsRead ? "ReadMem:" : "WriteMem:";
  char acReason[128];
  acReason[0] = 0;
  if (!m_bConnected.load()) snprintf(acReason, sizeof acReason, "not connected to target");
  else if (!paData) snprintf(acReason, sizeof acReason, "invalid data buffer");
  else if (IsRead && !paStatus) snprintf(acReason, sizeof acReason, "invalid status buffer");
  else if (nBytes == 0) snprintf(acReason, sizeof acReason, "byte count is 0");
  else if (U32(Addr + nBytes) == 0xFFFFFFFFu) snprintf(acReason, sizeof acReason, "access outside address range limit");
  else if (Addr == 0xFFFFFFFFu)
    snprintf(acReason, sizeof acReason, "attempting to access %d bytes at invalid address %x", int(nBytes), Addr);
  else if (!CanAccessMemory()) snprintf(acReason, sizeof acReason, "cannot access memory while target is running");
  if (!acReason[0]) return 0;
  DeviceLogWarning("%s %s", sPrefix, acReason);
  return -1;
}

int CDevice::ReadMemSimple(U32 Addr, U32 nBytes, I8 AccessWidth, U32 Flags, const char* sZone, U8* paData,
                           U8* paStatus) {
  if (!paData || !paStatus) return 0;
  if (ValidateMemoryAccessParams(true, Addr, nBytes, paData, paStatus) < 0) return 0;
  memset(paData, 0, nBytes);
  int n = 0;
  if (Natural(Addr, nBytes) && (!HasZone(sZone) || nBytes == 2 || nBytes == 4)) {
    U8 St[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    int r;
    if (HasZone(sZone)) {
      r = nBytes == 2 ? m_Probe.VORDEN_ReadMemZonedU16(Addr, 2, reinterpret_cast<U16*>(paData), St, sZone)
                      : m_Probe.VORDEN_ReadMemZonedU32(Addr, 1, reinterpret_cast<U32*>(paData), St, sZone);
      n = r == int(nBytes) ? int(nBytes) : 0;
    } else {
      switch (nBytes) {
        case 1: r = m_Probe.VORDENARM_ReadMemU8(Addr, 1, paData, St); break;
        case 2: r = m_Probe.VORDENARM_ReadMemU16(Addr, 1, reinterpret_cast<U16*>(paData), St); break;
        case 4: r = m_Probe.VORDENARM_ReadMemU32(Addr, 1, reinterpret_cast<U32*>(paData), St); break;
        default: r = m_Probe.VORDENARM_ReadMemU64(Addr, 1, reinterpret_cast<U64*>(paData), St); break;
      }
      n = (r == 1 && St[0] == 0) ? int(nBytes) : 0;
    }
  } else {
    const int r = HasZone(sZone) ? m_Probe.VORDEN_ReadMemZonedEx(Addr, nBytes, paData, U32(AccessWidth), sZone)
                                 : m_Probe.VORDENARM_ReadMemEx(Addr, nBytes, paData, U32(AccessWidth));
    n = r < 0 ? 0 : (r > int(nBytes) ? int(nBytes) : r);
  }
  if (n == 0) memset(paData, 0, nBytes);
  memset(paStatus, 0, size_t(n));
  memset(paStatus + n, 1, nBytes - U32(n));
  return n;
}

int CDevice::ReadMemItemWise(U32 Addr, U32 nBytes, I8 AccessWidth, U32 Flags, const char* sZone, U8* pData,
                             U8* paStatus) {
  const U32 Step = AccessWidth <= 0 ? 1 : U32(AccessWidth);
  int Sum = 0;
  for (U32 Off = 0; Off < nBytes; Off += Step) {
    const U32 n = std::min(Step, nBytes - Off);
    Sum += ReadMemSimple(Addr + Off, n, AccessWidth, Flags, sZone, pData + Off, paStatus + Off);
  }
  return Sum;
}

int CDevice::ReadMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone,
                              U8* pData, U8* paStatus) {
  return ChunkWise(
      nBytes, ChunkSize, Flags, "Reading Memory...", m_bHalted,
      [&](U32 Off, U32 n) {
        return ReadMemSimple(Addr + Off, n, AccessWidth, Flags, sZone, pData + Off, paStatus + Off);
      },
      [&](U32 Off, U32 n) {
        return ReadMemItemWise(Addr + Off, n, AccessWidth, Flags, sZone, pData + Off, paStatus + Off);
      });
}

int CDevice::ReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone, U8* paData,
                     U8* paStatus) {
  if (AccessWidth < 0 || U8(AccessWidth) >= 255) AccessWidth = I8(SysVars::GetValue(VAR_ACCESS_WIDTH));
  bool Resume = false;
  if ((Flags & MEM_FLAG_HALT_AROUND) && m_bConnected.load() && !m_bHalted.load()) {
    Flags &= ~MEM_FLAG_HALT_AROUND;
    Resume = HaltBeforeMemoryIO() == 0;
  }
  if (ValidateMemoryAccessParams(true, Addr, nBytes, paData, paStatus) < 0) {
    if (paStatus && nBytes) memset(paStatus, 1, nBytes);
    if (Resume) ResumeAfterMemoryIO();
    return 0;
  }
  int n = ReadMemSimple(Addr, nBytes, AccessWidth, Flags, sZone, paData, paStatus);
  if (n < int(nBytes) && ChunkSize != 0)
    n += ReadMemChunkWise(Addr + U32(n), nBytes - U32(n), ChunkSize, AccessWidth, Flags, sZone, paData + n,
                          paStatus + n);
  if (Resume) ResumeAfterMemoryIO();
  return n;
}

int CDevice::WriteMemSimple(U32 Addr, U32 nBytes, I8 AccessWidth, const char* sZone, const U8* paData) {
  if (ValidateMemoryAccessParams(false, Addr, nBytes, paData, nullptr) < 0) return 0;
  if (Natural(Addr, nBytes) && !(HasZone(sZone) && (nBytes == 1 || nBytes == 8))) {
    U64 v = 0;
    memcpy(&v, paData, nBytes);
    int r;
    if (HasZone(sZone)) {
      r = nBytes == 2 ? m_Probe.VORDEN_WriteZonedU16(Addr, U16(v), sZone) : m_Probe.VORDEN_WriteZonedU32(Addr, U32(v), sZone);
    } else {
      switch (nBytes) {
        case 1: r = m_Probe.VORDENARM_WriteU8(Addr, U8(v)); break;
        case 2: r = m_Probe.VORDENARM_WriteU16(Addr, U16(v)); break;
        case 4: r = m_Probe.VORDENARM_WriteU32(Addr, U32(v)); break;
        default: r = m_Probe.VORDENARM_WriteU64(Addr, v); break;
      }
    }
    return r == 0 ? int(nBytes) : 0;
  }
  const int r = HasZone(sZone) ? m_Probe.VORDEN_WriteMemZonedEx(Addr, nBytes, paData, U32(AccessWidth), sZone)
                               : m_Probe.VORDENARM_WriteMemEx(Addr, nBytes, paData, U32(AccessWidth));
  return r < 0 ? 0 : std::min(r, int(nBytes));
}

int CDevice::WriteMemItemWise(U32 Addr, U32 nBytes, I8 AccessWidth, const char* sZone, const U8* pData) {
  const U32 Step = AccessWidth <= 0 ? 1 : U32(AccessWidth);
  int Sum = 0;
  for (U32 Off = 0; Off < nBytes; Off += Step)
    Sum += WriteMemSimple(Addr + Off, std::min(Step, nBytes - Off), AccessWidth, sZone, pData + Off);
  return Sum;
}

int CDevice::WriteMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone,
                               const U8* paData) {
  return ChunkWise(
      nBytes, ChunkSize, Flags, "Writing Memory...", m_bHalted,
      [&](U32 Off, U32 n) { return WriteMemSimple(Addr + Off, n, AccessWidth, sZone, paData + Off); },
      [&](U32 Off, U32 n) { return WriteMemItemWise(Addr + Off, n, AccessWidth, sZone, paData + Off); });
}

int CDevice::WriteMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone,
                      const U8* paData) {
  if (!paData || nBytes == 0) return 0;
  if (AccessWidth < 0 || U8(AccessWidth) >= 255) AccessWidth = I8(SysVars::GetValue(VAR_ACCESS_WIDTH));
  bool Resume = false;
  if ((Flags & MEM_FLAG_HALT_AROUND) && m_bConnected.load() && !m_bHalted.load()) {
    Flags &= ~MEM_FLAG_HALT_AROUND;
    Resume = HaltBeforeMemoryIO() == 0;
  }
  const bool Download = Flags & MEM_FLAG_DOWNLOAD;
  if (Download) BeginDownload();
  int n = WriteMemSimple(Addr, nBytes, AccessWidth, sZone, paData);
  if (n < int(nBytes) && ChunkSize != 0)
    n += WriteMemChunkWise(Addr + U32(n), nBytes - U32(n), ChunkSize, AccessWidth, Flags, sZone, paData + n);
  if (Download) EndDownload(false);
  if (Resume) ResumeAfterMemoryIO();
  return n;
}

int CDevice::WriteMemMultiple(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* paData, U32 ChunkSize,
                              I8 AccessWidth, U32 Flags, const char* sZone) {
  if (!Cnt || !paAddrRanges || !paData || !NumBytes) return 0;
  bool Resume = false;
  if ((Flags & MEM_FLAG_HALT_AROUND) && m_bConnected.load() && !m_bHalted.load()) {
    Flags &= ~MEM_FLAG_HALT_AROUND;
    Resume = HaltBeforeMemoryIO() == 0;
  }
  const bool Download = Flags & MEM_FLAG_DOWNLOAD;
  if (Download || (Flags & MEM_FLAG_BEGIN_DOWNLOAD)) BeginDownload();
  Flags &= ~(MEM_FLAG_DOWNLOAD | MEM_FLAG_BEGIN_DOWNLOAD);
  U64 Off = 0;
  int Sum = 0;
  for (U32 i = 0; i < Cnt; ++i) {
    const U32 Start = paAddrRanges[2 * i], End = paAddrRanges[2 * i + 1];
    const U32 Size = End - Start;
    if (Off + Size > NumBytes) break;
    Sum += WriteMem(Start, Size, ChunkSize, AccessWidth, Flags, sZone, paData + Off);
    Off += Size;
  }
  if (Download) EndDownload(false);
  if (Resume) ResumeAfterMemoryIO();
  return Sum;
}

// ---- typed reads

namespace {
// The checks and texts that the typed reads share; sWhat is "word", "half
// word" or "byte", sOp the operation's name in the log.
int ReadTypedItem(CDevice& d, bool Connected, U32 Addr, U32 Size, const char* sOp, const char* sWhat, U8* pOut) {
  if (!Connected) return DeviceLogWarning("%s: %s", sOp, Size == 4 ? "Not connected" : "not connected"), -1;
  if (Size > 1 && Addr > 0xFFFFFFFFu - Size && Addr != 0xFFFFFFFFu) return DeviceLogWarning("%s: Outside address range", sOp), -1;
  if (Addr == 0xFFFFFFFFu) return DeviceLogWarning("Attempting to read %s at invalid address %x", sWhat, Addr), -1;
  if (Addr & (Size - 1)) return DeviceLogWarning("Attempting to read %s unaligned at %x", sWhat, Addr), -1;
  U8 St[4];
  const I8 Width = Size == 4 ? AW_WORD : Size == 2 ? AW_HALF_WORD : AW_BYTE;
  if (d.ReadMemSimple(Addr, Size, Width, 0, nullptr, pOut, St) != int(Size))
    return DeviceLogWarning("%s: Vorden API call failed", sOp), -1;
  return 0;
}
}  // namespace

int CDevice::ReadWord(U32 Addr, U32* pOutWord) {
  U32 v = 0xEEEEEEEEu;
  const int r = ReadTypedItem(*this, m_bConnected.load(), Addr, 4, "ReadWord", "word", reinterpret_cast<U8*>(&v));
  *pOutWord = r == 0 ? v : 0xEEEEEEEEu;
  return r;
}

int CDevice::ReadHalfWord(U32 Addr, U16* pOutHW) {
  U16 v = 0xEEEE;
  const int r = ReadTypedItem(*this, m_bConnected.load(), Addr, 2, "ReadHalfWord", "half word", reinterpret_cast<U8*>(&v));
  *pOutHW = r == 0 ? v : 0xEEEE;
  return r;
}

int CDevice::ReadByte(U32 Addr, U8* pOutByte) {
  U8 v = 0xEE;
  const int r = ReadTypedItem(*this, m_bConnected.load(), Addr, 1, "ReadByte", "byte", &v);
  *pOutByte = r == 0 ? v : 0xEE;
  return r;
}

int CDevice::ReadInt(U32 Addr, U8 Size, U32* pOutData) {
  if (Size == 1) {
    U8 v;
    const int r = ReadByte(Addr, &v);
    *pOutData = v;
    return r;
  }
  if (Size == 2) {
    U16 v;
    const int r = ReadHalfWord(Addr, &v);
    *pOutData = v;
    return r;
  }
  if (Size == 4) return ReadWord(Addr, pOutData);
  return -1;
}

int CDevice::ReadLocs(U32 Cnt, const ELF_SYM_LOC* paDataLocs, U64* paOutVals, U8* pOutStatus) {
  if (!paDataLocs || !paOutVals || !pOutStatus) return -1;
  int Good = 0;
  for (U32 i = 0; i < Cnt; ++i) {
    const ELF_LOC_PART& p = paDataLocs[i].parts[0];
    bool Ok = false;
    U64 v = 0;
    switch (p.kind) {
      case ELF_LOC_REG: case ELF_LOC_REG_VALUE: Ok = ReadReg(p.reg, &v) == 0; break;
      case ELF_LOC_ADDR: case ELF_LOC_ADDR_OFFSET: case ELF_LOC_AT_REG: case ELF_LOC_AT_SP: case ELF_LOC_AT_BP:
      case ELF_LOC_AT_CFA: case ELF_LOC_ENTRY_VALUE: case ELF_LOC_INNER_VALUE: {
        U8 Buf[4], St[4];
        Ok = ReadMem(p.address, 4, 0, AW_ANY, 0, nullptr, Buf, St) == 4;
        U32 w;
        memcpy(&w, Buf, 4);
        v = w;
        break;
      }
      default: break;
    }
    paOutVals[i] = Ok ? v : U64(-1);
    pOutStatus[i] = Ok ? 0 : 1;
    Good += Ok;
  }
  return Good;
}

// ---- registers: through the core plug-in while one is installed, else
// straight to the probe

namespace {
// One probe register through the plug-in or the probe; 0 on success.
int ReadOneReg(const VORDEN_FUNCS& Probe, U32 Idx, U64* pValue) {
  if (ICoreSupport* c = DEV_GetCoreSupport()) return c->ReadReg(Idx, pValue);
  U8 St = 1;
  return Probe.VORDENARM_ReadRegs(&Idx, pValue, &St, 1) < 0 || St != 0 ? -1 : 0;
}
}  // namespace

int CDevice::ReadReg(U32 Idx, U64* pOut) {
  *pOut = 0;
  if (!m_bConnected.load()) return DeviceLogWarning("ReadReg: not connected"), -1;
  if (!m_bHalted.load()) return DeviceLogWarning("ReadReg: not halted"), -1;
  if (Idx == 0xFFFFFFFFu) return DeviceLogWarning("ReadReg: invalid register index"), -1;
  U64 v = 0;
  if (ReadOneReg(m_Probe, Idx, &v) != 0) return DeviceLogWarning("ReadReg: VORDEN API call failed"), -1;
  if (Idx == VORDENARM_REG_PC && v < 0xFFFFFFFFull) v = U32(v) - U32(v) % 2;
  *pOut = v;
  return 0;
}

int CDevice::WriteReg(U32 Idx, U64 Value) {
  if (!m_bConnected.load()) return DeviceLogWarning("WriteReg: Not connected"), -1;
  if (!m_bHalted.load()) return DeviceLogWarning("WriteReg: Not halted"), -1;
  if (Idx == 0xFFFFFFFFu) return DeviceLogWarning("WriteReg: invalid register index"), -1;
  ICoreSupport* c = DEV_GetCoreSupport();
  const int r = c ? c->WriteReg(Idx, Value) : m_Probe.VORDENARM_WriteReg(Idx, Value);
  if (r != 0) return DeviceLogWarning("WriteReg: VORDEN API call failed"), -1;
  if (Idx == VORDENARM_REG_PC) m_PC.store(U32(Value));
  return 0;
}

int CDevice::ReadRegs(U32 Cnt, const U32* paIdx, U64* paVals, U8* paStatus) {
  if (!Cnt || !paIdx || !paVals || !paStatus) return -1;
  if (!m_bConnected.load()) return DeviceLogWarning("ReadRegs: not connected"), -1;
  for (U32 i = 0; i < Cnt; ++i)
    if (paIdx[i] == 0xFFFFFFFFu) return DeviceLogWarning("ReadRegs: Invalid register index"), -1;
  const int h = m_Probe.VORDENARM_IsHalted();
  if (h < 0) return DeviceLogWarning("ReadRegs: invalid halt status"), -1;
  if (h != 1) return DeviceLogWarning("ReadRegs: not halted"), -1;
  memset(paStatus, 0xFF, Cnt);
  memset(paVals, 0, Cnt * sizeof(U64));
  ICoreSupport* c = DEV_GetCoreSupport();
  const int r = c ? c->ReadRegs(Cnt, paIdx, paVals, paStatus) : m_Probe.VORDENARM_ReadRegs(paIdx, paVals, paStatus, Cnt);
  for (U32 i = 0; i < Cnt; ++i) {
    if (paStatus[i]) {
      paStatus[i] = 1;
      paVals[i] = U64(-1);
    } else if (paIdx[i] == VORDENARM_REG_PC) {
      paVals[i] = U32(paVals[i]) - U32(paVals[i]) % 2;
    }
  }
  if (r < 0) return DeviceLogWarning("ReadRegs: VORDEN API call failed"), -1;
  return 0;
}

// Co-processor registers by name exist only through the plug-in; without
// one they cannot be read or written.
int CDevice::ReadCPReg(const char* sReg, U64* pOut) {
  *pOut = 0;
  if (!sReg) return DeviceLogWarning("ReadCPReg: invalid register identifier"), -1;
  if (!m_bConnected.load()) return DeviceLogWarning("ReadCPReg: not connected"), -1;
  if (!m_bHalted.load()) return DeviceLogWarning("ReadCPReg: not halted"), -1;
  ICoreSupport* c = DEV_GetCoreSupport();
  if (!c) return DeviceLogWarning("ReadCPReg: no target core support plugin"), -1;
  if (c->ReadCPReg(sReg, pOut) != 0) {
    *pOut = U64(-1);
    return DeviceLogWarning("ReadCPReg: VORDEN API call failed"), -1;
  }
  return 0;
}

int CDevice::WriteCPReg(const char* sReg, U64 Value) {
  if (!m_bConnected.load()) return DeviceLogWarning("WriteCPReg: not connected"), -1;
  if (!m_bHalted.load()) return DeviceLogWarning("WriteCPReg: not halted"), -1;
  ICoreSupport* c = DEV_GetCoreSupport();
  if (!c) return DeviceLogWarning("WriteCPReg: no target core support plugin"), -1;
  if (!sReg || c->WriteCPReg(sReg, Value) != 0) return DeviceLogWarning("WriteCPReg: VORDEN API call failed"), -1;
  return 0;
}

// ---- downloads

// Stops a running target for a memory access that asks for it; the access
// goes ahead as on a halted target, and ResumeAfterMemoryIO lets it run on.
int CDevice::HaltBeforeMemoryIO() {
  if (!m_bConnected.load()) return -1;
  m_Probe.VORDENARM_Halt();
  m_bHalted.store(true);
  return 0;
}

int CDevice::ResumeAfterMemoryIO() {
  if (!m_bConnected.load()) return -1;
  m_Probe.VORDENARM_GoEx(0, 1);
  m_bHalted.store(false);
  return 0;
}

int CDevice::BeginDownload() {
  if (!m_bConnected.load()) return DeviceLogWarning("BeginDL: not connected"), -1;
  ClearBreakpointsBeforeFlashDL();
  m_Probe.VORDENARM_BeginDownload(0);
  return 0;
}

int CDevice::EndDownload(bool DoHalt) {
  if (!m_bConnected.load()) return DeviceLogWarning("EndDL: not connected"), -1;
  bool Resume = false;
  if (DoHalt && !m_bHalted.load()) {
    m_Probe.VORDENARM_Halt();
    Resume = true;
  }
  PostDeviceEvent(DEV_EVENT_SET_PROGRESS_MSG, 0, 0, "Writing Memory...");
  PostDeviceEvent(DEV_EVENT_START_PROGRESS, 0, 0);
  const int r = m_Probe.VORDENARM_EndDownload();
  PostDeviceEvent(DEV_EVENT_END_PROGRESS);
  RestoreBreakpointsAfterFlashDL();
  if (Resume) m_Probe.VORDENARM_GoEx(0, 1);
  if (m_bConnected.load()) {
    const int h = m_Probe.VORDENARM_IsHalted();
    if (h < 0) OnInvalidHaltStatus();
    else if (h == 0 && !m_bRunning.load()) {
      m_bRunning.store(true);
      m_bHalted.store(false);
      m_bHaltReported.store(false);
      PostJobEvent(JT_CONTINUE, 0, RESUME_CONTINUE, 0, 0);
    }
  }
  if (r < 0) {
    m_LastDownloadError.store(r);
    DeviceLogError("VORDENARM_EndDownload: Vorden API call returned error code %d", r);
  } else {
    m_LastDownloadError.store(0);
  }
  return r;
}

U32 CDevice::DownloadChunkSize() const {
  const int Speed = m_Config.Get(DEV_CFG_SPEED);
  if (m_Config.Get(DEV_CFG_USE_ADAPTIVE) || Speed == 65535) return 16000;
  if (Speed == 0) return 0xFFFFFFFFu;
  if (Speed <= 50000) return 8000;
  if (Speed <= 100000) return 16000;
  if (Speed <= 500000) return 32000;
  return 0xFFFFFFFFu;
}
