// Breakpoint, data breakpoint and tracepoint records shared by the device
// tables (worker side) and the breakpoint model (GUI side).
#pragma once
#include "common/types.h"

enum BP_STATES : U32 {
  BP_STATE_OFF = 0,
  BP_STATE_ON = 1,
  BP_STATE_ON_HIDDEN = 2,
  BP_STATE_DISABLED = 3,
  BP_STATE_MIXED = 4,
  BP_STATE_UNKNOWN = 5,
};

// Implementation a user permits, or the one the probe chose.
enum BP_TYPES : U32 {
  BP_TYPE_ANY = 0,
  BP_TYPE_HARD = 1,
  BP_TYPE_SOFT = 2,
  BP_TYPE_FLASH = 3,
  BP_TYPE_RAM = 4,
  BP_TYPE_PENDING = 5,
  BP_TYPE_MIXED = 6,
};

constexpr int DEVICE_MAX_BPS = 256, DEVICE_MAX_WPS = 256, DEVICE_MAX_TPS = 256;

// One instruction breakpoint of the device table; all bytes zero = free.
struct DEVICE_BP {
  U32 Addr;
  U64 HitCount;      // hits counted by the halt sequence
  U8 HasCondition;   // the halt sequence asks the GUI thread before stopping
  U8 Occupied;
  BP_STATES State;
  BP_TYPES Type;      // permitted implementation
  BP_TYPES ImplType;  // implementation in force
};

enum WP_ACCESS_TYPES : U32 { AT_READ_ONLY = 0, AT_WRITE_ONLY = 1, AT_READ_WRITE = 2, AT_NO_ACCESS = 3 };
// AccessSize of a WP takes the AW_* values of device.h: AW_ANY 0, AW_BYTE 1,
// AW_HALF_WORD 2, AW_WORD 4.

// A data breakpoint. State BP_STATE_UNKNOWN in a returned record: there is no
// such data breakpoint. Identity: Addr, AddrMask, MatchValue, ValueMask,
// AccessType, AccessSize (neither State nor Symbol).
struct WP {
  U32 Addr = 0;
  U32 AddrMask = 0;        // address bits set here are ignored
  U32 MatchValue = 0;
  U64 ValueMask = ~0ull;   // value bits set here are ignored; all ones: no value condition
  I32 ErrCode = 0;         // result of the last probe call
  U8 Occupied = 0;
  BP_STATES State = BP_STATE_UNKNOWN;
  U32 AccessType = AT_WRITE_ONLY;
  U32 AccessSize = 0;
  char Symbol[256] = {};   // expression or symbol the user named; empty for an address
};

enum TP_OPS : U8 { TP_OP_START = 0, TP_OP_STOP = 1 };

struct TP {
  U8 Op = TP_OP_START;
  U64 Addr = ~0ull;   // the key; -1 names no tracepoint
  U8 State = 0;       // a BP_STATES value; only BP_STATE_ON reaches the probe
  U8 Occupied = 0;
  U8 FromSource = 0;  // the user named a source location or symbol
};
