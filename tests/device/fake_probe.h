// A probe library stand-in for the job engine tests: every entry of the
// probe table, over a small memory, a halted flag and counters. A gate lets a
// test hold the worker inside a probe command while it queues more jobs.
#pragma once
#include "device/probe_funcs.h"

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace fakeprobe {

struct STATE {
  std::atomic<int> Halted{1};
  std::atomic<U32> PC{0x08000100};
  std::atomic<int> Open{0}, Connected{0};
  std::atomic<int> HaltCalls{0}, GoCalls{0}, StepCalls{0}, ReadCalls{0}, WriteCalls{0}, EndDownloadCalls{0};
  std::atomic<int> EndDownloadResult{0};
  std::atomic<int> BMA{1};
  std::atomic<bool> FailConnect{false};
  U8 aRAM[0x1000] = {};            // 0x20000000.. ; everything else unreadable
  std::mutex GateMx;
  std::condition_variable GateCv;
  bool GateClosed = false;
  std::atomic<int> InGate{0};
};

inline STATE& S() {
  static STATE s;
  return s;
}
constexpr U32 kRAM = 0x20000000;

inline void CloseGate() {
  std::lock_guard<std::mutex> g(S().GateMx);
  S().GateClosed = true;
}
inline void OpenGate() {
  {
    std::lock_guard<std::mutex> g(S().GateMx);
    S().GateClosed = false;
  }
  S().GateCv.notify_all();
}

// Bytes of [Addr, Addr + n) that are readable from Addr on.
inline U32 Readable(U32 Addr, U32 n) {
  if (Addr < kRAM || Addr >= kRAM + sizeof S().aRAM) return 0;
  return std::min<U32>(n, kRAM + sizeof S().aRAM - Addr);
}

template <class T>
int ReadItems(U32 Addr, U32 Num, T* p, U8* st) {
  S().ReadCalls++;
  U32 Good = 0;
  for (U32 i = 0; i < Num; ++i) {
    const bool Ok = Readable(Addr + i * sizeof(T), sizeof(T)) == sizeof(T);
    if (Ok) memcpy(&p[i], &S().aRAM[Addr + i * sizeof(T) - kRAM], sizeof(T)), ++Good;
    if (st) st[i] = Ok ? 0 : 1;
  }
  return Good ? int(Good) : -1;
}

template <class T>
int WriteItem(U32 Addr, T v) {
  S().WriteCalls++;
  if (Readable(Addr, sizeof(T)) != sizeof(T)) return -1;
  memcpy(&S().aRAM[Addr - kRAM], &v, sizeof(T));
  return 0;
}

inline VORDEN_FUNCS Table() {
  VORDEN_FUNCS f;
  f.VORDENARM_GetDLLVersion = [] { return 70000; };
  f.VORDENARM_Open = []() -> const char* {
    S().Open = 1;
    return nullptr;
  };
  f.VORDENARM_Close = [] { S().Open = 0, S().Connected = 0; };
  f.VORDENARM_IsOpen = []() -> decltype(VORDENARM_IsOpen()) { return S().Open.load(); };
  f.VORDENARM_IsConnected = []() -> decltype(VORDENARM_IsConnected()) { return S().Connected.load(); };
  f.VORDENARM_Connect = [] {
    if (S().FailConnect) return -1;
    S().Connected = 1;
    return 0;
  };
  f.VORDENARM_SelectUSB = [](int) { return 0; };
  f.VORDENARM_EMU_SelectByUSBSN = [](U32) { return 0; };
  f.VORDENARM_SelectIP = [](const char*, int) -> decltype(VORDENARM_SelectIP("", 0)) { return 1; };
  f.VORDENARM_ExecCommand = [](const char* sCmd, char* acOut, int) {
    if (strcmp(sCmd, "Gate") == 0) {
      S().InGate++;
      std::unique_lock<std::mutex> lk(S().GateMx);
      S().GateCv.wait(lk, [] { return !S().GateClosed; });
      S().InGate--;
    }
    if (strcmp(sCmd, "Fail") == 0) {
      strcpy(acOut, "Unknown command");
      return -1;
    }
    return 0;
  };
  f.VORDENARM_SetEndian = [](int) { return 0; };
  f.VORDENARM_SetCoreIndex = [](U32) { return 0; };
  f.VORDENARM_TIF_Select = [](int) { return 0; };
  f.VORDENARM_ConfigJTAG = [](int, int) { return 0; };
  f.VORDENARM_SetSpeed = [](U32) {};
  f.VORDENARM_GetSpeed = []() -> U16 { return 4000; };
  f.VORDENARM_EnableLog = [](VORDEN_LOG*) {};
  f.VORDENARM_SetErrorOutHandler = [](VORDEN_LOG*) {};
  f.VORDENARM_SetWarnOutHandler = [](VORDEN_LOG*) {};
  f.VORDENARM_SetLogFile = [](const char*) {};
  f.VORDENARM_GetSN = [] { return 123; };
  f.VORDENARM_GetFirmwareString = [](char* s, int n) {
    snprintf(s, size_t(n), "Fake probe V1 compiled today");
    return 0;
  };
  f.VORDENARM_DEVICE_GetIndex = [](const char* s) { return strcmp(s, "My Device") == 0 ? 2 : (strcmp(s, "DevA") == 0 ? 1 : -1); };
  f.VORDENARM_DEVICE_GetInfo = [](int Idx, VORDENARM_DEVICE_INFO* p) {
    if (Idx < 0) return 3;
    if (!p || Idx > 2) return -1;
    static const char* const kNames[] = {"Unspecified", "DevA", "My Device"};
    p->sName = kNames[Idx];
    p->CoreId = Idx == 1 ? 0x0E0000FFu : 0x030000FFu;
    p->RAMAddr = kRAM;
    p->RAMSize = sizeof S().aRAM;
    return 0;
  };
  f.VORDENARM_Core2CoreName = [](U32, char* s, unsigned n) {
    snprintf(s, n, "Cortex-M");
    return 0;
  };
  f.VORDEN_GetMemZones = [](VORDEN_MEM_ZONE_INFO*, int) { return 0; };
  f.VORDEN_GetpFunc = [](int Id) -> void* {
    if (Id == 10) return reinterpret_cast<void*>(+[]() { return S().BMA.load(); });
    return nullptr;
  };
  f.VORDENARM_EMU_HasCapEx = [](int) { return 1; };
  f.VORDENARM_RAWTRACE_Control = [](U32, void* p) {
    *static_cast<U32*>(p) = 0;
    return 0;
  };
  f.VORDENARM_EnableSoftBPs = [](auto) {};
  f.VORDENARM_IsHalted = []() -> decltype(VORDENARM_IsHalted()) { return S().Connected ? S().Halted.load() : -1; };
  f.VORDENARM_Halt = []() -> decltype(VORDENARM_Halt()) {
    S().HaltCalls++;
    S().Halted = 1;
    return 0;
  };
  f.VORDENARM_GoEx = [](U32, U32) {
    S().GoCalls++;
    S().Halted = 0;
  };
  f.VORDENARM_Step = []() -> decltype(VORDENARM_Step()) {
    S().StepCalls++;
    S().PC += 2;
    return 0;
  };
  f.VORDENARM_Reset = [] {
    S().PC = 0x08000100;
    S().Halted = 1;
    return 0;
  };
  f.VORDENARM_ReadRegs = [](const U32* paIdx, U64* paData, U8* paSt, U32 n) {
    if (!S().Halted) return -1;
    for (U32 i = 0; i < n; ++i) {
      paData[i] = paIdx[i] == VORDENARM_REG_PC ? S().PC.load() | 1u : paIdx[i];
      paSt[i] = 0;
    }
    return 0;
  };
  f.VORDENARM_WriteReg = [](U32 Idx, U64 v) {
    if (Idx == VORDENARM_REG_PC) S().PC = U32(v);
    return 0;
  };
  f.VORDENARM_ReadReg = [](U32) -> U32 { return 0; };
  f.VORDENARM_ReadMemEx = [](U32 Addr, U32 n, void* p, U32) {
    S().ReadCalls++;
    const U32 r = Readable(Addr, n);
    if (!r) return -1;
    memcpy(p, &S().aRAM[Addr - kRAM], r);
    return int(r);
  };
  f.VORDENARM_ReadMemU8 = [](U32 a, U32 n, U8* p, U8* s) { return ReadItems(a, n, p, s); };
  f.VORDENARM_ReadMemU16 = [](U32 a, U32 n, U16* p, U8* s) { return ReadItems(a, n, p, s); };
  f.VORDENARM_ReadMemU32 = [](U32 a, U32 n, U32* p, U8* s) { return ReadItems(a, n, p, s); };
  f.VORDENARM_ReadMemU64 = [](U32 a, U32 n, U64* p, U8* s) { return ReadItems(a, n, p, s); };
  f.VORDEN_ReadMemZonedEx = [](U32, U32, void*, U32, const char*) { return -1; };
  f.VORDEN_ReadMemZonedU16 = [](U32, U32, U16*, U8*, const char*) { return -1; };
  f.VORDEN_ReadMemZonedU32 = [](U32, U32, U32*, U8*, const char*) { return -1; };
  f.VORDENARM_WriteU8 = [](U32 a, U8 v) { return WriteItem(a, v); };
  f.VORDENARM_WriteU16 = [](U32 a, U16 v) { return WriteItem(a, v); };
  f.VORDENARM_WriteU32 = [](U32 a, U32 v) { return WriteItem(a, v); };
  f.VORDENARM_WriteU64 = [](U32 a, U64 v) { return WriteItem(a, v); };
  f.VORDENARM_WriteMemEx = [](U32 Addr, U32 n, const void* p, U32) {
    S().WriteCalls++;
    const U32 r = Readable(Addr, n);
    if (!r) return -1;
    memcpy(&S().aRAM[Addr - kRAM], p, r);
    return int(r);
  };
  f.VORDEN_WriteZonedU16 = [](U32, U16, const char*) { return -1; };
  f.VORDEN_WriteZonedU32 = [](U32, U32, const char*) { return -1; };
  f.VORDEN_WriteMemZonedEx = [](U32, U32, const void*, U32, const char*) { return -1; };
  f.VORDENARM_BeginDownload = [](U32) {};
  f.VORDENARM_EndDownload = [] {
    S().EndDownloadCalls++;
    return S().EndDownloadResult.load();
  };
  f.VORDENARM_ClrBPEx = [](int) { return 0; };
  f.VORDENARM_ClrDataEvent = [](U32) { return 0; };
  return f;
}

}  // namespace fakeprobe
