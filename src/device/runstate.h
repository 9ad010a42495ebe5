// The execution state of the target as the device worker knows it, and the
// context of a source step. Plain values: the worker writes them, other
// threads get copies through CDevice::ExecState().
#pragma once
#include "common/srcloc.h"
#include "common/types.h"
#include "device/bptypes.h"

// Status bytes of the execution state.
enum EXEC_STATUS : U8 { EXEC_STATUS_VALID = 0, EXEC_STATUS_STALE = 1, EXEC_STATUS_UNKNOWN = 3 };

struct DEVICE_EXEC_STATE {
  U64 PC = 0, SP = 0, ReturnAddr = 0;
  U8 PCStatus = EXEC_STATUS_UNKNOWN, SPStatus = EXEC_STATUS_UNKNOWN, ReturnAddrStatus = EXEC_STATUS_UNKNOWN;
  // Source file index and line of the PC: ~0 unknown, 0 without line information.
  U64 CurrFile = ~0ull, CurrLine = ~0ull;
  // The function at the PC and its range (end clipped to 4 GiB); ~0 unknown.
  U64 FuncStart = ~0ull, FuncEnd = ~0ull;
  U64 hFunc = 0;  // ELF_SYM_HANDLE of the function at the PC, 0 none
};

constexpr int STEP_HISTORY_SIZE = 1000;
constexpr int STEP_MAX_INSTS = 1000;

// Written when a step over starts; a continuation after a run to a hidden
// breakpoint keeps it, so the whole step has one history and one line to leave.
struct STEP_CONTEXT {
  U64 PC, SP, ReturnAddr;
  U8 PCStatus, SPStatus, ReturnAddrStatus;
  CSrcLoc Loc;        // File and Line of the start, column 0
  U64 hFunc;          // function at the start PC
  U64 hReturnFunc;    // function at the return address
  U32 StepCount;      // machine instructions so far
  U64 History[STEP_HISTORY_SIZE];  // PC before each machine step
};
