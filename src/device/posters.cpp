// The small job posters of CDevice: each builds a template on its stack,
// fills arguments and dynamic parameters, and schedules it.
#include "device/device.h"

#include "device/events.h"
#include "device/loadimage.h"

#include <cstring>

namespace {

DEVICE_JOB Make(U32 Type) {
  DEVICE_JOB j{};
  j.Type = Type;
  return j;
}

}  // namespace

int CDevice::PostConnect(CONNECT_MODES Mode) {
  DEVICE_JOB j = Make(JT_CONNECT);
  j.Arg0 = U64(Mode);
  return ScheduleJob(&j);
}

int CDevice::PostDisconnect() {
  PostDeviceEvent(DEV_EVENT_ABOUT_TO_DISCONNECT);
  DEVICE_JOB j = Make(JT_DISCONNECT);
  return ScheduleJob(&j);
}

int CDevice::PostHalt() {
  DEVICE_JOB j = Make(JT_HALT);
  return ScheduleJob(&j);
}

int CDevice::PostContinue() {
  PostDeviceEvent(DEV_EVENT_ABOUT_TO_RESUME, RESUME_CONTINUE);
  DEVICE_JOB j = Make(JT_CONTINUE);
  j.Arg0 = RESUME_CONTINUE;
  return ScheduleJob(&j);
}

int CDevice::PostStepInst() {
  PostDeviceEvent(DEV_EVENT_ABOUT_TO_STEP);
  DEVICE_JOB j = Make(JT_STEP_INST);
  return ScheduleJob(&j);
}

int CDevice::PostReset(RESET_MODES Mode) {
  DEVICE_JOB j = Make(JT_RESET);
  j.Arg0 = U64(Mode);
  return ScheduleJob(&j);
}

int CDevice::PostStep(U32 Type) {
  if (!IsStepJob(Type)) return -1;
  PostDeviceEvent(DEV_EVENT_ABOUT_TO_STEP);
  DEVICE_JOB j = Make(Type);
  return ScheduleJob(&j);
}

int CDevice::PostRunTo(U32 Addr) {
  PostDeviceEvent(DEV_EVENT_ABOUT_TO_RESUME, RESUME_RUN_TO);
  DEVICE_JOB j = Make(JT_RUN_TO);
  j.Arg0 = Addr;
  return ScheduleJob(&j);
}

int CDevice::PostConfigure(const char* sXml) {
  DEVICE_JOB j = Make(JT_CONFIGURE);
  const U32 n = sXml ? U32(strlen(sXml)) : 0;
  if (n) SetJobParam(&j, 0, n, sXml);
  return ScheduleJob(&j);
}

int CDevice::PostSetConfigParam(DEV_CONFIG_PARAMS Param, int Value) {
  DEVICE_JOB j = Make(JT_SET_CONFIG_PARAM);
  j.Arg0 = U64(Param);
  j.Arg1 = U64(I64(Value));
  return ScheduleJob(&j);
}

int CDevice::PostSetConfigParam(DEV_CONFIG_PARAMS Param, const char* sValue) {
  DEVICE_JOB j = Make(JT_SET_CONFIG_PARAM);
  j.Arg0 = U64(Param);
  // An empty text still travels as a parameter (one terminator byte).
  const U32 n = sValue ? U32(strlen(sValue)) : 0;
  if (AllocJobParam(&j, 0, n ? n : 1) == 0 && n) memcpy(j.apDynParam[0], sValue, n);
  return ScheduleJob(&j);
}

int CDevice::PostExecVordenCmd(const char* sCmd) {
  DEVICE_JOB j = Make(JT_EXEC_VORDEN_CMD);
  const U32 n = sCmd ? U32(strlen(sCmd)) : 0;
  if (n) SetJobParam(&j, 0, n, sCmd);
  AllocJobParam(&j, 1, 512);
  return ScheduleJob(&j);
}

int CDevice::PostGetDeviceInfo() {
  DEVICE_JOB j = Make(JT_GET_DEVICE_INFO);
  const QByteArray s = m_Config.GetString(DEV_CFG_DEVICE_NAME).toUtf8();
  SetJobParam(&j, 0, U32(s.size() + 1), s.constData());
  return ScheduleJob(&j);
}

int CDevice::PostReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone) {
  DEVICE_JOB j = Make(JT_READ_MEM);
  j.Arg0 = Addr;
  j.Arg1 = nBytes;
  j.Arg2 = ChunkSize;
  j.Arg3 = U32(U8(AccessWidth));
  j.Arg4 = Flags;
  if (AllocJobParam(&j, 0, nBytes) < 0 || AllocJobParam(&j, 1, nBytes) < 0) {
    FreeJobParams(&j);
    return -1;
  }
  memset(j.apDynParam[1], 1, nBytes);
  if (sZone && *sZone) SetJobParam(&j, 2, U32(strlen(sZone)), sZone);
  return ScheduleJob(&j);
}

int CDevice::PostWriteMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const U8* paData) {
  DEVICE_JOB j = Make(JT_WRITE_MEM);
  j.Arg0 = Addr;
  j.Arg1 = nBytes;
  j.Arg2 = ChunkSize;
  j.Arg3 = U32(U8(AccessWidth));
  j.Arg4 = Flags;
  if (SetJobParam(&j, 0, nBytes, paData) < 0) return -1;
  return ScheduleJob(&j);
}

int CDevice::PostWriteMemMultiple(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* paData,
                                  U32 ChunkSize, I8 AccessWidth, U32 Flags) {
  DEVICE_JOB j = Make(JT_WRITE_MEM_MULTIPLE);
  j.Arg0 = Cnt;
  j.Arg1 = NumBytes;
  j.Arg2 = ChunkSize;
  j.Arg3 = U32(U8(AccessWidth));
  j.Arg4 = Flags;
  if (SetJobParam(&j, 0, Cnt * 2 * sizeof(U32), paAddrRanges) < 0 || SetJobParam(&j, 1, NumBytes, paData) < 0) {
    FreeJobParams(&j);
    return -1;
  }
  return ScheduleJob(&j);
}

int CDevice::PostEndDownload(const char* sFilePath, int Mode) {
  DEVICE_JOB j = Make(JT_END_DOWNLOAD);
  j.Arg0 = U64(Mode);
  const U32 n = sFilePath ? U32(strlen(sFilePath)) : 0;
  if (n) SetJobParam(&j, 0, n, sFilePath);
  return ScheduleJob(&j);
}

int CDevice::PostReadReg(U32 Idx) {
  DEVICE_JOB j = Make(JT_READ_REG);
  j.Arg0 = Idx;
  return ScheduleJob(&j);
}

int CDevice::PostWriteReg(U32 Idx, U64 Value) {
  DEVICE_JOB j = Make(JT_WRITE_REG);
  j.Arg0 = Idx;
  j.Arg1 = Value;
  return ScheduleJob(&j);
}

int CDevice::PostReadRegs(U32 Cnt, const U32* paIdx) {
  DEVICE_JOB j = Make(JT_READ_REGS);
  j.Arg0 = Cnt;
  if (!Cnt || SetJobParam(&j, 0, Cnt * sizeof(U32), paIdx) < 0 || AllocJobParam(&j, 1, Cnt * sizeof(U64)) < 0 ||
      AllocJobParam(&j, 2, Cnt) < 0) {
    FreeJobParams(&j);
    return -1;
  }
  memset(j.apDynParam[2], 1, Cnt);
  return ScheduleJob(&j);
}

int CDevice::PostReadLocs(U32 Cnt, const ELF_SYM_LOC* paLocs, U64 Context) {
  DEVICE_JOB j = Make(JT_READ_LOCS);
  j.Arg0 = Cnt;
  j.Arg1 = Context;
  if (!Cnt || SetJobParam(&j, 0, Cnt * sizeof(ELF_SYM_LOC), paLocs) < 0 ||
      AllocJobParam(&j, 1, Cnt * sizeof(U64)) < 0 || AllocJobParam(&j, 2, Cnt) < 0) {
    FreeJobParams(&j);
    return -1;
  }
  return ScheduleJob(&j);
}

// ---------------------------------------------------------------- breakpoints

namespace {

template <class T>
int PostRecords(U32 Type, U32 Cnt, const T* paRecs, U64 Arg1 = 0, U32 Arg2 = 0) {
  DEVICE_JOB j = Make(Type);
  j.Arg0 = Cnt;
  j.Arg1 = Arg1;
  j.Arg2 = Arg2;
  if (!Cnt || !paRecs || SetJobParam(&j, 0, U32(Cnt * sizeof(T)), paRecs) < 0) {
    FreeJobParams(&j);
    return -1;
  }
  return Device()->ScheduleJob(&j);
}

}  // namespace

int CDevice::PostSetBP(U32 Addr, BP_STATES State, BP_TYPES Type) {
  DEVICE_JOB j = Make(JT_SET_BP);
  j.Arg0 = Addr;
  j.Arg1 = State;
  j.Arg2 = Type;
  return ScheduleJob(&j);
}

int CDevice::PostSetBPs(U32 Cnt, const U32* paAddrs, BP_STATES State, BP_TYPES Type) {
  return PostRecords(JT_SET_BPS, Cnt, paAddrs, State, Type);
}

int CDevice::PostClearBP(U32 Addr) {
  DEVICE_JOB j = Make(JT_CLEAR_BP);
  j.Arg0 = Addr;
  return ScheduleJob(&j);
}

int CDevice::PostClearBPs(U32 Cnt, const U32* paAddrs) { return PostRecords(JT_CLEAR_BPS, Cnt, paAddrs); }

int CDevice::PostClearAllBPs() {
  DEVICE_JOB j = Make(JT_CLEAR_ALL_BPS);
  return ScheduleJob(&j);
}

int CDevice::PostClearAllBPs(BP_STATES State) {
  DEVICE_JOB j = Make(JT_CLEAR_ALL_BPS);
  j.Arg0 = State;
  j.Arg1 = 1;
  return ScheduleJob(&j);
}

int CDevice::PostResetBPs() {
  DEVICE_JOB j = Make(JT_RESET_BPS);
  return ScheduleJob(&j);
}

int CDevice::PostSetWPs(U32 Cnt, const WP* paWPs) { return PostRecords(JT_SET_WPS, Cnt, paWPs); }
int CDevice::PostClearWPs(U32 Cnt, const WP* paWPs) { return PostRecords(JT_CLEAR_WPS, Cnt, paWPs); }

int CDevice::PostClearAllWPs() {
  DEVICE_JOB j = Make(JT_CLEAR_ALL_WPS);
  return ScheduleJob(&j);
}

int CDevice::PostSetTPs(U32 Cnt, const TP* paTPs) { return PostRecords(JT_SET_TPS, Cnt, paTPs); }
int CDevice::PostClearTPs(U32 Cnt, const TP* paTPs) { return PostRecords(JT_CLEAR_TPS, Cnt, paTPs); }

int CDevice::PostClearAllTPs() {
  DEVICE_JOB j = Make(JT_CLEAR_ALL_TPS);
  return ScheduleJob(&j);
}

int CDevice::PostDownload(const std::vector<DEV_LOAD_BLOCK>& Blocks, const char* sFilePath, int Mode) {
  std::vector<U32> Ranges;
  QByteArray Data;
  for (const DEV_LOAD_BLOCK& b : Blocks) {
    Ranges.push_back(b.LoadAddr);
    Ranges.push_back(b.LoadAddr + U32(b.Data.size()));
    Data += b.Data;
  }
  const U32 Flags = MEM_FLAG_BEGIN_DOWNLOAD | (Info().aCaps[0] == 1 ? 0 : MEM_FLAG_HALT_AROUND);
  const int r = PostWriteMemMultiple(U32(Blocks.size()), Ranges.data(), U32(Data.size()),
                                     reinterpret_cast<const U8*>(Data.constData()), DownloadChunkSize(), AW_ANY, Flags);
  return r == 0 ? PostEndDownload(sFilePath, Mode) : r;
}
