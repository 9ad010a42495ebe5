// The exported C functions of libVorden.so: session state, the call log, the
// command interpreter and the dispatch to the selected back end.
#include <strings.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "backend.h"
#include "devices.h"
#include "device/vorden_api.h"
#include "sim/sim_target.h"

namespace vorden {
// The GDB remote protocol back end (probe/gdb), when it is linked in (CMake
// option TAVIT_PROBE_GDB_BACKEND); otherwise this weak reference is null and
// "IP" reports that the back end is not available.
std::unique_ptr<CBackend> CreateGdbBackend(const std::string& sHostPort, int DeviceIndex, LogFn Log,
                                           std::string& sError) __attribute__((weak));
}  // namespace vorden

using namespace vorden;

namespace {

bool HaveGdbBackend() { return &vorden::CreateGdbBackend != nullptr; }

enum HostIF { HIF_NONE, HIF_USB, HIF_IP };

struct Session {
  std::recursive_mutex Mx;
  HostIF Host = HIF_NONE;
  std::string IPHost;
  bool Open = false;
  bool Connected = false;
  bool Lost = false;
  int DeviceIdx = -1;
  int CoreIndex = 0, Tif = 1, IRPre = 0, DRPre = 0;
  U32 Speed = 4000;
  bool SoftBPs = false;
  bool InDownload = false;
  int DownloadError = 0;   // "SimDownloadError"
  int BMA = 1;             // "SimBMA"
  bool Streaming = true;   // "SimStreamingTrace"
  int MaxHWBPs = -1, MaxDataEvents = -1;
  std::string TraceConfig;
  // The target outlives a Close, as a real board does, and is found again by
  // the next connect to the same device.
  std::shared_ptr<CBackend> Target;
  std::string TargetIsGdb;  // host:port of a GDB back end in Target, else empty
  VORDEN_LOG* pfLog = nullptr;
  VORDEN_LOG* pfError = nullptr;
  VORDEN_LOG* pfWarn = nullptr;
  std::mutex LogMx;
  FILE* LogFile = nullptr;
};

Session& S() {
  static Session s;
  return s;
}

// Library messages: to the installed handlers and the call log.
void Message(int Level, const std::string& sText) {
  Session& s = S();
  VORDEN_LOG* f = Level == 2 ? s.pfError : Level == 1 ? s.pfWarn : s.pfLog;
  if (!f && Level > 0) f = s.pfLog;
  if (f) f(sText.c_str());
  std::lock_guard<std::mutex> lk(s.LogMx);
  if (s.LogFile) {
    fprintf(s.LogFile, "# %s\n", sText.c_str());
    fflush(s.LogFile);
  }
}

// One call log line: "Name(args) = result".
void CallLog(const char* sName, long long Result, const char* sFmt = "", ...) __attribute__((format(printf, 3, 4)));
void CallLog(const char* sName, long long Result, const char* sFmt, ...) {
  Session& s = S();
  std::lock_guard<std::mutex> lk(s.LogMx);
  if (!s.LogFile) return;
  char args[512];
  va_list ap;
  va_start(ap, sFmt);
  vsnprintf(args, sizeof args, sFmt, ap);
  va_end(ap);
  fprintf(s.LogFile, "%s(%s) = %lld\n", sName, args, Result);
  fflush(s.LogFile);
}

// The connected target, or null when the session cannot reach one.
std::shared_ptr<CBackend> Target() {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  if (!s.Open || !s.Connected || s.Lost) return nullptr;
  return s.Target;
}

bool ValidAW(U32 AW) { return AW == 0 || AW == 1 || AW == 2 || AW == 4; }

bool ZoneOK(const char* sZone) { return !sZone || !*sZone || strcasecmp(sZone, "Default") == 0; }

// A GDB server halts on any packet: memory access while running interrupts,
// accesses and resumes (mode 2).
int BMAMode() { return S().Host == HIF_IP ? 2 : S().BMA; }
int EndianMode() { return 0; }

// Memory access that respects the background memory access mode.
int ReadMemImpl(U32 Addr, U32 NumBytes, void* pData) {
  auto t = Target();
  if (!t || !pData) return -1;
  if (NumBytes == 0) return 0;
  if (S().BMA == 0 && t->IsHalted() != 1) return -1;
  int n = t->ReadMem(Addr, NumBytes, (U8*)pData);
  return n > 0 ? n : -1;
}

int WriteMemImpl(U32 Addr, U32 NumBytes, const void* pData) {
  auto t = Target();
  if (!t || !pData) return -1;
  if (NumBytes == 0) return 0;
  if (S().BMA == 0 && t->IsHalted() != 1) return -1;
  int n = t->WriteMem(Addr, NumBytes, (const U8*)pData);
  return n > 0 ? n : -1;
}

// The optional capabilities of the connected target. A back end without one
// refuses its calls with the library's usual failure codes.
template <class CAP>
struct Cap {
  std::shared_ptr<CBackend> Owner;  // keeps the capability alive
  CAP* p = nullptr;
  CAP* operator->() const { return p; }
  explicit operator bool() const { return p != nullptr; }
};
template <class CAP>
Cap<CAP> Capability(CAP* (CBackend::*Get)()) {
  Cap<CAP> c;
  c.Owner = Target();
  if (c.Owner) c.p = (c.Owner.get()->*Get)();
  return c;
}
Cap<ITraceBackend> TraceCap() { return Capability(&CBackend::Trace); }
Cap<ITerminalBackend> TerminalCap() { return Capability(&CBackend::Terminal); }
Cap<ISamplingBackend> SamplingCap() { return Capability(&CBackend::Sampling); }
Cap<IPowerBackend> PowerCap() { return Capability(&CBackend::Power); }

// The results of the run-control exports: 1 / 0 as documented, -1 when
// no target can be reached (also when the back end reports a loss).
signed char RunResult(int r) { return r < 0 ? -1 : r > 0 ? 1 : 0; }


template <typename T>
int ReadItems(U32 Addr, U32 NumItems, T* pData, U8* pStatus) {
  if (!pData || NumItems == 0 || NumItems > (1u << 26)) return -1;
  auto t = Target();
  if (!t) return -1;
  int ok = 0;
  for (U32 i = 0; i < NumItems; ++i) {
    T v = 0;
    bool good = (S().BMA != 0 || t->IsHalted() == 1) && t->ReadMem(Addr + i * sizeof(T), sizeof(T), (U8*)&v) == (int)sizeof(T);
    pData[i] = good ? v : 0;
    if (pStatus) pStatus[i] = good ? 0 : 1;
    if (good && ok == (int)i) ++ok;
  }
  return ok > 0 ? ok : -1;
}

// Item reads that log their address and count, as the API calls do.
template <typename T>
int ReadValues(const char* sName, U32 Addr, U32 NumItems, T* pData, U8* pStatus) {
  int r = ReadItems(Addr, NumItems, pData, pStatus);
  CallLog(sName, r, "0x%08X, %u", Addr, NumItems);
  return r;
}

// The zoned item reads give the number of bytes read.
template <typename T>
int ReadZoned(const char* sName, U32 Addr, U32 NumItems, T* pData, U8* pStatus, const char* sZone) {
  int r = ZoneOK(sZone) ? ReadItems(Addr, NumItems, pData, pStatus) : -1;
  if (r > 0) r *= (int)sizeof(T);
  CallLog(sName, r, "0x%08X, %u, \"%s\"", Addr, NumItems, sZone ? sZone : "");
  return r;
}

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return (char)tolower(c); });
  return s;
}

std::string Trim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t\r\n"), b = s.find_last_not_of(" \t\r\n");
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

int Connect() {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  if (!s.Open) return -1;
  if (s.Lost) return -1;
  if (s.Host == HIF_IP) {
    if (!HaveGdbBackend()) {
      Message(2, "GDB remote protocol back end not available");
      return -1;
    }
    if (!s.Target || s.TargetIsGdb != s.IPHost) {
      s.Target.reset();
      std::string err;
      std::unique_ptr<CBackend> b = CreateGdbBackend(s.IPHost, s.DeviceIdx > 0 ? s.DeviceIdx : 0, Message, err);
      if (!b) {
        Message(2, err.empty() ? "cannot connect to the GDB server at " + s.IPHost : err);
        return -1;
      }
      s.Target = std::move(b);
      s.TargetIsGdb = s.IPHost;
      s.Target->SetLimits(s.MaxHWBPs, s.MaxDataEvents);
    }
    s.Connected = true;
    return 0;
  }
  if (!s.TargetIsGdb.empty()) {
    s.Target.reset();
    s.TargetIsGdb.clear();
  }
  int idx = s.DeviceIdx > 0 ? s.DeviceIdx : FindDevice("Cortex-M4");
  if (s.Target && s.Target->DeviceIndex() != idx) s.Target.reset();
  if (!s.Target) {
    auto t = std::make_shared<CSimTarget>(idx, Message);
    std::string err;
    if (!t->Init(err)) {
      Message(2, err);
      return -1;
    }
    s.Target = t;
    s.Target->SetLimits(s.MaxHWBPs, s.MaxDataEvents);
  }
  s.Connected = true;
  return 0;
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------
// Session
// ---------------------------------------------------------------------------

int VORDENARM_GetDLLVersion(void) {
  CallLog("VORDENARM_GetDLLVersion", VORDEN_DLL_VERSION);
  return VORDEN_DLL_VERSION;
}

const char* VORDENARM_Open(void) {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  const char* r = nullptr;
  if (s.Host == HIF_NONE) s.Host = HIF_USB;
  if (s.Host == HIF_IP && !HaveGdbBackend())
    r = "Could not connect to probe at the given IP address (GDB remote back end not available)";
  s.Open = r == nullptr;
  CallLog("VORDENARM_Open", r ? -1 : 0);
  return r;
}

void VORDENARM_Close(void) {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  s.Open = false;
  s.Connected = false;
  s.Lost = false;
  s.InDownload = false;
  // A GDB connection ends with the session; the simulated board stays.
  if (!s.TargetIsGdb.empty()) {
    s.Target.reset();
    s.TargetIsGdb.clear();
  }
  CallLog("VORDENARM_Close", 0);
}

char VORDENARM_IsOpen(void) {
  char r = S().Open ? 1 : 0;
  CallLog("VORDENARM_IsOpen", r);
  return r;
}

char VORDENARM_IsConnected(void) {
  Session& s = S();
  char r = (s.Open && s.Connected && !s.Lost) ? 1 : 0;
  CallLog("VORDENARM_IsConnected", r);
  return r;
}

int VORDENARM_Connect(void) {
  int r = Connect();
  CallLog("VORDENARM_Connect", r);
  return r;
}

int VORDENARM_SelectUSB(int Port) {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  int r = (Port < 0 || Port > 3) ? -1 : 0;
  if (r == 0) s.Host = HIF_USB;
  CallLog("VORDENARM_SelectUSB", r, "%d", Port);
  return r;
}

int VORDENARM_EMU_SelectByUSBSN(U32 SerialNo) {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  // The simulator answers to its own serial number only.
  int r = SerialNo == (U32)VORDENARM_GetSN() ? 0 : -1;
  if (r == 0) s.Host = HIF_USB;
  CallLog("VORDENARM_EMU_SelectByUSBSN", r, "%u", SerialNo);
  return r;
}

signed char VORDENARM_SelectIP(const char* sHost, int Port) {
  Session& s = S();
  std::lock_guard<std::recursive_mutex> lk(s.Mx);
  signed char r = 1;
  if (sHost && *sHost) {
    s.Host = HIF_IP;
    s.IPHost = sHost;
    // A separate port number joins a host given without one.
    std::string h = sHost;
    bool hasPort = (h[0] == '[' && h.find("]:") != std::string::npos) ||
                   (h[0] != '[' && std::count(h.begin(), h.end(), ':') == 1);
    if (Port > 0 && !hasPort) {
      bool v6 = h[0] != '[' && h.find(':') != std::string::npos;
      s.IPHost = (v6 ? "[" + h + "]" : h) + ":" + std::to_string(Port);
    }
    r = 0;
  }
  CallLog("VORDENARM_SelectIP", r, "\"%s\", %d", sHost ? sHost : "(null)", Port);
  return r;
}

int VORDENARM_ExecCommand(const char* sCmd, char* acOut, int BufferSize) {
  Session& s = S();
  std::string err;
  if (acOut && BufferSize > 0) acOut[0] = 0;
  if (!sCmd) {
    err = "no command";
  } else {
    std::string cmd = Trim(sCmd), name, value;
    size_t eq = cmd.find('=');
    size_t sp = cmd.find_first_of(" \t");
    size_t cut = std::min(eq, sp);
    name = Lower(Trim(cmd.substr(0, cut)));
    value = cut == std::string::npos ? "" : Trim(cmd.substr(cut + 1));
    // "Name = Value": the blank before the "=" does not end the name.
    if (sp < eq && eq != std::string::npos && Trim(cmd.substr(sp, eq - sp)).empty()) value = Trim(cmd.substr(eq + 1));
    auto num = [&](int lo, int hi, int& out) {
      char* end = nullptr;
      long v = strtol(value.c_str(), &end, 0);
      if (value.empty() || *end || v < lo || v > hi) {
        err = "invalid value \"" + value + "\" for " + name;
        return false;
      }
      out = (int)v;
      return true;
    };
    std::lock_guard<std::recursive_mutex> lk(s.Mx);
    if (name == "device") {
      int idx = FindDevice(value.c_str());
      if (idx < 0) err = "unknown device \"" + value + "\"";
      else s.DeviceIdx = idx;
    } else if (name == "hidedeviceselection" || name == "scriptfile" || name == "readintotracecache" ||
               name == "tracesampleadjust" || name == "trace_setenabletimestamps" || name == "portwidth") {
      // Accepted; nothing to do for the simulator.
    } else if (name == "selecttracesource") {
      int v;
      num(0, 2, v);
    } else if (name == "simdownloaderror") {
      int v;
      if (num(-4, 0, v)) s.DownloadError = v;
    } else if (name == "simbma") {
      int v;
      if (num(0, 2, v)) s.BMA = v;
    } else if (name == "simstreamingtrace") {
      int v;
      if (num(0, 1, v)) s.Streaming = v != 0;
    } else if (name == "simmaxhwbps") {
      int v;
      if (num(-1, 64, v)) {
        s.MaxHWBPs = v;
        if (s.Target) s.Target->SetLimits(s.MaxHWBPs, s.MaxDataEvents);
      }
    } else if (name == "simmaxdataevents") {
      int v;
      if (num(-1, 64, v)) {
        s.MaxDataEvents = v;
        if (s.Target) s.Target->SetLimits(s.MaxHWBPs, s.MaxDataEvents);
      }
    } else if (name == "supplypower" && !s.Target) {
      int v;
      num(0, 1, v);
    } else if (name == "simcutconnection") {
      if (s.Connected) s.Lost = true;
    } else if (name == "simpoweroff") {
      // Remove the target: the next connect starts a fresh one.
      s.Target.reset();
      if (s.Connected) s.Lost = true;
    } else {
      bool known = false;
      if (s.Target) known = s.Target->ExecCommand(name, value, err);
      if (!known) err = "Unknown command \"" + name + "\"";
    }
  }
  int r = err.empty() ? 0 : -1;
  if (!err.empty() && acOut && BufferSize > 0) {
    snprintf(acOut, (size_t)BufferSize, "%s", err.c_str());
  }
  CallLog("VORDENARM_ExecCommand", r, "\"%s\"", sCmd ? sCmd : "(null)");
  return r;
}

int VORDENARM_SetEndian(int BigEndian) {
  int r = BigEndian == 0 ? 0 : -1;
  CallLog("VORDENARM_SetEndian", r, "%d", BigEndian);
  return r;
}

int VORDENARM_SetCoreIndex(U32 CoreIndex) {
  S().CoreIndex = (int)CoreIndex;
  int r = CoreIndex == 0 ? 0 : -1;
  CallLog("VORDENARM_SetCoreIndex", r, "%u", CoreIndex);
  return r;
}

int VORDENARM_TIF_Select(int Interface) {
  int r = (Interface >= 0 && Interface <= 5) ? 0 : -1;
  if (r == 0) S().Tif = Interface;
  CallLog("VORDENARM_TIF_Select", r, "%d", Interface);
  return r;
}

int VORDENARM_ConfigJTAG(int IRPre, int DRPre) {
  S().IRPre = IRPre;
  S().DRPre = DRPre;
  CallLog("VORDENARM_ConfigJTAG", 0, "%d, %d", IRPre, DRPre);
  return 0;
}

void VORDENARM_SetSpeed(U32 Speed) {
  S().Speed = Speed;
  CallLog("VORDENARM_SetSpeed", 0, "%u", Speed);
}

U16 VORDENARM_GetSpeed(void) {
  U32 sp = S().Speed;
  U16 r = sp == 0 ? 4000 : (U16)std::min<U32>(sp, 65535);  // auto: the simulator reports 4 MHz
  CallLog("VORDENARM_GetSpeed", r);
  return r;
}

void VORDENARM_EnableLog(VORDEN_LOG* pfLog) {
  S().pfLog = pfLog;
  CallLog("VORDENARM_EnableLog", 0, "%p", (void*)pfLog);
}

void VORDENARM_SetErrorOutHandler(VORDEN_LOG* pfErrorOut) {
  S().pfError = pfErrorOut;
  CallLog("VORDENARM_SetErrorOutHandler", 0, "%p", (void*)pfErrorOut);
}

void VORDENARM_SetWarnOutHandler(VORDEN_LOG* pfWarnOut) {
  S().pfWarn = pfWarnOut;
  CallLog("VORDENARM_SetWarnOutHandler", 0, "%p", (void*)pfWarnOut);
}

void VORDENARM_SetLogFile(const char* sFilePath) {
  Session& s = S();
  {
    std::lock_guard<std::mutex> lk(s.LogMx);
    if (s.LogFile) fclose(s.LogFile);
    s.LogFile = (sFilePath && *sFilePath) ? fopen(sFilePath, "a") : nullptr;
  }
  CallLog("VORDENARM_SetLogFile", 0, "\"%s\"", sFilePath ? sFilePath : "(null)");
}

int VORDENARM_GetSN(void) { return 800000001; }

int VORDENARM_GetFirmwareString(char* sBuffer, int BufferSize) {
  int r = -1;
  if (sBuffer && BufferSize > 0) {
    snprintf(sBuffer, (size_t)BufferSize, "Vorden Sim V1 compiled " __DATE__);
    r = 0;
  }
  CallLog("VORDENARM_GetFirmwareString", r, "%d", BufferSize);
  return r;
}

int VORDENARM_DEVICE_GetIndex(const char* sDeviceName) {
  int r = FindDevice(sDeviceName);
  CallLog("VORDENARM_DEVICE_GetIndex", r, "\"%s\"", sDeviceName ? sDeviceName : "(null)");
  return r;
}

int VORDENARM_DEVICE_GetInfo(int DeviceIndex, VORDENARM_DEVICE_INFO* pDeviceInfo) {
  const auto& l = DeviceList();
  int r;
  if (DeviceIndex == -1 && !pDeviceInfo) {
    r = (int)l.size();
  } else if (!pDeviceInfo || DeviceIndex < 0 || DeviceIndex >= (int)l.size() || pDeviceInfo->SizeOfStruct < 4) {
    r = -1;
  } else {
    const DeviceDesc& d = l[DeviceIndex];
    VORDENARM_DEVICE_INFO info{};
    info.SizeOfStruct = pDeviceInfo->SizeOfStruct;
    info.sName = DeviceIndex == 0 ? "" : d.sName;
    info.CoreId = DeviceIndex == 0 ? 0 : CoreIdOf(d);
    info.FlashAddr = d.FlashAddr;
    info.RAMAddr = d.RAMAddr;
    info.EndianMode = 0;
    info.FlashSize = d.FlashSize;
    info.RAMSize = d.RAMSize;
    info.sManu = d.sManu;
    info.CoreClockHz = d.ClockHz;
    info.NumHWBPs = d.NumHWBPs;
    info.NumDataEvents = d.NumDataEvents;
    info.HasFPU = d.HasFPU;
    size_t n = std::min<size_t>(pDeviceInfo->SizeOfStruct, sizeof info);
    memcpy(pDeviceInfo, &info, n);
    r = 0;
  }
  CallLog("VORDENARM_DEVICE_GetInfo", r, "%d, %p", DeviceIndex, (void*)pDeviceInfo);
  return r;
}

int VORDENARM_Core2CoreName(U32 Core, char* sBuffer, unsigned BufferSize) {
  const char* n = CoreNameOf(Core);
  int r = -1;
  if (sBuffer && BufferSize > 0) {
    snprintf(sBuffer, BufferSize, "%s", n ? n : "");
    r = n ? 0 : -1;
  }
  CallLog("VORDENARM_Core2CoreName", r, "0x%08X", Core);
  return r;
}

int VORDEN_GetMemZones(VORDEN_MEM_ZONE_INFO* paZoneInfo, int MaxNumZones) {
  CallLog("VORDEN_GetMemZones", 0, "%p, %d", (void*)paZoneInfo, MaxNumZones);
  return 0;
}

void* VORDEN_GetpFunc(int FuncId) {
  void* p = nullptr;
  if (FuncId == 10) p = (void*)&BMAMode;
  if (FuncId == 12) p = (void*)&EndianMode;
  CallLog("VORDEN_GetpFunc", p ? 1 : 0, "%d", FuncId);
  return p;
}

int VORDENARM_EMU_HasCapEx(int CapEx) {
  int r = CapEx == 23 && S().Host != HIF_IP ? 1 : 0;  // SWO: not through a GDB server
  CallLog("VORDENARM_EMU_HasCapEx", r, "%d", CapEx);
  return r;
}

int VORDENARM_RAWTRACE_Control(U32 Cmd, void* pData) {
  int r = -1;
  if (Cmd == 4 && pData) {
    U32 caps = S().Streaming && S().Host != HIF_IP ? (1u << 5) : 0;
    memcpy(pData, &caps, 4);
    r = 0;
  }
  CallLog("VORDENARM_RAWTRACE_Control", r, "%u", Cmd);
  return r;
}

void VORDENARM_EnableSoftBPs(char Enable) {
  S().SoftBPs = Enable != 0;
  CallLog("VORDENARM_EnableSoftBPs", 0, "%d", (int)Enable);
}

// ---------------------------------------------------------------------------
// Run control
// ---------------------------------------------------------------------------

signed char VORDENARM_IsHalted(void) {
  Session& s = S();
  signed char r;
  if (s.Lost) {
    r = -1;
  } else {
    auto t = Target();
    r = t ? RunResult(t->IsHalted()) : -1;
  }
  CallLog("VORDENARM_IsHalted", r);
  return r;
}

signed char VORDENARM_Halt(void) {
  auto t = Target();
  signed char r = t ? RunResult(t->Halt()) : -1;
  CallLog("VORDENARM_Halt", r);
  return r;
}

void VORDENARM_GoEx(U32 MaxEmulInsts, U32 Flags) {
  auto t = Target();
  int r = t ? t->Go(Flags) : -1;
  CallLog("VORDENARM_GoEx", r, "%u, %u", MaxEmulInsts, Flags);
}

void VORDENARM_Go(void) {
  auto t = Target();
  int r = t ? t->Go(0) : -1;
  CallLog("VORDENARM_Go", r);
}

signed char VORDENARM_Step(void) {
  auto t = Target();
  signed char r = t ? RunResult(t->Step()) : -1;
  CallLog("VORDENARM_Step", r);
  return r;
}

int VORDENARM_SetResetType(int ResetType) {
  CallLog("VORDENARM_SetResetType", 0, "%d", ResetType);
  return 0;
}

void VORDENARM_SetResetDelay(int DelayMs) { CallLog("VORDENARM_SetResetDelay", 0, "%d", DelayMs); }

int VORDENARM_Reset(void) {
  auto t = Target();
  int r = t ? t->Reset() : -1;
  CallLog("VORDENARM_Reset", r);
  return r;
}

// ---------------------------------------------------------------------------
// Registers
// ---------------------------------------------------------------------------

int VORDENARM_ReadRegs(const U32* paRegIndex, U64* paData, U8* paStatus, U32 NumRegs) {
  int r = -1;
  auto t = Target();
  if (t && paRegIndex && paData && paStatus && NumRegs > 0 && NumRegs <= 4096) {
    r = 0;
    for (U32 i = 0; i < NumRegs; ++i) {
      U64 v = 0;
      bool ok = t->ReadReg(paRegIndex[i], v) == 0;
      paData[i] = ok ? v : 0;
      paStatus[i] = ok ? 0 : 1;
      if (!ok) r = -1;
    }
  }
  CallLog("VORDENARM_ReadRegs", r, "%u", NumRegs);
  return r;
}

int VORDENARM_WriteReg(U32 RegIndex, U64 Data) {
  auto t = Target();
  int r = t ? t->WriteReg(RegIndex, Data) : -1;
  CallLog("VORDENARM_WriteReg", r, "%u, 0x%llX", RegIndex, (unsigned long long)Data);
  return r;
}

U32 VORDENARM_ReadReg(U32 RegIndex) {
  auto t = Target();
  U64 v = 0;
  int r = t ? t->ReadReg(RegIndex, v) : -1;
  CallLog("VORDENARM_ReadReg", r == 0 ? (long long)v : -1, "%u", RegIndex);
  return (U32)v;
}

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------

int VORDENARM_ReadMemEx(U32 Addr, U32 NumBytes, void* pData, U32 AccessWidth) {
  int r = ValidAW(AccessWidth) ? ReadMemImpl(Addr, NumBytes, pData) : -1;
  CallLog("VORDENARM_ReadMemEx", r, "0x%08X, %u, %u", Addr, NumBytes, AccessWidth);
  return r;
}

int VORDENARM_ReadMem(U32 Addr, U32 NumBytes, void* pData) {
  int n = ReadMemImpl(Addr, NumBytes, pData);
  int r = (NumBytes == 0 && pData) || n == (int)NumBytes ? 0 : 1;
  CallLog("VORDENARM_ReadMem", r, "0x%08X, %u", Addr, NumBytes);
  return r;
}

int VORDENARM_ReadMemU8(U32 Addr, U32 NumItems, U8* pData, U8* pStatus) {
  return ReadValues("VORDENARM_ReadMemU8", Addr, NumItems, pData, pStatus);
}

int VORDENARM_ReadMemU16(U32 Addr, U32 NumItems, U16* pData, U8* pStatus) {
  return ReadValues("VORDENARM_ReadMemU16", Addr, NumItems, pData, pStatus);
}

int VORDENARM_ReadMemU32(U32 Addr, U32 NumItems, U32* pData, U8* pStatus) {
  return ReadValues("VORDENARM_ReadMemU32", Addr, NumItems, pData, pStatus);
}

int VORDENARM_ReadMemU64(U32 Addr, U32 NumItems, U64* pData, U8* pStatus) {
  return ReadValues("VORDENARM_ReadMemU64", Addr, NumItems, pData, pStatus);
}

int VORDEN_ReadMemZonedEx(U32 Addr, U32 NumBytes, void* pData, U32 AccessWidth, const char* sZone) {
  int r = (ZoneOK(sZone) && ValidAW(AccessWidth)) ? ReadMemImpl(Addr, NumBytes, pData) : -1;
  CallLog("VORDEN_ReadMemZonedEx", r, "0x%08X, %u, %u, \"%s\"", Addr, NumBytes, AccessWidth, sZone ? sZone : "");
  return r;
}

int VORDEN_ReadMemZonedU16(U32 Addr, U32 NumItems, U16* pData, U8* pStatus, const char* sZone) {
  return ReadZoned("VORDEN_ReadMemZonedU16", Addr, NumItems, pData, pStatus, sZone);
}

int VORDEN_ReadMemZonedU32(U32 Addr, U32 NumItems, U32* pData, U8* pStatus, const char* sZone) {
  return ReadZoned("VORDEN_ReadMemZonedU32", Addr, NumItems, pData, pStatus, sZone);
}

static int WriteValue(const char* sName, U32 Addr, const void* p, U32 n, unsigned long long v) {
  int w = WriteMemImpl(Addr, n, p);
  int r = w == (int)n ? 0 : -1;
  CallLog(sName, r, "0x%08X, 0x%llX", Addr, v);
  return r;
}

int VORDENARM_WriteU8(U32 Addr, U8 Data) { return WriteValue("VORDENARM_WriteU8", Addr, &Data, 1, Data); }
int VORDENARM_WriteU16(U32 Addr, U16 Data) { return WriteValue("VORDENARM_WriteU16", Addr, &Data, 2, Data); }
int VORDENARM_WriteU32(U32 Addr, U32 Data) { return WriteValue("VORDENARM_WriteU32", Addr, &Data, 4, Data); }
int VORDENARM_WriteU64(U32 Addr, U64 Data) { return WriteValue("VORDENARM_WriteU64", Addr, &Data, 8, Data); }

int VORDENARM_WriteMemEx(U32 Addr, U32 NumBytes, const void* pData, U32 AccessWidth) {
  int r = ValidAW(AccessWidth) ? WriteMemImpl(Addr, NumBytes, pData) : -1;
  CallLog("VORDENARM_WriteMemEx", r, "0x%08X, %u, %u", Addr, NumBytes, AccessWidth);
  return r;
}

int VORDENARM_WriteMem(U32 Addr, U32 NumBytes, const void* pData) {
  int r = WriteMemImpl(Addr, NumBytes, pData);
  CallLog("VORDENARM_WriteMem", r, "0x%08X, %u", Addr, NumBytes);
  return r;
}

int VORDEN_WriteZonedU16(U32 Addr, U16 Data, const char* sZone) {
  if (!ZoneOK(sZone)) return -1;
  return WriteValue("VORDEN_WriteZonedU16", Addr, &Data, 2, Data);
}

int VORDEN_WriteZonedU32(U32 Addr, U32 Data, const char* sZone) {
  if (!ZoneOK(sZone)) return -1;
  return WriteValue("VORDEN_WriteZonedU32", Addr, &Data, 4, Data);
}

int VORDEN_WriteMemZonedEx(U32 Addr, U32 NumBytes, const void* pData, U32 AccessWidth, const char* sZone) {
  int r = (ZoneOK(sZone) && ValidAW(AccessWidth)) ? WriteMemImpl(Addr, NumBytes, pData) : -1;
  CallLog("VORDEN_WriteMemZonedEx", r, "0x%08X, %u, %u, \"%s\"", Addr, NumBytes, AccessWidth, sZone ? sZone : "");
  return r;
}

void VORDENARM_BeginDownload(U32 Flags) {
  S().InDownload = true;
  CallLog("VORDENARM_BeginDownload", 0, "%u", Flags);
}

int VORDENARM_EndDownload(void) {
  Session& s = S();
  int r;
  {
    std::lock_guard<std::recursive_mutex> lk(s.Mx);
    r = !s.InDownload || !Target() ? -1 : s.DownloadError;
    s.InDownload = false;
  }
  CallLog("VORDENARM_EndDownload", r);
  return r;
}

// ---------------------------------------------------------------------------
// Breakpoints and data events
// ---------------------------------------------------------------------------

int VORDENARM_SetBPEx(U32 Addr, U32 Flags) {
  auto t = Target();
  U32 f = Flags;
  if (!S().SoftBPs) f &= ~VORDENARM_BP_TYPE_SW_MASK;
  int r = t ? t->SetBP(Addr, f) : 0;
  CallLog("VORDENARM_SetBPEx", r, "0x%08X, 0x%08X", Addr, Flags);
  return r;
}

int VORDENARM_ClrBPEx(int BPHandle) {
  auto t = Target();
  int r = t ? t->ClrBP(BPHandle) : -1;
  CallLog("VORDENARM_ClrBPEx", r, "%d", BPHandle);
  return r;
}

int VORDENARM_FindBP(U32 Addr) {
  auto t = Target();
  int r = t ? t->FindBP(Addr) : 0;
  CallLog("VORDENARM_FindBP", r, "0x%08X", Addr);
  return r;
}

int VORDENARM_GetBPInfoEx(int Index, VORDENARM_BP_INFO* pInfo) {
  auto t = Target();
  int r = (t && pInfo && pInfo->SizeOfStruct >= sizeof(VORDENARM_BP_INFO)) ? t->GetBPInfo(Index, pInfo) : -1;
  CallLog("VORDENARM_GetBPInfoEx", r, "%d", Index);
  return r;
}

int VORDENARM_SetDataEvent(VORDENARM_DATA_EVENT* pEvent, U32* pHandle) {
  auto t = Target();
  int r = (t && pEvent) ? t->SetDataEvent(*pEvent, pHandle) : (int)VORDENARM_EVENT_ERR_UNKNOWN;
  CallLog("VORDENARM_SetDataEvent", r, "0x%08X", pEvent ? pEvent->Addr : 0);
  return r;
}

int VORDENARM_ClrDataEvent(U32 Handle) {
  auto t = Target();
  int r = t ? t->ClrDataEvent(Handle) : -1;
  CallLog("VORDENARM_ClrDataEvent", r, "0x%X", Handle);
  return r;
}

int VORDENARM_GetWPInfoEx(int Index, VORDENARM_WP_INFO* pInfo) {
  auto t = Target();
  int r = -1;
  if (t && (Index == -1 || (pInfo && pInfo->SizeOfStruct >= sizeof(VORDENARM_WP_INFO)))) r = t->GetWPInfo(Index, pInfo);
  CallLog("VORDENARM_GetWPInfoEx", r, "%d", Index);
  return r;
}

// ---------------------------------------------------------------------------
// Trace
// ---------------------------------------------------------------------------

int VORDEN_STRACE_Config(const char* sConfig) {
  int r = -1;
  if (sConfig) {
    std::string c = Trim(sConfig);
    size_t eq = c.find('=');
    std::string name = Lower(Trim(c.substr(0, eq)));
    if (eq != std::string::npos && (name == "portwidth" || name == "tracebuffersize")) {
      S().TraceConfig = c;
      r = 0;
    }
  }
  CallLog("VORDEN_STRACE_Config", r, "\"%s\"", sConfig ? sConfig : "(null)");
  return r;
}

int VORDEN_STRACE_Start(void) {
  auto t = TraceCap();
  int r = (t && S().Streaming) ? t->TraceStart() : -1;
  CallLog("VORDEN_STRACE_Start", r);
  return r;
}

int VORDEN_STRACE_Stop(void) {
  auto t = TraceCap();
  int r = t ? t->TraceStop() : -1;
  CallLog("VORDEN_STRACE_Stop", r);
  return r;
}

int VORDEN_STRACE_Read(U32* paItem, U32 NumItems) {
  auto t = TraceCap();
  int r = (t && paItem && NumItems > 0) ? t->TraceRead(paItem, NumItems, nullptr, nullptr) : -1;
  CallLog("VORDEN_STRACE_Read", r, "%u", NumItems);
  return r;
}

int VORDEN_STRACE_ReadEx(U32* paItem, U32 NumItems, VORDEN_STRACE_TIMESTAMP_INFO* paStamps, int* pNumStamps, int Flags) {
  auto t = TraceCap();
  int r = -1;
  if (t && paItem && NumItems > 0) {
    int none = 0;
    r = t->TraceRead(paItem, NumItems, paStamps, paStamps && pNumStamps ? pNumStamps : &none);
  } else if (t.Owner && paItem && NumItems > 0 && paStamps && pNumStamps) {
    *pNumStamps = 0;  // no trace on this target: no stamps either
  }
  CallLog("VORDEN_STRACE_ReadEx", r, "%u, %d", NumItems, Flags);
  return r;
}

int VORDEN_STRACE_Control(U32 Cmd, void* pData) {
  auto t = TraceCap();
  int r = t ? t->TraceControl(Cmd, pData) : -1;
  CallLog("VORDEN_STRACE_Control", r, "%u", Cmd);
  return r;
}

int VORDEN_STRACE_GetInstStats(void* paItem, U32 Addr, U32 NumItems, U32 ItemSize, U32 Type) {
  auto t = TraceCap();
  int r = -1;
  if (t && paItem && ItemSize == 8 && NumItems >= 2 && NumItems <= 200000000 && S().Streaming)
    r = t->GetInstStats((U64*)paItem, Addr, NumItems);
  CallLog("VORDEN_STRACE_GetInstStats", r, "0x%08X, %u, %u, %u", Addr, NumItems, ItemSize, Type);
  return r;
}

// ---------------------------------------------------------------------------
// Terminals
// ---------------------------------------------------------------------------

int VORDEN_LVTERMINAL_Control(U32 Cmd, void* pArg) {
  auto t = TerminalCap();
  int r = t ? t->LVTControl(Cmd) : -1;
  CallLog("VORDEN_LVTERMINAL_Control", r, "%u", Cmd);
  return r;
}

int VORDEN_LVTERMINAL_Read(U32 BufferIndex, void* pBuffer, U32 NumBytes) {
  auto t = TerminalCap();
  int r = (t && pBuffer && S().BMA != 0) ? t->LVTRead(BufferIndex, (U8*)pBuffer, NumBytes) : -1;
  CallLog("VORDEN_LVTERMINAL_Read", r, "%u, %u", BufferIndex, NumBytes);
  return r;
}

int VORDEN_LVTERMINAL_Write(U32 BufferIndex, const void* pBuffer, U32 NumBytes) {
  auto t = TerminalCap();
  int r = (t && pBuffer && S().BMA != 0) ? t->LVTWrite(BufferIndex, (const U8*)pBuffer, NumBytes) : -1;
  CallLog("VORDEN_LVTERMINAL_Write", r, "%u, %u", BufferIndex, NumBytes);
  return r;
}

int VORDENARM_SWO_EnableTarget(U32 CPUSpeed, U32 SWOSpeed, int Mode, U32 PortMask) {
  auto t = TerminalCap();
  int r = (t && Mode == 0 && CPUSpeed > 0 && SWOSpeed > 0 && SWOSpeed <= CPUSpeed) ? t->SWOEnable(PortMask) : -1;
  CallLog("VORDENARM_SWO_EnableTarget", r, "%u, %u, %d, 0x%08X", CPUSpeed, SWOSpeed, Mode, PortMask);
  return r;
}

int VORDENARM_SWO_DisableTarget(U32 PortMask) {
  auto t = TerminalCap();
  int r = t ? t->SWODisable(PortMask) : -1;
  CallLog("VORDENARM_SWO_DisableTarget", r, "0x%08X", PortMask);
  return r;
}

int VORDENARM_SWO_Control(U32 Cmd, void* pArg) {
  auto t = TerminalCap();
  int r = -1;
  if (t) {
    if (Cmd == 2) r = t->SWOFlush(pArg ? *(U32*)pArg : 0xFFFFFFFF);
    else if (Cmd == 0) r = t->SWOCount();
  } else if (t.Owner && Cmd == 0) {
    r = 0;  // no SWO on this target: nothing buffered
  }
  CallLog("VORDENARM_SWO_Control", r, "%u", Cmd);
  return r;
}

int VORDENARM_SWO_ReadStimulus(int Port, U8* pData, U32 NumBytes) {
  auto t = TerminalCap();
  int r = (t && pData) ? t->SWORead(Port, pData, NumBytes) : -1;
  CallLog("VORDENARM_SWO_ReadStimulus", r, "%d, %u", Port, NumBytes);
  return r;
}

// SWO speeds: the core clock divided by 1..8192, highest first, not above
// MaxSWOSpeed and not above 50 MHz.
int VORDENARM_SWO_GetCompatibleSpeeds(U32 CPUSpeed, U32 MaxSWOSpeed, U32* paSWOSpeed, U32 NumEntries) {
  int r = -1;
  if (CPUSpeed > 0 && paSWOSpeed && NumEntries > 0) {
    U32 n = 0;
    for (U32 div = 1; div <= 8192 && n < NumEntries; ++div) {
      U32 f = CPUSpeed / div;
      if (CPUSpeed % div) continue;
      if (f > 50000000 || (MaxSWOSpeed && f > MaxSWOSpeed)) continue;
      paSWOSpeed[n++] = f;
    }
    r = (int)n;
  }
  CallLog("VORDENARM_SWO_GetCompatibleSpeeds", r, "%u, %u, %u", CPUSpeed, MaxSWOSpeed, NumEntries);
  return r;
}

// ---------------------------------------------------------------------------
// Sampling and power
// ---------------------------------------------------------------------------

int VORDEN_HSS_Start(VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int Period_us, int Flags) {
  auto t = SamplingCap();
  // -4: the target cannot sample.
  int r = t ? t->HSSStart(paDesc, NumBlocks, Period_us) : t.Owner ? -4 : -1;
  CallLog("VORDEN_HSS_Start", r, "%d, %d, %d", NumBlocks, Period_us, Flags);
  return r;
}

int VORDEN_HSS_Stop(void) {
  auto t = SamplingCap();
  int r = t ? t->HSSStop() : -1;
  CallLog("VORDEN_HSS_Stop", r);
  return r;
}

int VORDEN_HSS_Read(void* pBuffer, U32 BufferSize) {
  auto t = SamplingCap();
  int r = (t && pBuffer) ? t->HSSRead((U8*)pBuffer, BufferSize) : -1;
  CallLog("VORDEN_HSS_Read", r, "%u", BufferSize);
  return r;
}

int VORDEN_POWERTRACE_Control(int Cmd, void* pIn, void* pOut) {
  auto t = PowerCap();
  int r = t ? t->PowerControl(Cmd, pIn, pOut) : -1;
  CallLog("VORDEN_POWERTRACE_Control", r, "%d", Cmd);
  return r;
}

int VORDEN_POWERTRACE_Read(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems) {
  auto t = PowerCap();
  int r = (t && paData) ? t->PowerRead(paData, NumItems) : -1;
  CallLog("VORDEN_POWERTRACE_Read", r, "%u", NumItems);
  return r;
}

}  // extern "C"
