#include "device/job.h"

#include "device/events.h"

#include <cstdlib>
#include <cstring>

namespace {

const char* const kNames[JT_LAST + 1] = {
    "Unknown", "JT_CONNECT", "JT_DISCONNECT", "JT_RESET", "JT_HALT", "JT_CONTINUE", "JT_STEP_INST",
    "JT_STEP_INTO", "JT_STEP_OVER", "JT_STEP_OUT", "Unknown", "JT_RUN_TO", "JT_EXEC_VORDEN_CMD", "JT_SET_BP",
    "JT_SET_BPS", "JT_CLEAR_BP", "JT_CLEAR_BPS", "JT_CLEAR_ALL_BPS", "JT_RESET_BPS", "JT_SET_WPS",
    "JT_CLEAR_WPS", "JT_CLEAR_ALL_WPS", "JT_SET_TPS", "JT_CLEAR_TPS", "JT_CLEAR_ALL_TPS", "JT_READ_REG",
    "JT_WRITE_REG", "JT_READ_CP_REG", "JT_WRITE_CP_REG", "JT_READ_REGS", "JT_END_DOWNLOAD", "JT_READ_MEM",
    "JT_WRITE_MEM", "JT_WRITE_MEM_MULTIPLE", "JT_READ_BYTE", "JT_WRITE_BYTE", "JT_READ_LOCS",
    "JT_ENABLE_SIMPLE_TRACE", "JT_DISABLE_SIMPLE_TRACE", "JT_START_SIMPLE_TRACE", "JT_STOP_SIMPLE_TRACE",
    "JT_READ_SIMPLE_TRACE", "JT_READ_INST_STATS", "JT_FLUSH_STRACE_BUFFER", "JT_START_SWO_TRACE",
    "JT_STOP_SWO_TRACE", "JT_READ_SWO_TRACE", "JT_SWO_GET_COMPAT_SPEEDS", "JT_START_LVT", "JT_STOP_LVT",
    "JT_FLUSH_LVT", "JT_READ_LVT", "JT_WRITE_LVT", "JT_START_HSS", "JT_STOP_HSS", "JT_READ_HSS",
    "JT_START_POWER_TRACE", "JT_STOP_POWER_TRACE", "JT_READ_POWER_TRACE", "JT_FLUSH_POWER_TRACE",
    "JT_CONFIGURE", "JT_SET_CONFIG_PARAM", "JT_GET_DEVICE_INFO", "JT_MEASURE_CORE_SPEED",
    "JT_RESET_TARGET_EXEC_STATE", "JT_SET_TARGET_EXEC_STATE", "JT_SET_SH_INPUT_TEXT", "Unknown", "Last"};

bool In(U32 t, std::initializer_list<U32> l) {
  for (U32 v : l)
    if (v == t) return true;
  return false;
}

}  // namespace

const char* JobName(U32 Type) { return Type <= JT_LAST ? kNames[Type] : "Unknown"; }

U32 JobQueueClass(U32 Type) {
  if (Type == JT_MEASURE_CORE_SPEED) return 2;
  if ((Type >= 1 && Type <= 9) || (Type >= 11 && Type <= 24) ||
      In(Type, {26, 28, 30, 32, 33, 34, 35, 37, 38, 39, 40, 43, 44, 45, 47, 48, 49, 53, 54, 56, 57, 59, 60, 61, 64, 65}))
    return 0;
  return 1;
}

int JobDefaultTimeout(U32 Type) {
  if (In(Type, {JT_CONNECT, JT_END_DOWNLOAD, JT_WRITE_MEM})) return 120000;
  if (In(Type, {JT_RESET, JT_EXEC_VORDEN_CMD, JT_CONFIGURE})) return 60000;
  if (In(Type, {JT_READ_MEM, JT_START_SWO_TRACE, JT_STOP_SWO_TRACE, JT_START_LVT, JT_STOP_LVT, JT_FLUSH_LVT,
                JT_START_HSS, JT_STOP_HSS, JT_START_POWER_TRACE, JT_STOP_POWER_TRACE}))
    return 10000;
  return 5000;
}

bool JobNeedsParam(U32 Type) {
  return In(Type, {12, 14, 16, 19, 20, 22, 23, 27, 28, 29, 32, 33, 36, 41, 42, 46, 47, 51, 55, 60, 62, 66});
}

bool IsStepJob(U32 Type) { return Type >= JT_STEP_INST && Type <= JT_STEP_OUT; }

int AllocJobParam(DEVICE_JOB* pJob, U16 Idx, U32 Size) {
  if (!pJob || Idx >= JOB_NUM_PARAMS) return -1;
  if (pJob->apDynParam[Idx]) {
    DeviceLogWarning("Job %s has unallocated parameter.", JobName(pJob->Type));
    return -1;
  }
  if (Size == 0 || Size > 1000000000u) {
    DeviceLogError("Size limit exceeded for dynamic parameter of job %s.", JobName(pJob->Type));
    return -1;
  }
  void* p = calloc(size_t(Size) + 1, 1);
  if (!p) return -1;
  pJob->apDynParam[Idx] = p;
  pJob->aDynParamSize[Idx] = Size;
  return 0;
}

int SetJobParam(DEVICE_JOB* pJob, U16 Idx, U32 Size, const void* pData) {
  if (AllocJobParam(pJob, Idx, Size) < 0) return -1;
  if (pData) memcpy(pJob->apDynParam[Idx], pData, Size);
  return 0;
}

void FreeJobParams(DEVICE_JOB* pJob) {
  for (int i = 0; i < JOB_NUM_PARAMS; ++i) {
    free(pJob->apDynParam[i]);
    pJob->apDynParam[i] = nullptr;
    pJob->aDynParamSize[i] = 0;
  }
}
