#include "devices.h"

#include <strings.h>

namespace vorden {

static std::vector<DeviceDesc> MakeList() {
  std::vector<DeviceDesc> v;
  // Placeholder at index 0.
  v.push_back({"Unspecified", "", CORE_M4, false, 50000000, 6, 4, 0, 0, 0, 0, {}, {}});
  // Generic cores: flash 1 MB at 0, RAM 256 KB at 0x20000000, 50 MHz.
  auto generic = [&](const char* n, CoreKind k, bool fpu, U32 bps, U32 dws) {
    v.push_back({n, "Generic", k, fpu, 50000000, bps, dws, 0x00000000, 0x100000, 0x20000000, 0x40000,
                 {{0x00000000, 0x100000, false, 0, "FLASH"}, {0x20000000, 0x40000, true, 0, "RAM"}},
                 {{0x40000000, 0x0FFF0000, "Peripherals"}}});
  };
  generic("Cortex-M0", CORE_M0, false, 4, 2);
  generic("Cortex-M3", CORE_M3, false, 6, 4);
  generic("Cortex-M4", CORE_M4, false, 6, 4);
  generic("Cortex-M4F", CORE_M4, true, 6, 4);
  generic("Cortex-M7", CORE_M7, true, 8, 4);
  v.push_back({"MK66FN2M0XXX18", "NXP", CORE_M4, true, 180000000, 6, 4, 0x00000000, 0x200000, 0x1FFF0000, 0x40000,
               {{0x00000000, 0x200000, false, 0, "P-Flash"},
                {0x1FFF0000, 0x40000, true, 0, "SRAM_L/SRAM_U"}},
               {{0x40000000, 0x00080000, "AIPS"}, {0x400FF000, 0x1000, "GPIO"}}});
  v.push_back({"STM32F407VG", "ST", CORE_M4, true, 168000000, 6, 4, 0x08000000, 0x100000, 0x20000000, 0x20000,
               {{0x08000000, 0x100000, false, 0, "Flash"},
                {0x00000000, 0x100000, false, 0x08000000, "Boot alias"},
                {0x20000000, 0x20000, true, 0, "SRAM1/SRAM2"},
                {0x10000000, 0x10000, true, 0, "CCM RAM"}},
               {{0x40000000, 0x00080000, "APB/AHB1"}, {0x50000000, 0x00061000, "AHB2"},
                {0xA0000000, 0x1000, "FSMC"}, {0x1FFF0000, 0x8000, "System memory/OTP"}}});
  v.push_back({"nRF52840_xxAA", "Nordic", CORE_M4, true, 64000000, 6, 4, 0x00000000, 0x100000, 0x20000000, 0x40000,
               {{0x00000000, 0x100000, false, 0, "Flash"}, {0x20000000, 0x40000, true, 0, "RAM"},
                {0x10001000, 0x1000, false, 0, "UICR"}},
               {{0x40000000, 0x00030000, "APB"}, {0x50000000, 0x1000, "GPIO"}, {0x10000000, 0x1000, "FICR"}}});
  v.push_back({"LPC1768", "NXP", CORE_M3, false, 100000000, 6, 4, 0x00000000, 0x80000, 0x10000000, 0x8000,
               {{0x00000000, 0x80000, false, 0, "Flash"}, {0x10000000, 0x8000, true, 0, "Local SRAM"},
                {0x2007C000, 0x8000, true, 0, "AHB SRAM"}},
               {{0x40000000, 0x00100000, "APB"}, {0x2009C000, 0x4000, "GPIO"}, {0x50000000, 0x00200000, "AHB"},
                {0x1FFF0000, 0x2000, "Boot ROM"}}});
  // The MPS2 boards as modelled by QEMU: SSRAM1 at 0 (writable), SSRAM2/3.
  v.push_back({"MPS2-AN385", "ARM", CORE_M3, false, 25000000, 4, 4, 0x00000000, 0x400000, 0x20000000, 0x400000,
               {{0x00000000, 0x400000, true, 0, "SSRAM1"}, {0x20000000, 0x400000, true, 0, "SSRAM2/3"}},
               {{0x40000000, 0x00030000, "APB/AHB"}}});
  v.push_back({"MPS2-AN386", "ARM", CORE_M4, false, 25000000, 4, 4, 0x00000000, 0x400000, 0x20000000, 0x400000,
               {{0x00000000, 0x400000, true, 0, "SSRAM1"}, {0x20000000, 0x400000, true, 0, "SSRAM2/3"}},
               {{0x40000000, 0x00030000, "APB/AHB"}}});
  return v;
}

const std::vector<DeviceDesc>& DeviceList() {
  static const std::vector<DeviceDesc> s = MakeList();
  return s;
}

int FindDevice(const char* sName) {
  if (!sName || !*sName) return -1;
  const auto& l = DeviceList();
  for (size_t i = 1; i < l.size(); ++i)
    if (strcasecmp(l[i].sName, sName) == 0) return (int)i;
  return -1;
}

U32 CoreIdOf(const DeviceDesc& d) {
  switch (d.Core) {
    case CORE_M0: return CORE_ID_CORTEX_M0;
    case CORE_M3: return CORE_ID_CORTEX_M3;
    case CORE_M4: return CORE_ID_CORTEX_M4;
    case CORE_M7: return CORE_ID_CORTEX_M7;
  }
  return 0;
}

const char* CoreNameOf(U32 CoreId) {
  switch (CoreId) {
    case CORE_ID_CORTEX_M0: return "Cortex-M0";
    case CORE_ID_CORTEX_M3: return "Cortex-M3";
    case CORE_ID_CORTEX_M4: return "Cortex-M4";
    case CORE_ID_CORTEX_M7: return "Cortex-M7";
  }
  return nullptr;
}

}  // namespace vorden
