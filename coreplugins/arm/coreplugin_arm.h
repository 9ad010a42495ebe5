// Internal interface of the ARM core plug-in: the table functions, visible to
// the statically linked tests and the benchmark. The host sees only the four
// exports declared in plugins/core_plugin_api.h.
#pragma once
#include "plugins/core_plugin_api.h"

constexpr U32 kPluginVersion = 10000;  // 1.00.00
constexpr U32 kMaxMnemonicLen = 13;  // "vcvtr.s32.f32", "vcvtb.f32.f16"
constexpr const char* kRegisterFileName = "CortexM_CPU.svd";

extern "C" {
int CORE_PLUGIN_GetAPI(void* pAPI, U32 Size);
int CORE_PLUGIN_SetAPI(const void* pHostAPI, U32 Size);
U32 CORE_PLUGIN_GetVersion(void);
const char* CORE_PLUGIN_GetName(void);
}

namespace armplugin {
// Replaces the probe's register operations (normally found in the process by
// name); null for both restores the lookup.
void SetProbeForTest(int (*pfReadRegs)(const U32*, U64*, U8*, U32), int (*pfWriteReg)(U32, U64));
}
