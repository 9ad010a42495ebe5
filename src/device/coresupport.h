// What the device layer needs of the processor: register access through the
// core plug-in, the map from core register numbers to probe register
// indexes, the size of the register cache and the extra breakpoint flags of
// an address. The core plug-in host installs an implementation while a
// plug-in is initialised, and installs it again (or nullptr) at every load,
// reconfiguration and unload. Without one the fallbacks hold: registers go
// straight to the probe, no register index (-1), no extra flags (0), a
// register cache of no entries.
#pragma once
#include "common/types.h"

class ICoreSupport {
 public:
  virtual ~ICoreSupport() = default;
  // Entries of the register cache (probe register indexes 0..n-1).
  virtual U32 NumProbeRegs() const = 0;
  // The probe register index of a core register (DWARF number, or an index
  // of the static core information); -1 when there is none.
  virtual int GetRegIndex(U32 CoreRegIdx) const = 0;
  // Mode bits to OR into the flags of a breakpoint at Addr.
  virtual U32 GetBPFlags(U32 Addr) const = 0;
  // Probe registers through the plug-in; 0 on success. ReadRegs fills one
  // status byte per register (0 good).
  virtual int ReadReg(U32 Idx, U64* pValue) = 0;
  virtual int ReadRegs(U32 Cnt, const U32* paIdx, U64* paValues, U8* paStatus) = 0;
  virtual int WriteReg(U32 Idx, U64 Value) = 0;
  virtual int ReadCPReg(const char* sName, U64* pValue) = 0;
  virtual int WriteCPReg(const char* sName, U64 Value) = 0;
};

// Installs the processor support (not owned; nullptr removes it). Every call
// counts one generation, so that holders of derived state (the register
// cache) see a reload even when the pointer stays the same.
void DEV_SetCoreSupport(ICoreSupport* pSupport);
ICoreSupport* DEV_GetCoreSupport();
U32 DEV_CoreSupportGeneration();

// What the instruction layer knows of the instruction at an address (its
// cache over the program, else the core plug-in): the size in bytes and the
// flag word of the core plug-in interface. False when nothing is known.
typedef bool (*DEV_INST_QUERY)(U64 Addr, U32* pSize, U64* pFlags);
// Installed by the instruction layer (nullptr removes it).
void DEV_SetInstQuery(DEV_INST_QUERY pfQuery);
DEV_INST_QUERY DEV_GetInstQuery();
