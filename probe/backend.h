// The seam between the exported C functions and a target back end. The
// built-in simulator is one back end (selected by the "USB" host interface);
// the GDB remote protocol client is another (selected by "IP"). Every back
// end has run control, registers, memory, breakpoints and commands; trace,
// terminals, sampling and power are capabilities a back end may lack.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "device/vorden_api.h"

namespace vorden {

using LogFn = std::function<void(int Level, const std::string& sText)>;  // 0 info, 1 warn, 2 error

class ITraceBackend;
class ITerminalBackend;
class ISamplingBackend;
class IPowerBackend;

class CBackend {
 public:
  virtual ~CBackend() = default;
  virtual int DeviceIndex() const = 0;

  // Run control. IsHalted: 1 halted, 0 running, negative: the target is
  // lost. Halt and Step: 0 done, non-zero failed.
  virtual int IsHalted() = 0;
  virtual int Halt() = 0;
  virtual int Go(U32 Flags) = 0;
  virtual int Step() = 0;
  virtual int Reset() = 0;

  // Registers (probe indices), only while halted.
  virtual int ReadReg(U32 Idx, U64& Value) = 0;
  virtual int WriteReg(U32 Idx, U64 Value) = 0;

  // Memory through the debug path: number of leading bytes transferred.
  virtual int ReadMem(U32 Addr, U32 NumBytes, U8* pData) = 0;
  virtual int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) = 0;

  // Breakpoints and data events.
  virtual int SetBP(U32 Addr, U32 Flags) = 0;
  virtual int ClrBP(int Handle) = 0;
  virtual int FindBP(U32 Addr) = 0;
  virtual int GetBPInfo(int Index, VORDENARM_BP_INFO* pInfo) = 0;
  virtual int SetDataEvent(const VORDENARM_DATA_EVENT& Ev, U32* pHandle) = 0;
  virtual int ClrDataEvent(U32 Handle) = 0;
  virtual int GetWPInfo(int Index, VORDENARM_WP_INFO* pInfo) = 0;
  virtual void SetLimits(int MaxHWBPs, int MaxDataEvents) = 0;  // -1: device default

  // Knobs and commands that belong to the back end; false if unknown.
  virtual bool ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) = 0;

  // Optional capabilities: null when the back end has none (the exports
  // then refuse the call the documented way). The object lives as long as
  // the back end.
  virtual ITraceBackend* Trace() { return nullptr; }
  virtual ITerminalBackend* Terminal() { return nullptr; }
  virtual ISamplingBackend* Sampling() { return nullptr; }
  virtual IPowerBackend* Power() { return nullptr; }
};

// Instruction trace and execution statistics.
class ITraceBackend {
 public:
  virtual ~ITraceBackend() = default;
  virtual int TraceControl(U32 Cmd, void* pData) = 0;
  virtual int TraceStart() = 0;
  virtual int TraceStop() = 0;
  // Newest first; pNumStamps: room for stamps in, stamps written out.
  virtual int TraceRead(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps) = 0;
  virtual int GetInstStats(U64* paItem, U32 Addr, U32 NumItems) = 0;
};

// Terminal channels: the LVT control block in target RAM and the SWO
// stimulus ports.
class ITerminalBackend {
 public:
  virtual ~ITerminalBackend() = default;
  virtual int LVTControl(U32 Cmd) = 0;
  virtual int LVTRead(U32 BufIdx, U8* pData, U32 NumBytes) = 0;
  virtual int LVTWrite(U32 BufIdx, const U8* pData, U32 NumBytes) = 0;
  virtual int SWOEnable(U32 PortMask) = 0;
  virtual int SWODisable(U32 PortMask) = 0;
  virtual int SWORead(int Port, U8* pData, U32 NumBytes) = 0;
  virtual int SWOFlush(U32 NumBytes) = 0;
  virtual int SWOCount() = 0;
};

// High speed sampling of memory blocks.
class ISamplingBackend {
 public:
  virtual ~ISamplingBackend() = default;
  virtual int HSSStart(const VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int PeriodUs) = 0;
  virtual int HSSStop() = 0;
  virtual int HSSRead(U8* pBuffer, U32 BufferSize) = 0;
};

// Target supply current.
class IPowerBackend {
 public:
  virtual ~IPowerBackend() = default;
  virtual int PowerControl(int Cmd, void* pIn, void* pOut) = 0;
  virtual int PowerRead(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems) = 0;
};

// The WP info record of a data event, the same on every back end: d has the
// handle, the event as set and the widened address mask.
template <class DATA_EVENT>
void FillWPInfo(const DATA_EVENT& d, int Index, VORDENARM_WP_INFO* pInfo) {
  pInfo->Handle = d.Handle;
  pInfo->Addr = d.Ev.Addr;
  pInfo->AddrMask = d.AddrMask;
  pInfo->Data = d.Ev.Data;
  pInfo->DataMask = d.Ev.DataMask;
  pInfo->Access = d.Ev.Access;
  pInfo->AccessMask = d.Ev.AccessMask;
  pInfo->UnitMask = 1u << Index;
}

}  // namespace vorden
