// Device list of the probe library: generic simulator cores and real parts
// with their memory maps. Index 0 is a placeholder ("Unspecified").
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "common/types.h"

namespace vorden {

enum CoreKind { CORE_M0, CORE_M3, CORE_M4, CORE_M7 };

// Core ids: family in bits 31..24 (3 Cortex-M3, 6 Cortex-M0, 14 Cortex-M4/M7).
constexpr U32 CORE_ID_CORTEX_M0 = 0x060000FF;
constexpr U32 CORE_ID_CORTEX_M3 = 0x030000FF;
constexpr U32 CORE_ID_CORTEX_M4 = 0x0E0000FF;
constexpr U32 CORE_ID_CORTEX_M7 = 0x0E0100FF;

struct MemRegion {
  U32 Addr;
  U32 Size;
  bool CpuWritable;   // false: flash, written only through the debug path
  U32 AliasOf;        // non-zero: this region mirrors the region at that address
  const char* sName;
};

struct PeriphRange {  // unmodelled peripherals: read as zero, ignore writes
  U32 Addr;
  U32 Size;
  const char* sName;
};

struct DeviceDesc {
  const char* sName;
  const char* sManu;
  CoreKind Core;
  bool HasFPU;
  U32 ClockHz;
  U32 NumHWBPs;
  U32 NumDataEvents;
  U32 FlashAddr, FlashSize;   // the main code memory
  U32 RAMAddr, RAMSize;       // the main RAM (LVT search default, record)
  std::vector<MemRegion> Regions;
  std::vector<PeriphRange> Periphs;
};

// Base of the simulator peripheral block (UART, LED, clock); free in every
// listed memory map.
constexpr U32 SIM_BLOCK_ADDR = 0x4FFF0000;
constexpr U32 SIM_BLOCK_SIZE = 0x1000;

const std::vector<DeviceDesc>& DeviceList();
int FindDevice(const char* sName);            // case-insensitive; -1 unknown
U32 CoreIdOf(const DeviceDesc& d);
const char* CoreNameOf(U32 CoreId);

}  // namespace vorden
