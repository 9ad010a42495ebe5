// CDeviceEventListener: every object that wants device reports derives from
// it and overrides what it needs; each operation has an empty default body.
// Reports are delivered on the user interface thread by CDeviceEventWorker.
#pragma once
#include "common/types.h"
#include "device/job.h"
#include "elf/dwarf/location.h"

struct WP;

enum CONNECT_MODES : int {
  CM_DOWNLOAD_RESET = 0, CM_ATTACH = 1, CM_ATTACH_HALT = 2, CM_PROBE_ONLY = 3, CM_PROBE_ONLY_SILENT = 4
};
enum RESUME_MODES : int { RESUME_CONTINUE = 0, RESUME_RUN_TO = 1 };
// Why a halt report came: a plain halt (user halt, reset, a halt found by the
// poll), the PC written, a user breakpoint, a run-to reached.
enum HALT_REASONS : int { HALT_REASON_PLAIN = 0, HALT_REASON_RESET = 0, HALT_REASON_PC_WRITE = 1,
                          HALT_REASON_BREAKPOINT = 2, HALT_REASON_RUN_TO = 3 };
// 0-2 the user's reset modes; 3 and 5 are report values only (3 the first
// reset of a session, hardware reset by a script; 5 the execution state set
// by hand); 4 is the job argument of a hardware reset alone, without report.
enum RESET_MODES : int { RM_RESET_HALT = 0, RM_BREAK_AT_SYMBOL = 1, RM_RESET_AND_RUN = 2, RM_RESET_SESSION = 3,
                         RM_RESET_HARDWARE_ONLY = 4, RM_EXEC_STATE_SET = 5 };
enum DOWNLOAD_MODES : int { DM_PLAIN = 0 };

class CDeviceEventListener {
 public:
  CDeviceEventListener();
  virtual ~CDeviceEventListener();
  CDeviceEventListener(const CDeviceEventListener&) = delete;
  CDeviceEventListener& operator=(const CDeviceEventListener&) = delete;

  // The dispatcher of job reports: calls the Done or Failed operation below.
  void OnDeviceJobDone(DEVICE_JOB* pJob);

  virtual void OnDeviceConnectDone(CONNECT_MODES) {}
  virtual void OnDeviceConnectFailed(CONNECT_MODES) {}
  virtual void OnDeviceConnectCanceled(CONNECT_MODES) {}
  virtual void OnDeviceDisconnectDone() {}
  virtual void OnDeviceDisconnectFailed() {}
  virtual void OnDeviceResumeDone(RESUME_MODES) {}
  virtual void OnDeviceResumeFailed(RESUME_MODES) {}
  virtual void OnDeviceHaltDone(U32 NewPC, HALT_REASONS HaltReason) {}
  virtual void OnDeviceHaltFailed() {}
  virtual void OnDeviceResetDone(U32 NewPC, RESET_MODES ResetMode) {}
  virtual void OnDeviceResetFailed(U32 NewPC, RESET_MODES) {}
  virtual void OnDeviceRunToSymbolDone(U32 NewPC) {}
  virtual void OnDeviceRunToSymbolFailed(U32 NewPC) {}
  virtual void OnDeviceStepInstDone(U32) {}
  virtual void OnDeviceStepInstFailed(U32) {}
  virtual void OnDeviceStepIntoDone(U32) {}
  virtual void OnDeviceStepIntoFailed(U32) {}
  virtual void OnDeviceStepOverDone(U32) {}
  virtual void OnDeviceStepOverFailed(U32) {}
  virtual void OnDeviceStepOutDone(U32) {}
  virtual void OnDeviceStepOutFailed(U32) {}
  virtual void OnDeviceStepped(U32 NewPC) {}
  virtual void OnDeviceEndDownloadDone(const char* sFilePath, DOWNLOAD_MODES Mode) {}
  virtual void OnDeviceEndDownloadFailed(const char* sFilePath, DOWNLOAD_MODES Mode, int VordenErrCode) {}
  virtual void OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus) {}
  virtual void OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char* sZone) {}
  virtual void OnDeviceWriteMemDone(U32 Addr, U32 nBytes, U8* paData) {}
  virtual void OnDeviceWriteMemFailed(U32 Addr, U32 nBytes, U8* paData) {}
  virtual void OnDeviceWriteMemMultipleDone(U32 Cnt, U32* paAddrRanges, U8* paData) {}
  virtual void OnDeviceWriteMemMultipleFailed(U32 Cnt, U32* paAddrRanges, U8* paData) {}
  virtual void OnDeviceReadRegDone(U32 VordenRegIdx, U64 RegValue) {}
  virtual void OnDeviceReadRegFailed(U32 VordenRegIdx) {}
  virtual void OnDeviceReadCPRegDone(const char* sReg, U64 Value) {}
  virtual void OnDeviceReadCPRegFailed(const char* sReg) {}
  virtual void OnDeviceWriteRegDone(U32 Idx, U64 Value) {}
  virtual void OnDeviceWriteRegFailed(U32 Idx) {}
  virtual void OnDeviceWriteCPRegDone(const char* sReg, U64 Value) {}
  virtual void OnDeviceWriteCPRegFailed(const char* sReg) {}
  virtual void OnDeviceReadRegsDone(U32 Cnt, U32* paVordenRegIdxs, U64* paRegVals, U8* paRegStatus) {}
  virtual void OnDeviceReadRegsFailed(U32 Cnt, U32* paVordenRegIdxs) {}
  virtual void OnDeviceReadLocDone(ELF_SYM_LOC Loc, U32 nBytes, const char* sZone, U8* paData) {}
  virtual void OnDeviceReadLocFailed(ELF_SYM_LOC Loc, U32 nBytes, const char* sZone) {}
  virtual void OnDeviceReadLocsDone(U32 Cnt, ELF_SYM_LOC* paDataLocs, U64* paVals, U8* paStatus, U64 Context) {}
  virtual void OnDeviceReadLocsFailed(U32 Cnt, ELF_SYM_LOC* paDataLocs, U64 Context) {}
  virtual void OnDeviceReserved0() {}
  virtual void OnDeviceReserved1() {}
  // Trace and terminal channels.
  virtual void OnDeviceEnableSimpleInstTraceDone() {}
  virtual void OnDeviceEnableSimpleInstTraceFailed() {}
  virtual void OnDeviceDisableSimpleInstTraceDone() {}
  virtual void OnDeviceDisableSimpleInstTraceFailed() {}
  virtual void OnDeviceStartInstTraceDone() {}
  virtual void OnDeviceStartInstTraceFailed() {}
  virtual void OnDeviceStopSimpleInstTraceDone() {}
  virtual void OnDeviceStopSimpleInstTraceFailed() {}
  virtual void OnDeviceReserved2() {}
  virtual void OnDeviceReserved3() {}
  virtual void OnDeviceFlushSimpleInstTraceBufferDone() {}
  virtual void OnDeviceFlushSimpleInstTraceBufferFailed() {}
  virtual void OnDeviceReadInstStatsDone(U32 nAddrRanges, U32* paAddrRanges, I64 Result, U64 TotalFetch,
                                         U64 TotalSkip, U64* paFetch, U64* paSkip) {}
  virtual void OnDeviceReadInstStatsFailed(U32 nAddrRanges, U32* paAddrRanges) {}
  virtual void OnDeviceReadSimpleInstTraceDone(U32 NumInsts, I64 Result, U64 Out0, U64 Out1, U32* paPCs,
                                               void* pOutInfo, U64 Out2) {}
  virtual void OnDeviceReadSimpleInstTraceFailed(U32 NumInsts) {}
  virtual void OnDeviceStartSWOTraceDone(U32 CpuHz, U32 SWOHz, U32 PortMask) {}
  virtual void OnDeviceStartSWOTraceFailed(U32 CpuHz, U32 SWOHz, U32 PortMask) {}
  virtual void OnDeviceStopSWOTraceDone(U32 PortMask) {}
  virtual void OnDeviceStopSWOTraceFailed(U32 PortMask) {}
  virtual void OnDeviceReadSWOTraceDone(U32 Port, U32 NumBytes, U32 BytesRead, U8* paData) {}
  virtual void OnDeviceReadSWOTraceFailed(U32 Port, U32 NumBytes) {}
  virtual void OnDeviceGetCompatibleSWOSpeedsDone(U32 CpuHz, U32 NumItems, U32* paItems) {}
  virtual void OnDeviceGetCompatibleSWOSpeedsFailed(U32 CpuHz) {}
  virtual void OnDeviceStartHSSDone(U32 Cnt, U32* paAddrRanges, U32 Interval) {}
  virtual void OnDeviceStartHSSFailed(U32 Cnt, U32* paAddrRanges, U32 Interval) {}
  virtual void OnDeviceStopHSSDone() {}
  virtual void OnDeviceStopHSSFailed() {}
  virtual void OnDeviceReadHSSDone(U32 Cnt, U32 BytesRead, U8* paData) {}
  virtual void OnDeviceReadHSSFailed(U32 Cnt) {}
  virtual void OnDeviceStartPowerTraceDone(U32 ChannelMask, U64 Out0, U32 RefSelect, U32 EnableCond) {}
  virtual void OnDeviceStartPowerTraceFailed(U32 ChannelMask, U32 FreqHz, U32 RefSelect, U32 EnableCond) {}
  virtual void OnDeviceStopPowerTraceDone() {}
  virtual void OnDeviceStopPowerTraceFailed() {}
  virtual void OnDeviceReadPowerTraceDone(U32 NumSamples, U32 Read, void* paSamples) {}
  virtual void OnDeviceReadPowerTraceFailed(U32 NumSamples) {}
  virtual void OnDeviceFlushPowerTraceDone() {}
  virtual void OnDeviceFlushPowerTraceFailed() {}
  virtual void OnDeviceStartLVTDone() {}
  virtual void OnDeviceStartLVTFailed() {}
  virtual void OnDeviceStopLVTDone() {}
  virtual void OnDeviceStopLVTFailed() {}
  virtual void OnDeviceWriteLVTDone(U32 BuffIdx, U32 NumBytes, U8* paData) {}
  virtual void OnDeviceWriteLVTFailed(U32 BuffIdx, U32 NumBytes, U8* paData, U32 Written) {}
  virtual void OnDeviceReadLVTDone(U32 BuffIdx, U32 NumBytes, U32 BytesRead, U8* paData) {}
  virtual void OnDeviceReadLVTFailed(U32 BuffIdx, U32 NumBytes) {}
  virtual void OnDeviceSetSemihostingInputTextDone(U32 StrLen, const char* sText) {}
  virtual void OnDeviceSetSemihostingInputTextFailed(U32 StrLen, const char* sText) {}
  // Breakpoints.
  virtual void OnDeviceSetBreakpointDone(U32 Addr) {}
  virtual void OnDeviceSetBreakpointFailed(U32 Addr) {}
  virtual void OnDeviceSetBreakpointsDone(U32 Cnt, U32* paAddrs) {}
  virtual void OnDeviceSetBreakpointsFailed(U32 Cnt, U32* paAddrs) {}
  virtual void OnDeviceClearBreakpointDone(U32 Addr) {}
  virtual void OnDeviceClearBreakpointFailed(U32 Addr) {}
  virtual void OnDeviceClearBreakpointsDone(U32 Cnt, U32* paAddrs) {}
  virtual void OnDeviceClearBreakpointsFailed(U32 Cnt, U32* paAddrs) {}
  virtual void OnDeviceClearAllBreakpointsDone() {}
  virtual void OnDeviceClearAllBreakpointsFailed() {}
  virtual void OnDeviceResetBreakpointsDone() {}
  virtual void OnDeviceResetBreakpointsFailed() {}
  virtual void OnDeviceSetWPsDone(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceSetWPsFailed(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceClearWPsDone(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceClearWPsFailed(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceClearAllWPsDone() {}
  virtual void OnDeviceClearAllWPsFailed() {}
  // Configuration and probe commands.
  virtual void OnDeviceConfigureDone(const char* sXml) {}
  virtual void OnDeviceConfigureFailed(const char* sXml) {}
  virtual void OnDeviceSetConfigParamDone(int Param, const char* sValue) {}
  virtual void OnDeviceSetConfigParamDone(int Param, int Value) {}
  virtual void OnDeviceSetConfigParamFailed(int Param, const char* sValue) {}
  virtual void OnDeviceSetConfigParamFailed(int Param, int Value) {}
  virtual void OnDeviceExecVordenCmdDone(const char* sCmd) {}
  virtual void OnDeviceExecVordenCmdFailed(const char* sCmd, const char* sOut) {}
  virtual void OnDeviceSetTargetExecStateDone(U64 PC, U64 SP) {}
  virtual void OnDeviceSetTargetExecStateFailed(U64 PC, U64 SP) {}
  virtual void OnDeviceResetTargetExecStateDone() {}
  virtual void OnDeviceResetTargetExecStateFailed() {}
  virtual void OnDeviceGetDeviceInfoDone(const char* sName, U32 Core) {}
  virtual void OnDeviceGetDeviceInfoFailed(const char* sName) {}
  virtual void OnDeviceMeasureCoreSpeedDone(U32 Hz) {}
  virtual void OnDeviceMeasureCoreSpeedFailed(U32 Hz) {}
  // Reports that belong to no job.
  virtual void OnDeviceEvalBPCondition(U32 Addr) {}
  virtual void OnDeviceConfigParamChanged(int Param, int Value) {}
  virtual void OnDeviceHWCapabilityChanged(int Capability, int Value) {}
  virtual void OnDeviceConnectionLost() {}
  virtual void OnDeviceAboutToDisconnect() {}
  virtual void OnDeviceAboutToStep() {}
  virtual void OnDeviceAboutToResume(RESUME_MODES ResumeMode) {}
  virtual void OnDeviceCPUModeChanged(U32 NewMode) {}
  virtual void OnDeviceExecModeChanged(U32 Mode) {}
  virtual void OnDeviceEndianessChanged(int DataEndian, int InstEndian) {}
  virtual void OnDeviceLogMsg(const char* sMsg, U32 Flags) {}
  virtual void OnDeviceSetStatusMsg(const char* sMsg) {}
  virtual void OnDeviceSetProgressMsg(const char* sMsg) {}
  virtual void OnDeviceStartProgress(int Min, int Max) {}
  virtual void OnDeviceEndProgress() {}
  virtual void OnDeviceSetProgressValue(int Value) {}
  virtual void OnDeviceWPStateChanged() {}
  virtual void OnDeviceBPStateChanged() {}
  virtual void OnDeviceTPStateChanged() {}
  virtual void OnDeviceWriteAccess() {}
};

// Calls Fn on every live listener, in the order they were made; listeners
// destroyed meanwhile are skipped.
template <class F>
void ForEachDeviceListener(F&& Fn);

// The listener list, a singly linked list of { listener, next } nodes with a
// trailing empty node; nodes of destroyed listeners are reused.
struct DEVICE_LISTENER_NODE {
  CDeviceEventListener* pListener;
  DEVICE_LISTENER_NODE* pNext;
};
DEVICE_LISTENER_NODE* DeviceListenerList();

template <class F>
void ForEachDeviceListener(F&& Fn) {
  for (DEVICE_LISTENER_NODE* p = DeviceListenerList(); p; p = p->pNext)
    if (p->pListener) Fn(p->pListener);
}
