// Memory of the simulated target: host buffers for the device's RAM and code
// regions (aliases share their buffer). The engine maps the same buffers, so
// the debug path reads and writes them directly at any moment.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devices.h"

namespace vorden {

class CSimMemory {
 public:
  struct Region {
    U32 Addr, Size;
    bool CpuWritable;
    U8* pHost;
    std::string sName;
  };

  explicit CSimMemory(const DeviceDesc& Dev);
  CSimMemory(const CSimMemory&) = delete;
  CSimMemory& operator=(const CSimMemory&) = delete;

  const std::vector<Region>& Regions() const { return m_regions; }
  // The region that holds all of [Addr, Addr + Len), or null.
  const Region* Find(U32 Addr, U32 Len) const {
    for (const Region& r : m_regions)
      if (Addr >= r.Addr && (U64)Addr + Len <= (U64)r.Addr + r.Size) return &r;
    return nullptr;
  }
  U8* HostPtr(U32 Addr, U32 Len) const {
    const Region* r = Find(Addr, Len);
    return r ? r->pHost + (Addr - r->Addr) : nullptr;
  }
  // Word access as the core sees it: writes only to CPU-writable regions.
  bool CpuRead32(U32 Addr, U32& V) const;
  bool CpuWrite32(U32 Addr, U32 V) const;
  // Whole-block access for the channels: reads anywhere mapped, writes only
  // to CPU-writable regions; false when the block is not entirely inside one.
  bool Read(U32 Addr, U32 NumBytes, U8* pData) const;
  bool Write(U32 Addr, U32 NumBytes, const U8* pData) const;

 private:
  std::vector<Region> m_regions;
  std::vector<std::unique_ptr<U8[]>> m_host;
};

}  // namespace vorden
