// A small host for the ARM core plug-in in tests: loads the library through
// its four exports, serves memory from a TestElf image plus a sparse RAM map,
// and answers code ranges from the image's mapping symbols.
#pragma once
#include "elf_image.h"
#include "plugins/core_plugin_api.h"

#include <dlfcn.h>

#include <cstdlib>
#include <map>
#include <string>

struct TestHost {
  static inline const TestElf* pElf = nullptr;
  static inline std::map<uint64_t, uint8_t> Ram;  // bytes outside the image
  static inline int NumReads = 0;

  static int GetCodeRange(U64 Addr, const char** psName, U64* pStart, U64* pEnd) {
    if (!pElf) return -1;
    int i = pElf->RangeAt(Addr);
    if (i < 0) return -1;
    static const char* const aNames[] = {"$t", "$a", "$d"};
    char k = pElf->Ranges[i].Kind;
    if (psName) *psName = aNames[k == 't' ? 0 : k == 'a' ? 1 : 2];
    if (pStart) *pStart = pElf->Ranges[i].Start;
    if (pEnd) *pEnd = size_t(i + 1) < pElf->Ranges.size() ? pElf->Ranges[i + 1].Start : 0xFFFFFFFFull;
    return 0;
  }
  static int GetSymbolAt(U64, const char**, U64*, U64*) { return -1; }
  static int ReadMem(U64 Addr, U32 n, U8* p) {
    ++NumReads;
    if (pElf && pElf->Read(Addr, n, p)) return 0;
    for (U32 i = 0; i < n; ++i) {
      auto it = Ram.find(Addr + i);
      if (it == Ram.end()) return -1;
      p[i] = it->second;
    }
    return 0;
  }
  static int ReadImage(U64 Addr, U32 n, U8* p) {
    if (n == 0) return 0;
    return pElf && pElf->Read(Addr, n, p) ? int(n) : -1;
  }
  static int GetProgramInfo(U64* paOut) {
    paOut[0] = paOut[1] = pElf ? pElf->LowestAddr() : 0;
    paOut[2] = pElf ? pElf->Entry : ~0ull;
    return 0;
  }
  static int GetFrameTable(void**) { return -1; }
  static inline std::string LastLog;
  static int Log(const char* s, U32 Level) {
    if (Level > 2) return -1;
    LastLog = s ? s : "";
    return 0;
  }
  static CORE_HOST_API Table() {
    return CORE_HOST_API{GetCodeRange, GetSymbolAt, ReadMem, ReadImage, GetProgramInfo, GetFrameTable, Log};
  }
  static void PutRam32(uint64_t Addr, uint32_t v) {
    for (int i = 0; i < 4; ++i) Ram[Addr + i] = uint8_t(v >> (8 * i));
  }
};

// The plug-in library, loaded once per test process.
struct LoadedPlugin {
  void* hLib = nullptr;
  CORE_PLUGIN_GETAPI_FUNC pfGetAPI = nullptr;
  CORE_PLUGIN_SETAPI_FUNC pfSetAPI = nullptr;
  void* pfGetVersion = nullptr;
  void* pfGetName = nullptr;
  CORE_PLUGIN_API Api{};
  std::string Error;

  static std::string DefaultPath() {
    const char* b = std::getenv("TAVIT_BUILD_DIR");
    return std::string(b ? b : ".") + "/Plugins/Core/CorePluginARM.so";
  }

  bool Load(const std::string& sPath, U32 Core = 0x0E0000FF, U32 InstEndian = 0, U32 DataEndian = 0) {
    hLib = dlopen(sPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!hLib) { Error = dlerror(); return false; }
    pfGetAPI = (CORE_PLUGIN_GETAPI_FUNC)dlsym(hLib, "CORE_PLUGIN_GetAPI");
    pfSetAPI = (CORE_PLUGIN_SETAPI_FUNC)dlsym(hLib, "CORE_PLUGIN_SetAPI");
    pfGetVersion = dlsym(hLib, "CORE_PLUGIN_GetVersion");
    pfGetName = dlsym(hLib, "CORE_PLUGIN_GetName");
    if (!pfGetAPI || !pfSetAPI || !pfGetVersion || !pfGetName) { Error = "export missing"; return false; }
    if (pfGetAPI(&Api, sizeof Api) != 0) { Error = "GetAPI"; return false; }
    CORE_HOST_API H = TestHost::Table();
    if (pfSetAPI(&H, sizeof H) != 0) { Error = "SetAPI"; return false; }
    if (!Api.pfInit) { Error = "no Init"; return false; }
    CORE_CONFIG C{};
    C.Core = Core;
    C.InstEndian = InstEndian;
    C.DataEndian = DataEndian;
    snprintf(C.acFilePath, sizeof C.acFilePath, "%s", sPath.c_str());
    if (Api.pfInit(&C) != 0) { Error = "Init"; return false; }
    return true;
  }
  int SetEndian(U32 Inst, U32 Data) {
    CORE_CONFIG C{};
    C.Core = 0x0E0000FF;
    C.InstEndian = Inst;
    C.DataEndian = Data;
    return Api.pfReconfigure(&C);
  }
};
