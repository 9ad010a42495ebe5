#include "device/listener.h"

#include "device/device.h"

namespace {

DEVICE_LISTENER_NODE* s_pHead = nullptr;

}  // namespace

DEVICE_LISTENER_NODE* DeviceListenerList() { return s_pHead; }

CDeviceEventListener::CDeviceEventListener() {
  if (!s_pHead) s_pHead = new DEVICE_LISTENER_NODE{nullptr, nullptr};
  // Reuse the first empty node; the list always ends in an empty node.
  DEVICE_LISTENER_NODE* p = s_pHead;
  while (p->pListener) p = p->pNext;
  p->pListener = this;
  if (!p->pNext) p->pNext = new DEVICE_LISTENER_NODE{nullptr, nullptr};
}

CDeviceEventListener::~CDeviceEventListener() {
  for (DEVICE_LISTENER_NODE* p = s_pHead; p; p = p->pNext)
    if (p->pListener == this) p->pListener = nullptr;
}

void CDeviceEventListener::OnDeviceJobDone(DEVICE_JOB* j) {
  const bool Done = j->Status == 0;
  const U32 PC = U32(j->Result);
  auto* p0 = j->apDynParam[0];
  auto* p1 = j->apDynParam[1];
  auto* p2 = j->apDynParam[2];
  const char* s0 = static_cast<const char*>(p0);
  CDevice* d = CDevice::InstanceIfCreated();
  switch (j->Type) {
    case JT_WRITE_REG: case JT_WRITE_CP_REG: case JT_WRITE_MEM: case JT_WRITE_MEM_MULTIPLE: case JT_WRITE_BYTE:
      if (d && d->HaltReported()) OnDeviceWriteAccess();
      break;
    default: break;
  }
  switch (j->Type) {
    case JT_CONNECT: Done ? OnDeviceConnectDone(CONNECT_MODES(j->Arg0)) : OnDeviceConnectFailed(CONNECT_MODES(j->Arg0)); break;
    case JT_DISCONNECT: Done ? OnDeviceDisconnectDone() : OnDeviceDisconnectFailed(); break;
    case JT_RESET: Done ? OnDeviceResetDone(PC, RESET_MODES(j->Arg0)) : OnDeviceResetFailed(PC, RESET_MODES(j->Arg0)); break;
    case JT_HALT: Done ? OnDeviceHaltDone(PC, HALT_REASONS(j->Out0)) : OnDeviceHaltFailed(); break;
    case JT_CONTINUE: Done ? OnDeviceResumeDone(RESUME_MODES(j->Arg0)) : OnDeviceResumeFailed(RESUME_MODES(j->Arg0)); break;
    case JT_STEP_INST: Done ? OnDeviceStepInstDone(PC) : OnDeviceStepInstFailed(PC); break;
    case JT_STEP_INTO: Done ? OnDeviceStepIntoDone(PC) : OnDeviceStepIntoFailed(PC); break;
    case JT_STEP_OVER: Done ? OnDeviceStepOverDone(PC) : OnDeviceStepOverFailed(PC); break;
    case JT_STEP_OUT: Done ? OnDeviceStepOutDone(PC) : OnDeviceStepOutFailed(PC); break;
    case JT_RUN_TO: Done ? OnDeviceRunToSymbolDone(PC) : OnDeviceRunToSymbolFailed(PC); break;
    case JT_EXEC_VORDEN_CMD: Done ? OnDeviceExecVordenCmdDone(s0) : OnDeviceExecVordenCmdFailed(s0, static_cast<const char*>(p1)); break;
    case JT_SET_BP: Done ? OnDeviceSetBreakpointDone(U32(j->Arg0)) : OnDeviceSetBreakpointFailed(U32(j->Arg0)); break;
    case JT_SET_BPS: Done ? OnDeviceSetBreakpointsDone(U32(j->Arg0), (U32*)p0) : OnDeviceSetBreakpointsFailed(U32(j->Arg0), (U32*)p0); break;
    case JT_CLEAR_BP: Done ? OnDeviceClearBreakpointDone(U32(j->Arg0)) : OnDeviceClearBreakpointFailed(U32(j->Arg0)); break;
    case JT_CLEAR_BPS: Done ? OnDeviceClearBreakpointsDone(U32(j->Arg0), (U32*)p0) : OnDeviceClearBreakpointsFailed(U32(j->Arg0), (U32*)p0); break;
    case JT_CLEAR_ALL_BPS: Done ? OnDeviceClearAllBreakpointsDone() : OnDeviceClearAllBreakpointsFailed(); break;
    case JT_RESET_BPS: Done ? OnDeviceResetBreakpointsDone() : OnDeviceResetBreakpointsFailed(); break;
    case JT_SET_WPS: Done ? OnDeviceSetWPsDone(U32(j->Arg0), (WP*)p0) : OnDeviceSetWPsFailed(U32(j->Arg0), (WP*)p0); break;
    case JT_CLEAR_WPS: Done ? OnDeviceClearWPsDone(U32(j->Arg0), (WP*)p0) : OnDeviceClearWPsFailed(U32(j->Arg0), (WP*)p0); break;
    case JT_CLEAR_ALL_WPS: Done ? OnDeviceClearAllWPsDone() : OnDeviceClearAllWPsFailed(); break;
    case JT_READ_REG: Done ? OnDeviceReadRegDone(U32(j->Arg0), U64(j->Out0)) : OnDeviceReadRegFailed(U32(j->Arg0)); break;
    case JT_WRITE_REG: Done ? OnDeviceWriteRegDone(U32(j->Arg0), j->Arg1) : OnDeviceWriteRegFailed(U32(j->Arg0)); break;
    case JT_READ_CP_REG: Done ? OnDeviceReadCPRegDone(s0, j->Out0) : OnDeviceReadCPRegFailed(s0); break;
    case JT_WRITE_CP_REG: Done ? OnDeviceWriteCPRegDone(s0, j->Arg1) : OnDeviceWriteCPRegFailed(s0); break;
    case JT_READ_REGS:
      Done ? OnDeviceReadRegsDone(U32(j->Arg0), (U32*)p0, (U64*)p1, (U8*)p2) : OnDeviceReadRegsFailed(U32(j->Arg0), (U32*)p0);
      break;
    case JT_END_DOWNLOAD:
      Done ? OnDeviceEndDownloadDone(s0, DOWNLOAD_MODES(j->Arg0))
           : OnDeviceEndDownloadFailed(s0, DOWNLOAD_MODES(j->Arg0), int(j->Out0));
      break;
    case JT_READ_MEM:
      Done ? OnDeviceReadMemDone(U32(j->Arg0), U32(j->Arg1), (const char*)p2, (U8*)p0, (U8*)p1)
           : OnDeviceReadMemFailed(U32(j->Arg0), U32(j->Arg1), (const char*)p2);
      break;
    case JT_WRITE_MEM: Done ? OnDeviceWriteMemDone(U32(j->Arg0), U32(j->Arg1), (U8*)p0) : OnDeviceWriteMemFailed(U32(j->Arg0), U32(j->Arg1), (U8*)p0); break;
    case JT_WRITE_MEM_MULTIPLE:
      Done ? OnDeviceWriteMemMultipleDone(U32(j->Arg0), (U32*)p0, (U8*)p1) : OnDeviceWriteMemMultipleFailed(U32(j->Arg0), (U32*)p0, (U8*)p1);
      break;
    case JT_READ_LOCS:
      Done ? OnDeviceReadLocsDone(U32(j->Arg0), (ELF_SYM_LOC*)p0, (U64*)p1, (U8*)p2, j->Arg1)
           : OnDeviceReadLocsFailed(U32(j->Arg0), (ELF_SYM_LOC*)p0, j->Arg1);
      break;
    case JT_CONFIGURE: Done ? OnDeviceConfigureDone(s0) : OnDeviceConfigureFailed(s0); break;
    case JT_SET_CONFIG_PARAM:
      if (p0) Done ? OnDeviceSetConfigParamDone(int(j->Arg0), s0) : OnDeviceSetConfigParamFailed(int(j->Arg0), s0);
      else Done ? OnDeviceSetConfigParamDone(int(j->Arg0), int(j->Arg1)) : OnDeviceSetConfigParamFailed(int(j->Arg0), int(j->Arg1));
      break;
    case JT_GET_DEVICE_INFO: Done ? OnDeviceGetDeviceInfoDone(s0, U32(j->Out0)) : OnDeviceGetDeviceInfoFailed(s0); break;
    case JT_MEASURE_CORE_SPEED: Done ? OnDeviceMeasureCoreSpeedDone(U32(j->Result)) : OnDeviceMeasureCoreSpeedFailed(U32(j->Result)); break;
    case JT_SET_TARGET_EXEC_STATE: Done ? OnDeviceSetTargetExecStateDone(j->Arg0, j->Arg1) : OnDeviceSetTargetExecStateFailed(j->Arg0, j->Arg1); break;
    case JT_RESET_TARGET_EXEC_STATE: Done ? OnDeviceResetTargetExecStateDone() : OnDeviceResetTargetExecStateFailed(); break;
    default: break;
  }
  // State that many windows care about.
  switch (j->Type) {
    case JT_RESET:
      if (d && d->IsTargetHalted() && d->CurrentPC() == PC) OnDeviceHaltDone(PC, HALT_REASON_RESET);
      break;
    case JT_STEP_INST: case JT_STEP_INTO: case JT_STEP_OVER: case JT_STEP_OUT: OnDeviceStepped(PC); break;
    case JT_SET_BP: case JT_SET_BPS: case JT_CLEAR_BP: case JT_CLEAR_BPS: case JT_CLEAR_ALL_BPS: case JT_RESET_BPS: OnDeviceBPStateChanged(); break;
    case JT_SET_WPS: case JT_CLEAR_WPS: case JT_CLEAR_ALL_WPS: OnDeviceWPStateChanged(); break;
    case JT_SET_TPS: case JT_CLEAR_TPS: case JT_CLEAR_ALL_TPS: OnDeviceTPStateChanged(); break;
    case JT_WRITE_REG:
      if (Done && j->Arg0 == VORDENARM_REG_PC) OnDeviceHaltDone(U32(j->Arg1), HALT_REASON_PC_WRITE);
      break;
    case JT_SET_TARGET_EXEC_STATE: OnDeviceResetDone(PC, RESET_MODES(5)); break;
    default: break;
  }
}
