// The device job record and the fixed job table: queue class, default wait
// time-out and required parameter of every job type, and the job names that
// logs and messages print.
#pragma once
#include "common/types.h"

enum JOB_TYPES : U32 {
  JT_NONE = 0,
  JT_CONNECT = 1, JT_DISCONNECT, JT_RESET, JT_HALT, JT_CONTINUE, JT_STEP_INST, JT_STEP_INTO, JT_STEP_OVER,
  JT_STEP_OUT,
  JT_ANY_STEP = 10,  // pseudo type of IsJobPending: any step job
  JT_RUN_TO = 11, JT_EXEC_VORDEN_CMD, JT_SET_BP, JT_SET_BPS, JT_CLEAR_BP, JT_CLEAR_BPS, JT_CLEAR_ALL_BPS,
  JT_RESET_BPS, JT_SET_WPS, JT_CLEAR_WPS, JT_CLEAR_ALL_WPS, JT_SET_TPS, JT_CLEAR_TPS, JT_CLEAR_ALL_TPS,
  JT_READ_REG, JT_WRITE_REG, JT_READ_CP_REG, JT_WRITE_CP_REG, JT_READ_REGS, JT_END_DOWNLOAD, JT_READ_MEM,
  JT_WRITE_MEM, JT_WRITE_MEM_MULTIPLE, JT_READ_BYTE, JT_WRITE_BYTE, JT_READ_LOCS, JT_ENABLE_SIMPLE_TRACE,
  JT_DISABLE_SIMPLE_TRACE, JT_START_SIMPLE_TRACE, JT_STOP_SIMPLE_TRACE, JT_READ_SIMPLE_TRACE,
  JT_READ_INST_STATS, JT_FLUSH_STRACE_BUFFER, JT_START_SWO_TRACE, JT_STOP_SWO_TRACE, JT_READ_SWO_TRACE,
  JT_SWO_GET_COMPAT_SPEEDS, JT_START_LVT, JT_STOP_LVT, JT_FLUSH_LVT, JT_READ_LVT, JT_WRITE_LVT, JT_START_HSS,
  JT_STOP_HSS, JT_READ_HSS, JT_START_POWER_TRACE, JT_STOP_POWER_TRACE, JT_READ_POWER_TRACE,
  JT_FLUSH_POWER_TRACE, JT_CONFIGURE, JT_SET_CONFIG_PARAM, JT_GET_DEVICE_INFO, JT_MEASURE_CORE_SPEED,
  JT_RESET_TARGET_EXEC_STATE, JT_SET_TARGET_EXEC_STATE, JT_SET_SH_INPUT_TEXT,
  JT_ALL = 67,   // CancelJobs: every type
  JT_LAST = 68,
};

constexpr U32 JOB_FLAG_PENDING = 1;
constexpr U32 JOB_FLAG_TAKEN = 2;  // the worker has taken the slot
constexpr int JOB_NUM_PARAMS = 3;

// One job, copied by value into a ring slot. Type is published last (release)
// and read first (acquire): a slot whose Type is 0 is free.
struct DEVICE_JOB {
  U32 Type;
  U32 Queue;
  U64 JobID;
  U32 Status;        // 0 done, 1 failed, 2 dropped without a report
  U32 Flags;         // JOB_FLAG_PENDING
  I64 Result;
  U64 Out0, Out1, Out2;
  U64 Arg0, Arg1;
  U32 Arg2, Arg3, Arg4;
  void* apDynParam[JOB_NUM_PARAMS];
  U32 aDynParamSize[JOB_NUM_PARAMS];
};

// "JT_READ_MEM" style names; "Unknown" for values that are no job, "Last" for 68.
const char* JobName(U32 Type);
// 0 control, 1 reads and everything else, 2 core speed measurement.
U32 JobQueueClass(U32 Type);
int JobDefaultTimeout(U32 Type);
// The job needs its first dynamic parameter.
bool JobNeedsParam(U32 Type);
bool IsStepJob(U32 Type);

// Dynamic parameters: Size + 1 zeroed bytes, so texts stay terminated. 0 or -1.
int AllocJobParam(DEVICE_JOB* pJob, U16 Idx, U32 Size);
int SetJobParam(DEVICE_JOB* pJob, U16 Idx, U32 Size, const void* pData);
void FreeJobParams(DEVICE_JOB* pJob);
