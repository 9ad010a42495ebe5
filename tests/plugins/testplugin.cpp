// A core plug-in for the host tests. What it does wrong is chosen at run time
// by TAVIT_TESTPLUGIN ("getapi", "setapi", "nullinit", "init", "nostatic",
// "staticfails", or "Offset=Value,..." changing the static description);
// which exports exist is chosen at compile time (TP_NO_EXPORTS,
// TP_NO_SETAPI). Counters tell the test whether its state survived.
#include "plugins/core_plugin_api.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#define TP_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct COUNTERS {
  int Init, Reconfigure;
  U32 Core;
};
COUNTERS g_Counters{};

bool Mode(const char* s) {
  const char* e = std::getenv("TAVIT_TESTPLUGIN");
  return e && std::strcmp(e, s) == 0;
}

int Init(const CORE_CONFIG* c) {
  ++g_Counters.Init;
  g_Counters.Core = c->Core;
  return Mode("init") ? 7 : 0;
}

int Reconfigure(const CORE_CONFIG* c) {
  ++g_Counters.Reconfigure;
  g_Counters.Core = c->Core;
  return 0;
}

// A plausible description, then "Offset=Value" pairs of the environment
// written over its U32 fields.
int GetStaticInfo(CORE_STATIC_INFO* p, U32 Size) {
  if (Mode("staticfails") || Size != sizeof *p) return -1;
  // AddrSize, NumRegs, RegSize, PCSize, SPSize, -, InstAlign, MinInstLen, MaxInstLen,
  // MaxMnemonicLen, NumProbeRegs, MaxUnwindRegIdx, SPIdx, LRIdx, PCIdx, RAIdx, CFAIdx
  *p = CORE_STATIC_INFO{4, 17, 4, 4, 4, {}, 2, 2, 4, 8, 24, 16, 13, 14, 15, 14, 16, {}};
  const char* q = std::getenv("TAVIT_TESTPLUGIN");
  unsigned Off, Val;
  for (int n = 0; q && std::sscanf(q, "%u=%u%n", &Off, &Val, &n) == 2; q += n + (q[n] == ',')) {
    if (Off % 4 == 0 && Off + 4 <= sizeof *p) std::memcpy(reinterpret_cast<U8*>(p) + Off, &Val, 4);
  }
  return 0;
}

int GetRegIndex(U32 i) { return i < 17 ? int(i) : -1; }
int CheckELFFile(U32, const void* p) { return static_cast<const U8*>(p)[18] == 40 ? 0 : 1; }
int GetELFByteOrder(U32, const void* p, U32* pData, U32* pInst) {
  *pData = *pInst = static_cast<const U8*>(p)[5] == 2;
  return 0;
}

}  // namespace

#ifndef TP_NO_EXPORTS
TP_EXPORT int CORE_PLUGIN_GetAPI(void* pAPI, U32 Size) {
  if (Size != sizeof(CORE_PLUGIN_API) || Mode("getapi")) return -1;
  CORE_PLUGIN_API t{};
  t.pfInit = Mode("nullinit") ? nullptr : Init;
  t.pfReconfigure = Reconfigure;
  t.pfGetStaticInfo = Mode("nostatic") ? nullptr : GetStaticInfo;
  t.pfGetRegIndex = GetRegIndex;
  t.pfCheckELFFile = CheckELFFile;
  t.pfGetELFByteOrder = GetELFByteOrder;
  std::memcpy(pAPI, &t, sizeof t);
  return 0;
}
#ifndef TP_NO_SETAPI
TP_EXPORT int CORE_PLUGIN_SetAPI(const void*, U32 Size) { return Size != sizeof(CORE_HOST_API) || Mode("setapi"); }
#endif
TP_EXPORT U32 CORE_PLUGIN_GetVersion(void) { return 100; }
TP_EXPORT const char* CORE_PLUGIN_GetName(void) { return "test core"; }
#endif

TP_EXPORT const COUNTERS* TESTPLUGIN_Counters(void) { return &g_Counters; }
