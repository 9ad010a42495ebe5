// The ARM core plug-in for Cortex-M targets: fills the plug-in table, talks to
// the host through its table, and reaches the probe's register operations at
// run time (never linked: they are looked up in the process, where the host
// has loaded the probe library).
//
// Register numbering (core index = probe index for 0..15):
//   0..12 R0..R12, 13 SP, 14 LR, 15 PC, 16 CFA pseudo register (core only).
// Probe register indices: R0..R15 0..15, XPSR 16, MSP 17, PSP 18, PRIMASK 19,
// BASEPRI 20, FAULTMASK 21, CONTROL 22, FPSCR 23, S0..S31 24..55.
#include "coreplugin_arm.h"
#include "thumb_decoder.h"

#include <dlfcn.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#define ARM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

CORE_HOST_API g_Host{};
CORE_CONFIG g_Config{};
std::atomic<bool> g_Init{false};

// Probe operations, found in the process at first use.
typedef int (*READREGS_FUNC)(const U32* paRegIndex, U64* paData, U8* paStatus, U32 NumRegs);
typedef int (*WRITEREG_FUNC)(U32 RegIndex, U64 Data);
typedef int (*CORE2NAME_FUNC)(U32 Core, char* acBuf, unsigned BufSize);

struct ProbeOps {
  READREGS_FUNC pfReadRegs = nullptr;
  WRITEREG_FUNC pfWriteReg = nullptr;
  CORE2NAME_FUNC pfCore2CoreName = nullptr;
};

std::mutex g_ProbeMutex;
ProbeOps g_Probe;
bool g_ProbeOverride = false;

void* FindSymbol(const char* sName) {
  void* p = dlsym(RTLD_DEFAULT, sName);
  if (p) return p;
  // The host may have loaded the probe library with local symbols.
  void* hLib = dlopen("libVorden.so", RTLD_NOW | RTLD_NOLOAD);
  if (!hLib) return nullptr;
  p = dlsym(hLib, sName);
  dlclose(hLib);
  return p;
}

ProbeOps GetProbe() {
  std::lock_guard<std::mutex> Lock(g_ProbeMutex);
  if (!g_ProbeOverride) {
    if (!g_Probe.pfReadRegs) g_Probe.pfReadRegs = (READREGS_FUNC)FindSymbol("VORDENARM_ReadRegs");
    if (!g_Probe.pfWriteReg) g_Probe.pfWriteReg = (WRITEREG_FUNC)FindSymbol("VORDENARM_WriteReg");
    if (!g_Probe.pfCore2CoreName) g_Probe.pfCore2CoreName = (CORE2NAME_FUNC)FindSymbol("VORDENARM_Core2CoreName");
  }
  return g_Probe;
}

void Log(U32 Level, const char* sMsg) {
  if (g_Host.pfLog) g_Host.pfLog(sMsg, Level);
}

// ---- memory for the decoder -------------------------------------------------

int HostRead(U64 Addr, U32 NumBytes, U8* pData, void*) {
  if (!g_Host.pfReadMem) return -1;
  return g_Host.pfReadMem(Addr, NumBytes, pData) == 0 ? 0 : -1;
}

int HostCodeRange(U64 Addr, U64* pStart, void*) {
  if (!g_Host.pfGetCodeRange) return -1;
  const char* sName = nullptr;
  U64 Start = 0, End = 0;
  if (g_Host.pfGetCodeRange(Addr, &sName, &Start, &End) != 0) return -1;
  if (!sName || sName[0] != '$' || (sName[1] != 't' && sName[1] != 'a')) return -1;
  *pStart = Start;
  return 0;
}

armcore::DecodeEnv Env() {
  armcore::DecodeEnv E;
  E.pfRead = HostRead;
  E.pfCodeRange = HostCodeRange;
  E.InstBigEndian = g_Config.InstEndian == 1;
  E.DataBigEndian = g_Config.DataEndian == 1;
  return E;
}

// ---- registers --------------------------------------------------------------

constexpr U32 kNumCoreRegs = 17;
constexpr U32 kNumProbeRegs = 56;
constexpr U32 kXPSR = 16, kMSP = 17, kPSP = 18, kPRIMASK = 19, kBASEPRI = 20, kFAULTMASK = 21,
              kCONTROL = 22, kFPSCR = 23, kS0 = 24;
constexpr U32 kSysRegBase = 200;  // logical numbers of XPSR..FPSCR

int ReadProbeRegs(U32 Cnt, const U32* paIdx, U64* paValues, U8* paStatus) {
  ProbeOps P = GetProbe();
  if (!P.pfReadRegs) return -1;
  for (U32 i = 0; i < Cnt; ++i) paStatus[i] = 1;
  int r = P.pfReadRegs(paIdx, paValues, paStatus, Cnt);
  return r < 0 ? -1 : 0;
}

int ReadOne(U32 Idx, U64* pValue) {
  U8 Status = 1;
  U64 V = 0;
  if (ReadProbeRegs(1, &Idx, &V, &Status) != 0 || Status != 0) return -1;
  *pValue = V;
  return 0;
}

int WriteOne(U32 Idx, U64 Value) {
  ProbeOps P = GetProbe();
  if (!P.pfWriteReg || Idx >= kNumProbeRegs) return -1;
  return P.pfWriteReg(Idx, Value) < 0 ? -1 : 0;
}

struct CPRegDesc {
  const char* sName;
  U32 ProbeIdx;
  U32 Mask;   // bits of the probe register that the name shows
};
const CPRegDesc g_aCPRegs[] = {
    {"XPSR", kXPSR, 0xFFFFFFFFu},   {"APSR", kXPSR, 0xF80F0000u},  {"IPSR", kXPSR, 0x000001FFu},
    {"EPSR", kXPSR, 0x0700FC00u},   {"MSP", kMSP, 0xFFFFFFFFu},    {"PSP", kPSP, 0xFFFFFFFFu},
    {"PRIMASK", kPRIMASK, 1},       {"BASEPRI", kBASEPRI, 0xFF},   {"FAULTMASK", kFAULTMASK, 1},
    {"CONTROL", kCONTROL, 7},       {"FPSCR", kFPSCR, 0xFFFFFFFFu},
};

const CPRegDesc* FindCPReg(const char* sName) {
  if (!sName) return nullptr;
  for (const CPRegDesc& D : g_aCPRegs)
    if (strcasecmp(D.sName, sName) == 0) return &D;
  return nullptr;
}

// ---- semihosting -------------------------------------------------------------

std::mutex g_SHMutex;
bool g_SHPending = false;
U32 g_SHPC = 0;
std::string g_SHCmdLine;

// ---- prologue scan -----------------------------------------------------------

// Simulates the stack effect of the prologue from FuncStart up to (not
// including) PC. Returns false when nothing that looks like a prologue is there.
struct PrologueState {
  I64 SPOffset = 0;          // SP at PC = CFA + SPOffset (negative)
  I64 SavedAt[16];           // offset from CFA, 1 = not saved
  bool FrameReg = false;     // R7 holds SP + R7Offset
  I64 R7Offset = 0;          // R7 = CFA + R7Offset
  PrologueState() {
    for (I64& v : SavedAt) v = 1;
  }
};

bool ScanPrologue(U64 FuncStart, U64 PC, PrologueState* pS) {
  armcore::DecodeEnv E = Env();
  U64 A = FuncStart;
  int Steps = 0;
  int Alias[16];
  for (int& a : Alias) a = -1;
  while (A < PC && Steps++ < 4096) {
    U8 b[4];
    if (E.pfRead(A, 2, b, nullptr) != 0) return Steps > 1;
    U16 h = U16(b[0] | b[1] << 8);
    U32 Size = ((h >> 11) >= 0x1D) ? 4 : 2;
    U32 W = h;
    if (Size == 4) {
      if (E.pfRead(A + 2, 2, b + 2, nullptr) != 0) return false;
      W = (U32(h) << 16) | U32(b[2] | b[3] << 8);
    }
    if (Size == 2 && (h & 0xFE00) == 0xB400) {  // push {rlist[, lr]}
      U32 List = (h & 0xFF) | ((h & 0x100) ? 0x4000 : 0);
      int n = __builtin_popcount(List);
      pS->SPOffset -= 4 * n;
      int k = 0;
      for (int r = 0; r < 16; ++r) {
        if (!(List & (1u << r))) continue;
        I64 Off = pS->SPOffset + 4 * k++;
        // ARMv6-M saves R8-R11 by moving them to low registers first.
        if (Alias[r] >= 0) pS->SavedAt[Alias[r]] = Off;
        else pS->SavedAt[r] = Off;
        Alias[r] = -1;
      }
    } else if (Size == 2 && (h & 0xFF00) == 0x4600) {  // mov rd, rm (any registers)
      int Rd = (h & 7) | ((h >> 4) & 8), Rm = (h >> 3) & 0xF;
      if (Rd != 13 && Rd != 15) Alias[Rd] = (Rm >= 8 && Rm <= 12) ? Rm : -1;
    } else if (Size == 4 && (W & 0xFFFF0000u) == 0xE92D0000u) {  // push.w / stmdb sp!
      U32 List = W & 0x5FFF;
      int n = __builtin_popcount(List);
      pS->SPOffset -= 4 * n;
      int k = 0;
      for (int r = 0; r < 16; ++r)
        if (List & (1u << r)) pS->SavedAt[r] = pS->SPOffset + 4 * k++;
    } else if (Size == 4 && (W & 0xFFFF0F00u) == 0xF84D0D00u) {  // str rt, [sp, #-imm8]!
      pS->SPOffset -= (W & 0xFF);
      pS->SavedAt[(W >> 12) & 0xF] = pS->SPOffset;
    } else if (Size == 2 && (h & 0xFF80) == 0xB080) {  // sub sp, #imm7*4
      pS->SPOffset -= 4 * (h & 0x7F);
    } else if (Size == 4 && (W & 0xFBFF8F00u) == 0xF1AD0D00u) {  // sub.w sp, sp, #imm (modified imm, small)
      U32 Imm8 = W & 0xFF, I = (W >> 26) & 1, Imm3 = (W >> 12) & 7;
      U32 Imm12 = (I << 11) | (Imm3 << 8) | Imm8;
      if ((Imm12 >> 10) == 0 && ((Imm12 >> 8) & 3) == 0) pS->SPOffset -= Imm8;
      else {
        U32 Rot = Imm12 >> 7, V = (0x80 | (Imm12 & 0x7F));
        pS->SPOffset -= (I64)((V >> Rot) | (V << (32 - Rot)));
      }
    } else if (Size == 4 && (W & 0xFBFF8F00u) == 0xF2AD0D00u) {  // subw sp, sp, #imm12
      U32 Imm12 = ((W >> 26) & 1) << 11 | ((W >> 12) & 7) << 8 | (W & 0xFF);
      pS->SPOffset -= Imm12;
    } else if (Size == 4 && (W & 0xFFFFFF00u) == 0xED2D8B00u) {  // vpush {d8..}
      pS->SPOffset -= 4 * (W & 0xFF);
    } else if (Size == 2 && (h & 0xFF00) == 0xAF00) {  // add r7, sp, #imm8*4
      pS->FrameReg = true;
      pS->R7Offset = pS->SPOffset + 4 * (h & 0xFF);
    } else if (Size == 2 && h == 0x466F) {  // mov r7, sp
      pS->FrameReg = true;
      pS->R7Offset = pS->SPOffset;
    }
    // Everything else is the body. A return on one path (shrink-wrapped or
    // early-exit code) does not end the scan: code after it is reached by a
    // branch from inside the frame, or has no frame yet.
    A += Size;
  }
  return true;
}

}  // namespace

// ============================================================================
// Plug-in table functions
// ============================================================================

namespace armplugin {

int Init(const CORE_CONFIG* pConfig) {
  if (!pConfig) return -1;
  std::memcpy(&g_Config, pConfig, sizeof g_Config);
  g_Config.acFilePath[sizeof g_Config.acFilePath - 1] = 0;
  g_Init = true;
  return 0;
}

int Reconfigure(const CORE_CONFIG* pConfig) {
  if (!pConfig || !g_Init) return -1;
  std::memcpy(&g_Config, pConfig, sizeof g_Config);
  g_Config.acFilePath[sizeof g_Config.acFilePath - 1] = 0;
  return 0;
}

int ReadReg(U32 Idx, U32 Size, U64* pValue) {
  if (!pValue || Size != 8 || Idx >= kNumProbeRegs) return -1;
  return ReadOne(Idx, pValue);
}

int ReadRegs(U32 Cnt, const U32* paIdx, U32 Size, U64* paValues, U8* paStatus) {
  if (Cnt == 0 || !paIdx || !paValues || !paStatus || Size != Cnt * 8) return -1;
  for (U32 i = 0; i < Cnt; ++i)
    if (paIdx[i] >= kNumProbeRegs) return -1;
  return ReadProbeRegs(Cnt, paIdx, paValues, paStatus);
}

int WriteReg(U32 Idx, U32 Size, const U64* pValue) {
  if (!pValue || Size != 8) return -1;
  U64 V = *pValue;
  if (Idx == 15) V &= ~1ull;  // the PC holds no Thumb bit
  return WriteOne(Idx, V);
}

int ReadCPReg(const char* sName, U32 Size, U64* pValue) {
  const CPRegDesc* D = FindCPReg(sName);
  if (!D || !pValue || Size != 8) return -1;
  U64 V;
  if (ReadOne(D->ProbeIdx, &V) != 0) return -1;
  *pValue = V & D->Mask;
  return 0;
}

int WriteCPReg(const char* sName, U32 Size, const U64* pValue) {
  const CPRegDesc* D = FindCPReg(sName);
  if (!D || !pValue || Size != 8) return -1;
  U64 V = *pValue & D->Mask;
  if (D->Mask != 0xFFFFFFFFu && D->ProbeIdx == kXPSR) {
    U64 Old;
    if (ReadOne(kXPSR, &Old) != 0) return -1;
    V = (Old & ~U64(D->Mask)) | V;
  }
  return WriteOne(D->ProbeIdx, V);
}

int GetStaticInfo(CORE_STATIC_INFO* pInfo, U32 Size) {
  if (!pInfo || Size < sizeof(CORE_STATIC_INFO)) return -1;
  std::memset(pInfo, 0, sizeof *pInfo);
  pInfo->AddrSize = 4;
  pInfo->NumRegs = kNumCoreRegs;
  pInfo->RegSize = 4;
  pInfo->PCSize = 4;
  pInfo->SPSize = 4;
  pInfo->InstAlign = 2;
  pInfo->MinInstLen = 2;
  pInfo->MaxInstLen = 4;
  pInfo->MaxMnemonicLen = kMaxMnemonicLen;
  pInfo->NumProbeRegs = kNumProbeRegs;
  pInfo->MaxUnwindRegIdx = 16;
  pInfo->SPIdx = 13;
  pInfo->LRIdx = 14;
  pInfo->PCIdx = 15;
  pInfo->RAIdx = 14;
  pInfo->CFAIdx = 16;
  return 0;
}

// CPU mode: the exception number of IPSR (0 = Thread mode).
int GetCPUMode(U32* pMode) {
  if (!pMode) return -1;
  U64 V;
  if (ReadOne(kXPSR, &V) != 0) return -1;
  *pMode = U32(V & 0x1FF);
  return 0;
}

// Execution mode: 2 = Thumb, the only state of an M-profile core.
int GetExecMode(U32* pMode) {
  if (!pMode) return -1;
  *pMode = 2;
  return 0;
}

U32 GetBPFlags(U32) { return 0; }

int UnwindFrame(const void*, CORE_FRAME_RECORD* pRec) {
  if (!pRec || !pRec->paRules || pRec->NumRules < kNumCoreRegs) return -1;
  CORE_UNWIND_RULE* R = pRec->paRules;
  for (U32 i = 0; i < pRec->NumRules; ++i) R[i] = CORE_UNWIND_RULE{CORE_RULE_SAME, 0, 0};
  pRec->Method = CORE_UNWIND_METHOD_NONE;
  U64 PC = pRec->PC & ~1ull;
  U64 Start = pRec->FuncStart & ~1ull;
  if (Start == 0 || Start > PC || PC - Start > 0x10000) {
    // Without a function start only a leaf frame can be assumed.
    R[16] = CORE_UNWIND_RULE{CORE_RULE_REG_OFFSET, 13, 0};
    R[13] = CORE_UNWIND_RULE{CORE_RULE_REG_OFFSET, 16, 0};
    pRec->RAIdx = 14;
    pRec->Method = CORE_UNWIND_METHOD_LEAF;
    return CORE_UNWIND_FILLED;
  }
  PrologueState S;
  if (!ScanPrologue(Start, PC, &S)) return -1;
  if (S.FrameReg) R[16] = CORE_UNWIND_RULE{CORE_RULE_REG_OFFSET, 7, -S.R7Offset};
  else R[16] = CORE_UNWIND_RULE{CORE_RULE_REG_OFFSET, 13, -S.SPOffset};
  for (int r = 0; r < 16; ++r)
    if (S.SavedAt[r] != 1) R[r] = CORE_UNWIND_RULE{CORE_RULE_AT_CFA, 0, S.SavedAt[r]};
  // The caller's SP is the CFA; the return address is the LR rule (saved in
  // the frame, or still in LR).
  R[13] = CORE_UNWIND_RULE{CORE_RULE_REG_OFFSET, 16, 0};
  pRec->Method = (S.SPOffset || S.FrameReg) ? CORE_UNWIND_METHOD_PROLOGUE : CORE_UNWIND_METHOD_LEAF;
  pRec->RAIdx = 14;
  return CORE_UNWIND_FILLED;
}

int AnalyzeInst(U64 Addr, CORE_INST_INFO* pInfo) {
  if (!pInfo) return -1;
  armcore::Decoded D;
  int r = armcore::DecodeAt(Env(), Addr, &D, false);
  *pInfo = D.Info;
  return r;
}

// Logical register numbers (the register description file's <index> and
// DWARF numbers) to probe indices: 0..15 R0..PC, 64..95 S0..S31 (DWARF),
// 200..207 XPSR, MSP, PSP, PRIMASK, BASEPRI, FAULTMASK, CONTROL, FPSCR.
int GetRegIndex(U32 CoreRegIdx) {
  if (CoreRegIdx < 16) return int(CoreRegIdx);
  if (CoreRegIdx >= 64 && CoreRegIdx < 96) return int(kS0 + (CoreRegIdx - 64));
  if (CoreRegIdx >= kSysRegBase && CoreRegIdx < kSysRegBase + 8) return int(kXPSR + (CoreRegIdx - kSysRegBase));
  return -1;
}

int GetModeName(U32 Mode, char* acBuf, U32 Size) {
  if (!acBuf || Size == 0) return -1;
  static const char* const aNames[16] = {"Thread",     "Reset",    "NMI",       "HardFault",
                                         "MemManage",  "BusFault", "UsageFault", "SecureFault",
                                         "Reserved",   "Reserved", "Reserved",  "SVCall",
                                         "DebugMonitor", "Reserved", "PendSV",   "SysTick"};
  if (Mode == 0) std::snprintf(acBuf, Size, "Thread");
  else if (Mode < 16) std::snprintf(acBuf, Size, "Handler (%s)", aNames[Mode]);
  else if (Mode < 512) std::snprintf(acBuf, Size, "Handler (IRQ %u)", Mode - 16);
  else return -1;
  return 0;
}

int GetCoreName(U32 Core, char* acBuf, U32 Size) {
  if (!acBuf || Size == 0) return -1;
  acBuf[0] = 0;
  ProbeOps P = GetProbe();
  if (P.pfCore2CoreName) {
    P.pfCore2CoreName(Core, acBuf, Size);
    acBuf[Size - 1] = 0;
  }
  if (!acBuf[0]) std::snprintf(acBuf, Size, "ARM core 0x%08X", Core);
  return 0;
}

int GetRegisterFile(U32, char* acBuf, U32 Size) {
  if (!acBuf || Size <= std::strlen(kRegisterFileName)) return -1;
  std::snprintf(acBuf, Size, "%s", kRegisterFileName);
  return 0;
}

int GetPeripheralFile(U32, char* acBuf, U32 Size) {
  if (acBuf && Size) acBuf[0] = 0;
  return -1;  // no default peripheral description for a core
}

int GetFrameInfoText(const void* pFrameEntry, char* acBuf, U32 Size) {
  if (!acBuf || Size == 0) return -1;
  const CORE_FRAME_RECORD* pRec = static_cast<const CORE_FRAME_RECORD*>(pFrameEntry);
  U32 M = pRec ? pRec->Method : CORE_UNWIND_METHOD_NONE;
  const char* s = M == CORE_UNWIND_METHOD_LEAF       ? "No frame: return address in LR"
                  : M == CORE_UNWIND_METHOD_PROLOGUE ? "Unwound by prologue analysis"
                                                     : "No unwind information";
  std::snprintf(acBuf, Size, "%s", s);
  return 0;
}

static int InstText(U64 Addr, U32 Size, char* acBuf, U32 BufSize) {
  if (!acBuf || BufSize == 0) return -1;
  acBuf[0] = 0;
  armcore::Decoded D;
  armcore::DecodeEnv E = Env();
  int r = armcore::DecodeAt(E, Addr, &D, true);
  if (r != 0 || (Size != 0 && Size < D.Info.Size)) {
    // No instruction, or the caller clipped it: show the bytes as data.
    U32 n = Size ? (Size > 4 ? 4 : Size) : 2;
    if (n == 3) n = 2;
    return armcore::FormatData(E, Addr, n, acBuf, BufSize);
  }
  int k = std::snprintf(acBuf, BufSize, "%s", D.acText);
  if (k < 0) return -1;
  return int(D.Info.Size);
}

int GetInstText(U64 Addr, U32 Size, char* acBuf, U32 BufSize) { return InstText(Addr, Size, acBuf, BufSize); }
int GetInstDisplayText(U64 Addr, U32 Size, char* acBuf, U32 BufSize) {
  return InstText(Addr, Size, acBuf, BufSize);
}

int GetDataText(U64 Addr, U32 Size, char* acBuf, U32 BufSize) {
  return armcore::FormatData(Env(), Addr, Size, acBuf, BufSize);
}
int GetDataDisplayText(U64 Addr, U32 Size, char* acBuf, U32 BufSize) {
  return armcore::FormatData(Env(), Addr, Size, acBuf, BufSize);
}

int GetMappingSymPrefix(char* acBuf, U32 Size) {
  if (!acBuf || Size < 2) return 0;
  std::snprintf(acBuf, Size, "$");
  return 1;
}

// "$t", "$a", "$d", each optionally followed by ".<anything>".
int ParseMappingSym(const char* sName, U32* pType, char* acBuf, U32 Size) {
  if (!sName || sName[0] != '$') return -1;
  char c = sName[1];
  if ((c != 't' && c != 'a' && c != 'd') || (sName[2] != 0 && sName[2] != '.')) return -1;
  const char* sDesc = c == 't' ? "Thumb code" : c == 'a' ? "ARM code" : "Data";
  if (acBuf && Size) std::snprintf(acBuf, Size, "%s", sDesc);
  if (pType) *pType = c == 'd' ? 1 : 0;
  return 0;
}

static bool ElfHeaderOk(U32 HdrSize, const void* pHdr) {
  if (!pHdr || HdrSize < 52) return false;
  const U8* p = static_cast<const U8*>(pHdr);
  return p[0] == 0x7F && p[1] == 'E' && p[2] == 'L' && p[3] == 'F' && p[4] == 1 && (p[5] == 1 || p[5] == 2);
}

static U32 ElfU32(const U8* p, bool Big) {
  return Big ? (U32(p[0]) << 24 | U32(p[1]) << 16 | U32(p[2]) << 8 | p[3])
             : (U32(p[3]) << 24 | U32(p[2]) << 16 | U32(p[1]) << 8 | p[0]);
}

int GetELFByteOrder(U32 HdrSize, const void* pHdr, U32* pDataEndian, U32* pInstEndian) {
  if (!ElfHeaderOk(HdrSize, pHdr)) return -1;
  const U8* p = static_cast<const U8*>(pHdr);
  bool Big = p[5] == 2;
  U32 Flags = ElfU32(p + 36, Big);
  U32 Data = Big ? 1 : 0;
  U32 Inst = (Big && (Flags & 0x00800000u)) ? 0 : Data;  // EF_ARM_BE8: code stays little-endian
  if (pDataEndian) *pDataEndian = Data;
  if (pInstEndian) *pInstEndian = Inst;
  return 0;
}

int CheckELFFile(U32 HdrSize, const void* pHdr) {
  if (!ElfHeaderOk(HdrSize, pHdr)) return -1;
  const U8* p = static_cast<const U8*>(pHdr);
  bool Big = p[5] == 2;
  U32 Machine = Big ? (U32(p[18]) << 8 | p[19]) : (U32(p[19]) << 8 | p[18]);
  return Machine == 40 ? 0 : -1;  // EM_ARM
}

int OnConnected() { return 0; }
int OnAboutToDisconnect() {
  std::lock_guard<std::mutex> Lock(g_SHMutex);
  g_SHPending = false;
  return 0;
}
int OnTargetHalted() { return 0; }
int OnAboutToResume() { return 0; }

// SP and PC from the vector table: at the image's lowest address when a
// program is open, else at VTOR.
int SetDefaultExecState() {
  U64 Table = 0;
  U64 aInfo[3] = {0, 0, ~0ull};
  bool HaveImage = g_Host.pfGetProgramInfo && g_Host.pfGetProgramInfo(aInfo) == 0 && aInfo[2] != ~0ull;
  if (HaveImage) {
    Table = aInfo[0];
  } else {
    U8 b[4];
    if (g_Host.pfReadMem && g_Host.pfReadMem(0xE000ED08u, 4, b) == 0)
      Table = ElfU32(b, false) & ~0x7Full;
  }
  U8 v[8];
  if (!g_Host.pfReadMem || g_Host.pfReadMem(Table, 8, v) != 0) {
    Log(CORE_LOG_ERROR, "SetDefaultExecState: could not read the vector table");
    return -1;
  }
  bool Big = g_Config.DataEndian == 1;
  U32 SP = ElfU32(v, Big), PC = ElfU32(v + 4, Big);
  if (WriteOne(13, SP & ~3u) != 0) return -1;
  if (WriteOne(15, PC & ~1u) != 0) return -1;
  // As a reset does: the core runs Thumb code in thread mode. A core that was
  // reset before the program was there has the T bit clear and would fault
  // at its first instruction.
  U64 Psr = 0;
  if (ReadOne(kXPSR, &Psr) == 0 && (Psr & 0x010001FFu) != 0x01000000u) WriteOne(kXPSR, 0x01000000u);
  return 0;
}

int InitSemihosting(const char* sCmdLine) {
  std::lock_guard<std::mutex> Lock(g_SHMutex);
  g_SHCmdLine = sCmdLine ? sCmdLine : "";
  g_SHPending = false;
  return 0;
}

int DeinitSemihosting() {
  std::lock_guard<std::mutex> Lock(g_SHMutex);
  g_SHPending = false;
  return 0;
}

// A stop at BKPT 0xAB is a semihosting request: R0 = operation, R1 = operand.
int HandleSemihosting(U32 PC, U32* pOpCode, U64* pOperandAddr) {
  if (!pOpCode || !pOperandAddr || !g_Host.pfReadMem) return 0;
  PC &= ~1u;
  U8 b[2];
  if (g_Host.pfReadMem(PC, 2, b) != 0) return 0;
  U16 h = g_Config.InstEndian == 1 ? U16(b[0] << 8 | b[1]) : U16(b[1] << 8 | b[0]);
  if (h != 0xBEAB) return 0;
  U32 aIdx[2] = {0, 1};
  U64 aVal[2] = {0, 0};
  U8 aSt[2] = {1, 1};
  if (ReadProbeRegs(2, aIdx, aVal, aSt) != 0 || aSt[0] || aSt[1]) return 0;
  std::lock_guard<std::mutex> Lock(g_SHMutex);
  *pOpCode = U32(aVal[0]);
  *pOperandAddr = U32(aVal[1]);
  g_SHPending = true;
  g_SHPC = PC;
  return 1;
}

// Writes the result to R0 and moves the PC past the BKPT. A result of -1
// (cancel or failure) is written the same way, so the target sees the error.
int CompleteSemihosting(U64 Result) {
  U32 PC;
  {
    std::lock_guard<std::mutex> Lock(g_SHMutex);
    if (!g_SHPending) return -1;
    g_SHPending = false;
    PC = g_SHPC;
  }
  if (WriteOne(0, U32(Result)) != 0) return -1;
  return WriteOne(15, PC + 2);
}

int GetDefaultScriptBody(U32, char* acBuf, U32 Size) {
  if (acBuf && Size) acBuf[0] = 0;
  return -1;  // the host's own defaults apply
}

void SetProbeForTest(int (*pfReadRegs)(const U32*, U64*, U8*, U32), int (*pfWriteReg)(U32, U64)) {
  std::lock_guard<std::mutex> Lock(g_ProbeMutex);
  g_ProbeOverride = pfReadRegs || pfWriteReg;
  g_Probe.pfReadRegs = pfReadRegs;
  g_Probe.pfWriteReg = pfWriteReg;
  g_Probe.pfCore2CoreName = nullptr;
}

}  // namespace armplugin

// ============================================================================
// Exports
// ============================================================================

ARM_EXPORT int CORE_PLUGIN_GetAPI(void* pAPI, U32 Size) {
  if (!pAPI || Size != sizeof(CORE_PLUGIN_API)) return -1;
  using namespace armplugin;
  CORE_PLUGIN_API T{};
  T.pfInit = Init;
  T.pfReconfigure = Reconfigure;
  T.pfReadReg = ReadReg;
  T.pfReadRegs = ReadRegs;
  T.pfWriteReg = WriteReg;
  T.pfReadCPReg = ReadCPReg;
  T.pfWriteCPReg = WriteCPReg;
  T.pfGetStaticInfo = GetStaticInfo;
  T.pfGetCPUMode = GetCPUMode;
  T.pfGetExecMode = GetExecMode;
  T.pfGetBPFlags = GetBPFlags;
  T.pfUnwindFrame = UnwindFrame;
  T.pfAnalyzeInst = AnalyzeInst;
  T.pfGetRegIndex = GetRegIndex;
  T.pfGetModeName = GetModeName;
  T.pfGetCoreName = GetCoreName;
  T.pfGetRegisterFile = GetRegisterFile;
  T.pfGetPeripheralFile = GetPeripheralFile;
  T.pfGetFrameInfoText = GetFrameInfoText;
  T.pfGetInstText = GetInstText;
  T.pfGetInstDisplayText = GetInstDisplayText;
  T.pfGetDataText = GetDataText;
  T.pfGetDataDisplayText = GetDataDisplayText;
  T.pfGetMappingSymPrefix = GetMappingSymPrefix;
  T.pfParseMappingSym = ParseMappingSym;
  T.pfGetELFByteOrder = GetELFByteOrder;
  T.pfOnConnected = OnConnected;
  T.pfOnAboutToDisconnect = OnAboutToDisconnect;
  T.pfSetDefaultExecState = SetDefaultExecState;
  T.pfOnTargetHalted = OnTargetHalted;
  T.pfOnAboutToResume = OnAboutToResume;
  T.pfInitSemihosting = InitSemihosting;
  T.pfDeinitSemihosting = DeinitSemihosting;
  T.pfHandleSemihosting = HandleSemihosting;
  T.pfCompleteSemihosting = CompleteSemihosting;
  T.pfGetDefaultScriptBody = GetDefaultScriptBody;
  T.pfCheckELFFile = CheckELFFile;
  std::memcpy(pAPI, &T, sizeof T);
  return 0;
}

ARM_EXPORT int CORE_PLUGIN_SetAPI(const void* pHostAPI, U32 Size) {
  if (!pHostAPI || Size != sizeof(CORE_HOST_API)) return -1;
  std::memcpy(&g_Host, pHostAPI, sizeof g_Host);
  return 0;
}

ARM_EXPORT U32 CORE_PLUGIN_GetVersion(void) { return kPluginVersion; }

ARM_EXPORT const char* CORE_PLUGIN_GetName(void) { return "Tavit ARM Cortex-M core support"; }
