#include "sim/sim_memory.h"

#include <cstring>

namespace vorden {

CSimMemory::CSimMemory(const DeviceDesc& Dev) {
  // Real regions first (flash erased, RAM zero), then aliases onto their buffers.
  for (const MemRegion& r : Dev.Regions) {
    if (r.AliasOf) continue;
    m_host.emplace_back(new U8[r.Size]);
    U8* p = m_host.back().get();
    memset(p, r.CpuWritable ? 0 : 0xFF, r.Size);
    m_regions.push_back({r.Addr, r.Size, r.CpuWritable, p, r.sName});
  }
  for (const MemRegion& r : Dev.Regions) {
    if (!r.AliasOf) continue;
    for (size_t i = 0, n = m_regions.size(); i < n; ++i)
      if (m_regions[i].Addr == r.AliasOf) m_regions.push_back({r.Addr, r.Size, r.CpuWritable, m_regions[i].pHost, r.sName});
  }
}

bool CSimMemory::CpuRead32(U32 Addr, U32& V) const { return Read(Addr, 4, (U8*)&V); }

bool CSimMemory::CpuWrite32(U32 Addr, U32 V) const { return Write(Addr, 4, (const U8*)&V); }

bool CSimMemory::Read(U32 Addr, U32 NumBytes, U8* pData) const {
  U8* p = HostPtr(Addr, NumBytes);
  if (!p) return false;
  memcpy(pData, p, NumBytes);
  return true;
}

bool CSimMemory::Write(U32 Addr, U32 NumBytes, const U8* pData) const {
  const Region* r = Find(Addr, NumBytes);
  if (!r || !r->CpuWritable) return false;
  memcpy(r->pHost + (Addr - r->Addr), pData, NumBytes);
  return true;
}

}  // namespace vorden
