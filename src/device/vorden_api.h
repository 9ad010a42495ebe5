// The operations of the Vorden probe library (libVorden.so).
//
// All target access of the debugger goes through these C functions. The
// library selects a back end by the host interface: "USB" (SelectUSB or
// EMU_SelectByUSBSN) selects the built-in simulated Cortex-M target, "IP"
// (SelectIP with "host:port", port 3333 by default) connects to any GDB server
// through the GDB remote protocol back end (probe/gdb/).
//
// Every function may be called from any thread at any moment. Results follow
// one rule unless a function says otherwise: 0 (or a count) on success, a
// negative value on failure. Addresses are 32-bit target addresses.
//
// Conventions of the simulated target are described in probe/README.md:
// device list and memory maps, the simulator peripheral block, the "Sim..."
// test commands of VORDENARM_ExecCommand, trace markers and the power model.
#pragma once

#include "common/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define VORDEN_API __declspec(dllexport)
#else
#define VORDEN_API __attribute__((visibility("default")))
#endif

#define VORDEN_DLL_VERSION 70000

// Callback for the library's own log, error and warning lines.
typedef void VORDEN_LOG(const char* sText);

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

// Device record of VORDENARM_DEVICE_GetInfo. The caller sets SizeOfStruct; the
// library fills only the fields that fit in that size.
typedef struct {
  U32 SizeOfStruct;
  const char* sName;     // device name, e.g. "STM32F407VG"
  U32 CoreId;            // core id; the core family is CoreId >> 24
  U32 FlashAddr;         // first flash (read-only code memory) address
  U32 RAMAddr;           // first RAM address
  U8 EndianMode;         // 0 little endian
  U32 FlashSize;         // bytes
  U32 RAMSize;           // bytes
  const char* sManu;     // maker text
  U32 CoreClockHz;       // simulated core clock
  U32 NumHWBPs;          // hardware breakpoint comparators
  U32 NumDataEvents;     // data event (watchpoint) comparators
  U32 HasFPU;            // 1 if FPSCR and S0-S31 exist
} VORDENARM_DEVICE_INFO;

// Memory zone entry of VORDEN_GetMemZones. The simulator has no zones.
typedef struct {
  const char* sName;
  const char* sDesc;
  U64 VirtAddr;
  U8 abDummy[16];
} VORDEN_MEM_ZONE_INFO;

// Data event (28 bytes) for VORDENARM_SetDataEvent.
// Access: bit 0 = 1 write, 0 read; bits 1-2 size (2 half word, 4 word, 0 byte).
// AccessMask: a set bit ignores that bit of Access (bit 0 set: read or write;
// bits 1-2 set: any size). Bit 4 is always set by callers.
typedef struct {
  U32 SizeOfStruct;  // 28
  U32 Type;          // 1 = address/data event
  U32 Addr;
  U32 AddrMask;      // set bits are ignored in the address compare
  U32 Data;
  U32 DataMask;      // set bits are ignored in the data compare
  U8 Access;
  U8 AccessMask;
  U8 abDummy[2];
} VORDENARM_DATA_EVENT;

// Error bits returned (negative) by VORDENARM_SetDataEvent.
#define VORDENARM_EVENT_ERR_UNKNOWN          0x80000000u
#define VORDENARM_EVENT_ERR_NO_MORE_EVENTS   0x80000001u
#define VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP 0x80000002u
#define VORDENARM_EVENT_ERR_NO_MORE_DATA_COMP 0x80000004u
#define VORDENARM_EVENT_ERR_ADDR_MASK        0x80000020u
#define VORDENARM_EVENT_ERR_DATA_MASK        0x80000040u
#define VORDENARM_EVENT_ERR_ACC_MASK         0x80000080u

// Data event information record (40 bytes) of VORDENARM_GetWPInfoEx. The
// address mask comes back widened to the access size.
typedef struct {
  U32 SizeOfStruct;  // 40
  U32 Handle;
  U32 Addr;
  U32 AddrMask;
  U32 Data;
  U32 DataMask;
  U32 Access;
  U32 AccessMask;
  U32 UnitMask;      // comparator used
  U32 Dummy;
} VORDENARM_WP_INFO;

// Breakpoint information record (28 bytes) of VORDENARM_GetBPInfoEx.
typedef struct {
  U32 SizeOfStruct;  // 28
  U32 Handle;        // in with index -1
  U32 Addr;
  U32 Type;          // flags given to SetBPEx
  U32 ImpFlags;      // VORDENARM_BP_IMP_*
  U32 UseCnt;
  U8 IsPending;
  U8 abDummy[3];
} VORDENARM_BP_INFO;

// Breakpoint flags of VORDENARM_SetBPEx: bits 4-7 allow software
// implementations, bits 8-31 allow hardware comparators. 0xFFFFFFF0 lets the
// library choose (hardware first), 0xFFFFFF00 asks for hardware, 0xF0 for
// software. Low bits 0-3 are mode bits (Thumb) and are ignored.
#define VORDENARM_BP_TYPE_SW_MASK 0x000000F0u
#define VORDENARM_BP_TYPE_HW_MASK 0xFFFFFF00u
// Implementation flags in VORDENARM_BP_INFO.ImpFlags.
#define VORDENARM_BP_IMP_HW      0x01u
#define VORDENARM_BP_IMP_SW_RAM  0x02u
#define VORDENARM_BP_IMP_PENDING 0x04u
#define VORDENARM_BP_IMP_SW_FLASH 0x10u

// GoEx flags.
#define VORDENARM_GO_FLAG_OVERSTEP_BP 1u

// Trace event record (40 bytes) of VORDEN_STRACE_Control.
typedef struct {
  U32 SizeOfStruct;  // 40
  U8 Type;           // 0 = code address
  U8 Op;             // 0 start tracing, 1 stop tracing
  U8 abDummy0[2];
  U64 Addr;          // byte 8
  U8 abDummy1[24];
} VORDEN_STRACE_EVENT_INFO;

#define VORDEN_STRACE_CMD_SET_TRACE_EVENT   0
#define VORDEN_STRACE_CMD_CLR_ALL_TRACE_EVENTS 2

// Markers in the PC stream of VORDEN_STRACE_Read (never a real PC).
#define VORDEN_STRACE_MARKER_EXC_ENTRY  0xFFFFFFF0u
#define VORDEN_STRACE_MARKER_EXC_RETURN 0xFFFFFFF1u

// Time stamp of VORDEN_STRACE_ReadEx: the cycle count at which the
// instruction with index InstIndex (0 = newest of this read) executed.
typedef struct {
  U64 Cycles;
  U32 InstIndex;
  U32 Dummy;
} VORDEN_STRACE_TIMESTAMP_INFO;

// Memory block of VORDEN_HSS_Start (four words).
typedef struct {
  U32 Addr;
  U32 NumBytes;
  U32 Flags;
  U32 Dummy;
} VORDEN_HSS_MEM_BLOCK_DESC;

// Power trace set-up (Cmd 0) and capabilities (Cmd 4).
typedef struct {
  U32 SizeofStruct;  // 24
  U32 ChannelMask;
  U32 Freq;
  U32 RefSelect;
  U32 RefCount;
  U32 Flags;         // bit 1: high resolution (nA instead of uA)
} VORDEN_POWERTRACE_SETUP;

typedef struct {
  U32 SizeofStruct;  // 12
  U32 ChannelMask;
  U32 Caps;          // bit 1: high resolution
} VORDEN_POWERTRACE_CAPS;

typedef struct {
  U32 Time;          // microseconds of target time
  U32 Value;         // current in uA (nA with high resolution)
} VORDEN_POWERTRACE_DATA_ITEM;

// Probe register indices of VORDENARM_ReadRegs / VORDENARM_WriteReg.
enum {
  VORDENARM_REG_R0 = 0,     // R0..R12 = 0..12
  VORDENARM_REG_SP = 13,    // the current stack pointer
  VORDENARM_REG_LR = 14,
  VORDENARM_REG_PC = 15,
  VORDENARM_REG_XPSR = 16,
  VORDENARM_REG_MSP = 17,
  VORDENARM_REG_PSP = 18,
  VORDENARM_REG_PRIMASK = 19,
  VORDENARM_REG_BASEPRI = 20,
  VORDENARM_REG_FAULTMASK = 21,
  VORDENARM_REG_CONTROL = 22,
  VORDENARM_REG_FPSCR = 23,  // FPU cores only
  VORDENARM_REG_S0 = 24,     // S0..S31 = 24..55, FPU cores only
  VORDENARM_REG_NUM = 56
};

// ---------------------------------------------------------------------------
// Session
// ---------------------------------------------------------------------------
VORDEN_API int VORDENARM_GetDLLVersion(void);               // 70000
VORDEN_API const char* VORDENARM_Open(void);                // null or error text
VORDEN_API void VORDENARM_Close(void);
VORDEN_API char VORDENARM_IsOpen(void);
VORDEN_API char VORDENARM_IsConnected(void);
VORDEN_API int VORDENARM_Connect(void);                     // 0 = target reached
VORDEN_API int VORDENARM_SelectUSB(int Port);               // negative on failure
VORDEN_API int VORDENARM_EMU_SelectByUSBSN(U32 SerialNo);   // negative: no probe
VORDEN_API signed char VORDENARM_SelectIP(const char* sHost, int Port); // 0 selected, 1 on failure
// Result 0 on success; an unknown or failing command writes a non-empty
// error text into acOut (cut to BufferSize) and returns a negative value.
VORDEN_API int VORDENARM_ExecCommand(const char* sCmd, char* acOut, int BufferSize);
VORDEN_API int VORDENARM_SetEndian(int BigEndian);          // only 0 is accepted
VORDEN_API int VORDENARM_SetCoreIndex(U32 CoreIndex);
VORDEN_API int VORDENARM_TIF_Select(int Interface);         // 0 JTAG, 1 SWD, ...
VORDEN_API int VORDENARM_ConfigJTAG(int IRPre, int DRPre);
VORDEN_API void VORDENARM_SetSpeed(U32 Speed);              // kHz, 0 auto, 65535 adaptive
VORDEN_API U16 VORDENARM_GetSpeed(void);
VORDEN_API void VORDENARM_EnableLog(VORDEN_LOG* pfLog);
VORDEN_API void VORDENARM_SetErrorOutHandler(VORDEN_LOG* pfErrorOut);
VORDEN_API void VORDENARM_SetWarnOutHandler(VORDEN_LOG* pfWarnOut);
// One line per call ("Name(args) = result") goes to this file; null or an
// empty path turns the call log off.
VORDEN_API void VORDENARM_SetLogFile(const char* sFilePath);
VORDEN_API int VORDENARM_GetSN(void);
VORDEN_API int VORDENARM_GetFirmwareString(char* sBuffer, int BufferSize);
VORDEN_API int VORDENARM_DEVICE_GetIndex(const char* sDeviceName); // negative: unknown
// Idx -1 and null: the number of devices. Otherwise 0 on success.
VORDEN_API int VORDENARM_DEVICE_GetInfo(int DeviceIndex, VORDENARM_DEVICE_INFO* pDeviceInfo);
VORDEN_API int VORDENARM_Core2CoreName(U32 Core, char* sBuffer, unsigned BufferSize);
VORDEN_API int VORDEN_GetMemZones(VORDEN_MEM_ZONE_INFO* paZoneInfo, int MaxNumZones);
// Id 10: int (*)(void) background memory access mode (0 none, 1 yes, 2 stop
// mode); Id 12: int (*)(void) endianness (0 little); others null.
VORDEN_API void* VORDEN_GetpFunc(int FuncId);
VORDEN_API int VORDENARM_EMU_HasCapEx(int CapEx);           // 23: SWO
VORDEN_API int VORDENARM_RAWTRACE_Control(U32 Cmd, void* pData); // Cmd 4: caps word, bit 5 streaming
VORDEN_API void VORDENARM_EnableSoftBPs(char Enable);

// ---------------------------------------------------------------------------
// Run control
// ---------------------------------------------------------------------------
// Signed results: a lost connection is negative on every platform.
// IsHalted: 1 halted, 0 running, -1 connection lost or not connected.
VORDEN_API signed char VORDENARM_IsHalted(void);
// Halt: 0 halted, 1 the core did not stop, -1 connection lost or not connected.
VORDEN_API signed char VORDENARM_Halt(void);
// Resume. MaxEmulInsts is ignored; flag 1 steps over a breakpoint at the PC.
VORDEN_API void VORDENARM_GoEx(U32 MaxEmulInsts, U32 Flags);
VORDEN_API void VORDENARM_Go(void);
// Step: 0 stepped and halted after, 1 not stepped (running, locked up or the
// step did not finish), -1 connection lost or not connected.
VORDEN_API signed char VORDENARM_Step(void);
VORDEN_API int VORDENARM_SetResetType(int ResetType);
VORDEN_API void VORDENARM_SetResetDelay(int DelayMs);
VORDEN_API int VORDENARM_Reset(void);                       // 0: halted at the reset vector

// ---------------------------------------------------------------------------
// Registers
// ---------------------------------------------------------------------------
// Fills paData and paStatus (0 = valid, 1 = unreadable) for NumRegs indices;
// result 0 if all were read, -1 on failure (not halted, bad arguments).
VORDEN_API int VORDENARM_ReadRegs(const U32* paRegIndex, U64* paData, U8* paStatus, U32 NumRegs);
VORDEN_API int VORDENARM_WriteReg(U32 RegIndex, U64 Data);  // 0 on success
VORDEN_API U32 VORDENARM_ReadReg(U32 RegIndex);             // 0 when unreadable

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------
// AccessWidth: 0 any, 1 byte, 2 half word, 4 word. Reads give the number of
// leading bytes that could be read (a partial read across the end of memory
// gives its readable prefix) and a negative value when none could.
VORDEN_API int VORDENARM_ReadMemEx(U32 Addr, U32 NumBytes, void* pData, U32 AccessWidth);
VORDEN_API int VORDENARM_ReadMem(U32 Addr, U32 NumBytes, void* pData); // 0 on full success
// Item reads: per item a status byte (0 valid, 1 unreadable); result the
// number of leading items read, negative when none.
VORDEN_API int VORDENARM_ReadMemU8(U32 Addr, U32 NumItems, U8* pData, U8* pStatus);
VORDEN_API int VORDENARM_ReadMemU16(U32 Addr, U32 NumItems, U16* pData, U8* pStatus);
VORDEN_API int VORDENARM_ReadMemU32(U32 Addr, U32 NumItems, U32* pData, U8* pStatus);
VORDEN_API int VORDENARM_ReadMemU64(U32 Addr, U32 NumItems, U64* pData, U8* pStatus);
// Zoned access: sZone must be null or empty (the simulator has one zone);
// item results are byte counts.
VORDEN_API int VORDEN_ReadMemZonedEx(U32 Addr, U32 NumBytes, void* pData, U32 AccessWidth, const char* sZone);
VORDEN_API int VORDEN_ReadMemZonedU16(U32 Addr, U32 NumItems, U16* pData, U8* pStatus, const char* sZone);
VORDEN_API int VORDEN_ReadMemZonedU32(U32 Addr, U32 NumItems, U32* pData, U8* pStatus, const char* sZone);
VORDEN_API int VORDENARM_WriteU8(U32 Addr, U8 Data);         // 0 on success
VORDEN_API int VORDENARM_WriteU16(U32 Addr, U16 Data);
VORDEN_API int VORDENARM_WriteU32(U32 Addr, U32 Data);
VORDEN_API int VORDENARM_WriteU64(U32 Addr, U64 Data);
VORDEN_API int VORDENARM_WriteMemEx(U32 Addr, U32 NumBytes, const void* pData, U32 AccessWidth); // bytes written
VORDEN_API int VORDENARM_WriteMem(U32 Addr, U32 NumBytes, const void* pData); // bytes written
VORDEN_API int VORDEN_WriteZonedU16(U32 Addr, U16 Data, const char* sZone);
VORDEN_API int VORDEN_WriteZonedU32(U32 Addr, U32 Data, const char* sZone);
VORDEN_API int VORDEN_WriteMemZonedEx(U32 Addr, U32 NumBytes, const void* pData, U32 AccessWidth, const char* sZone);
// Writes between Begin and End are a program download; End gives 0 or
// -1 unspecified error, -2 program/erase error, -3 verify error, -4 flash
// algorithm error (the last three only through the "SimDownloadError" knob).
VORDEN_API void VORDENARM_BeginDownload(U32 Flags);
VORDEN_API int VORDENARM_EndDownload(void);

// ---------------------------------------------------------------------------
// Breakpoints and data events
// ---------------------------------------------------------------------------
VORDEN_API int VORDENARM_SetBPEx(U32 Addr, U32 Flags);      // handle, 0 = failure
VORDEN_API int VORDENARM_ClrBPEx(int BPHandle);             // 0 on success; -1 clears all
VORDEN_API int VORDENARM_FindBP(U32 Addr);                  // handle, 0 = none
// Index -1: the record's Handle selects the breakpoint; otherwise the index
// into the list. Result: the number of breakpoints, negative on failure.
VORDEN_API int VORDENARM_GetBPInfoEx(int Index, VORDENARM_BP_INFO* pInfo);
// Result 0 and *pHandle on success, else the negative error bits above.
VORDEN_API int VORDENARM_SetDataEvent(VORDENARM_DATA_EVENT* pEvent, U32* pHandle);
VORDEN_API int VORDENARM_ClrDataEvent(U32 Handle);          // 0 on success; -1 (0xFFFFFFFF) clears all
// Index -1: the number of data events; otherwise fills the record, 0.
VORDEN_API int VORDENARM_GetWPInfoEx(int Index, VORDENARM_WP_INFO* pInfo);

// ---------------------------------------------------------------------------
// Streaming instruction trace and statistics
// ---------------------------------------------------------------------------
VORDEN_API int VORDEN_STRACE_Config(const char* sConfig);   // "PortWidth=4" etc.
VORDEN_API int VORDEN_STRACE_Start(void);
VORDEN_API int VORDEN_STRACE_Stop(void);
// Newest first; each call continues behind the last one; the read position
// restarts at the newest instruction whenever the target halts. Result: the
// number of PCs delivered (markers included), negative on error.
VORDEN_API int VORDEN_STRACE_Read(U32* paItem, U32 NumItems);
VORDEN_API int VORDEN_STRACE_ReadEx(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps, int Flags);
// Cmd 0 adds a trace event (VORDEN_STRACE_EVENT_INFO; Op 0 starts recording
// at Addr, Op 1 stops it after Addr; with start events present, recording is
// off until one is reached), Cmd 2 clears all. Other commands: -1.
VORDEN_API int VORDEN_STRACE_Control(U32 Cmd, void* pData);
// Fills NumItems U64 values: the fetch counters of the 2-byte steps from Addr,
// then the skip counters; the last item of each half is the total. Result: the
// number of values written. Works while the target runs.
VORDEN_API int VORDEN_STRACE_GetInstStats(void* paItem, U32 Addr, U32 NumItems, U32 ItemSize, U32 Type);

// ---------------------------------------------------------------------------
// Terminal channels
// ---------------------------------------------------------------------------
// Cmd 0 start (search the control block), 1 stop. 0 = success.
VORDEN_API int VORDEN_LVTERMINAL_Control(U32 Cmd, void* pArg);
VORDEN_API int VORDEN_LVTERMINAL_Read(U32 BufferIndex, void* pBuffer, U32 NumBytes);
VORDEN_API int VORDEN_LVTERMINAL_Write(U32 BufferIndex, const void* pBuffer, U32 NumBytes);
VORDEN_API int VORDENARM_SWO_EnableTarget(U32 CPUSpeed, U32 SWOSpeed, int Mode, U32 PortMask);
VORDEN_API int VORDENARM_SWO_DisableTarget(U32 PortMask);
// Cmd 2 flushes *(U32*)pArg bytes (all with null); Cmd 0 returns the number of bytes buffered.
VORDEN_API int VORDENARM_SWO_Control(U32 Cmd, void* pArg);
// Copies (without removing) up to NumBytes bytes written to ITM stimulus port
// Port; result the number of bytes. VORDENARM_SWO_Control(2) removes them.
VORDEN_API int VORDENARM_SWO_ReadStimulus(int Port, U8* pData, U32 NumBytes);
VORDEN_API int VORDENARM_SWO_GetCompatibleSpeeds(U32 CPUSpeed, U32 MaxSWOSpeed, U32* paSWOSpeed, U32 NumEntries);

// ---------------------------------------------------------------------------
// Sampling and power
// ---------------------------------------------------------------------------
// 0, or -1 unspecified, -2 allocation, -3 too many blocks, -4 not supported.
VORDEN_API int VORDEN_HSS_Start(VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int Period_us, int Flags);
VORDEN_API int VORDEN_HSS_Stop(void);
// Records: U32 time stamp in us of target time, then the blocks' bytes in
// order. Only whole records are delivered. Result: bytes.
VORDEN_API int VORDEN_HSS_Read(void* pBuffer, U32 BufferSize);
VORDEN_API int VORDEN_POWERTRACE_Control(int Cmd, void* pIn, void* pOut);
VORDEN_API int VORDEN_POWERTRACE_Read(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems);

#ifdef __cplusplus
}
#endif
