#include "plugins/corewrappers.h"

#include "log/console.h"
#include "log/log.h"
#include "plugins/corestate.h"

#include <QString>

namespace {

const CORE_PLUGIN_API& Api() { return CoreHostState().Api; }

// The result buffers of the wrappers: one set for the GUI thread, one for the
// others (the device worker).
struct RESULT_BUFFERS {
  char acName[64];
  char acFile[2048];
  char acText[128];
  char acPrefix[8];
  char acDesc[64];
  char acBody[10000];
  CORE_INST_INFO Inst;
};
RESULT_BUFFERS& Buffers() {
  static RESULT_BUFFERS s_a[2];
  return s_a[IsUiThread() ? 0 : 1];
}

// A text slot into a buffer: the buffer, or null when the plug-in gave none.
template <size_t N, class F>
const char* Text(char (&ac)[N], F&& Call) {
  ac[0] = 0;
  if (Call(ac, U32(N)) != 0) return nullptr;
  ac[N - 1] = 0;
  return ac;
}

const char* CodeText(int (*pf)(U64, U32, char*, U32), U64 Addr, U32 Size, int* pUsed) {
  if (pUsed) *pUsed = 0;
  if (!pf) return nullptr;
  char* ac = Buffers().acText;
  ac[0] = 0;
  const int n = pf(Addr, Size, ac, sizeof Buffers().acText);
  if (n < 1) return nullptr;
  ac[sizeof Buffers().acText - 1] = 0;
  if (pUsed) *pUsed = n;
  return ac;
}

int Call0(int (*pf)()) { return pf ? pf() : 0; }

}  // namespace

int CORE_ReadReg(U32 Idx, U64* pValue) { return Api().pfReadReg ? Api().pfReadReg(Idx, 8, pValue) : -1; }

int CORE_ReadRegs(U32 Cnt, const U32* paIdx, U64* paValues, U8* paStatus) {
  return Api().pfReadRegs ? Api().pfReadRegs(Cnt, paIdx, Cnt * 8, paValues, paStatus) : -1;
}

int CORE_WriteReg(U32 Idx, U64 Value) { return Api().pfWriteReg ? Api().pfWriteReg(Idx, 8, &Value) : -1; }

int CORE_ReadCPReg(const char* sName, U64* pValue) {
  *pValue = 0;
  if (!Api().pfReadCPReg) return 0;
  if (Api().pfReadCPReg(sName, 8, pValue) == 0) return 0;
  *pValue = U64(-1);
  return -1;
}

int CORE_WriteCPReg(const char* sName, U64 Value) {
  return Api().pfWriteCPReg ? (Api().pfWriteCPReg(sName, 8, &Value) == 0 ? 0 : -1) : 0;
}

U32 CORE_GetCPUMode() {
  U32 Mode = 0;
  return Api().pfGetCPUMode && Api().pfGetCPUMode(&Mode) == 0 ? Mode : 0;
}

U32 CORE_GetExecMode() {
  U32 Mode = 0;
  return Api().pfGetExecMode && Api().pfGetExecMode(&Mode) == 0 ? Mode : 0;
}

U32 CORE_GetBPFlags(U32 Addr) { return Api().pfGetBPFlags ? Api().pfGetBPFlags(Addr) : 0; }

int CORE_UnwindFrame(const void* pFrameEntry, CORE_FRAME_RECORD* pRec) {
  return Api().pfUnwindFrame ? Api().pfUnwindFrame(pFrameEntry, pRec) : -1;
}

const CORE_INST_INFO* CORE_AnalyzeInst(U64 Addr, int* pResult) {
  CORE_INST_INFO& i = Buffers().Inst;
  i = CORE_INST_INFO{};
  const int r = Api().pfAnalyzeInst ? Api().pfAnalyzeInst(Addr, &i) : -1;
  if (pResult) *pResult = r;
  return r == 0 && i.Size ? &i : nullptr;
}

void CORE_SetReadOverlay(U64 Start, U64 End, const U8* pData) {
  CORE_HOST_STATE& h = CoreHostState();
  h.pOverlay = End > Start ? pData : nullptr;
  h.OverlayStart = h.pOverlay ? Start : 0;
  h.OverlayEnd = h.pOverlay ? End : 0;
}

int CORE_GetRegIndex(U32 CoreRegIdx) { return Api().pfGetRegIndex ? Api().pfGetRegIndex(CoreRegIdx) : -1; }

const char* CORE_GetModeName(U32 Mode) {
  auto pf = Api().pfGetModeName;
  return pf ? Text(Buffers().acName, [&](char* ac, U32 n) { return pf(Mode, ac, n); }) : nullptr;
}

const char* CORE_GetCoreName(U32 Core) {
  auto pf = Api().pfGetCoreName;
  return pf ? Text(Buffers().acName, [&](char* ac, U32 n) { return pf(Core, ac, n); }) : nullptr;
}

const char* CORE_GetRegisterFile(U32 Core) {
  auto pf = Api().pfGetRegisterFile;
  return pf ? Text(Buffers().acFile, [&](char* ac, U32 n) { return pf(Core, ac, n); }) : nullptr;
}

const char* CORE_GetPeripheralFile(U32 Core) {
  auto pf = Api().pfGetPeripheralFile;
  return pf ? Text(Buffers().acFile, [&](char* ac, U32 n) { return pf(Core, ac, n); }) : nullptr;
}

const char* CORE_GetFrameInfoText(const void* pFrameEntry) {
  auto pf = Api().pfGetFrameInfoText;
  return pf ? Text(Buffers().acName, [&](char* ac, U32 n) { return pf(pFrameEntry, ac, n); }) : nullptr;
}

const char* CORE_GetInstText(U64 Addr, U32 Size, int* pUsed) { return CodeText(Api().pfGetInstText, Addr, Size, pUsed); }
const char* CORE_GetInstDisplayText(U64 Addr, U32 Size, int* pUsed) {
  return CodeText(Api().pfGetInstDisplayText, Addr, Size, pUsed);
}
const char* CORE_GetDataText(U64 Addr, U32 Size, int* pUsed) { return CodeText(Api().pfGetDataText, Addr, Size, pUsed); }
const char* CORE_GetDataDisplayText(U64 Addr, U32 Size, int* pUsed) {
  return CodeText(Api().pfGetDataDisplayText, Addr, Size, pUsed);
}

const char* CORE_GetMappingSymPrefix() {
  char* ac = Buffers().acPrefix;
  ac[0] = 0;
  if (!Api().pfGetMappingSymPrefix || Api().pfGetMappingSymPrefix(ac, sizeof Buffers().acPrefix) == 0) ac[0] = 0;
  ac[sizeof Buffers().acPrefix - 1] = 0;
  return ac;
}

int CORE_ParseMappingSym(const char* sName, U32* pType, const char** psDesc) {
  if (!Api().pfParseMappingSym || !sName) return -1;
  char* ac = Buffers().acDesc;
  ac[0] = 0;
  const int r = Api().pfParseMappingSym(sName, pType, ac, sizeof Buffers().acDesc);
  ac[sizeof Buffers().acDesc - 1] = 0;
  if (psDesc) *psDesc = ac;
  return r;
}

int CORE_GetELFByteOrder(const void* pHeader52, U32* pDataEndian, U32* pInstEndian) {
  return Api().pfGetELFByteOrder ? Api().pfGetELFByteOrder(52, pHeader52, pDataEndian, pInstEndian) : -1;
}

int CORE_CheckELFFile(const void* pHeader52) { return Api().pfCheckELFFile ? Api().pfCheckELFFile(52, pHeader52) : 0; }

int CORE_OnConnected() { return Call0(Api().pfOnConnected); }
int CORE_OnAboutToDisconnect() { return Call0(Api().pfOnAboutToDisconnect); }
int CORE_SetDefaultExecState() { return Api().pfSetDefaultExecState ? Api().pfSetDefaultExecState() : -1; }
int CORE_OnTargetHalted() { return Call0(Api().pfOnTargetHalted); }
int CORE_OnAboutToResume() { return Call0(Api().pfOnAboutToResume); }
int CORE_InitSemihosting(const char* sCmdLine) {
  return Api().pfInitSemihosting ? Api().pfInitSemihosting(sCmdLine ? sCmdLine : "") : -1;
}
int CORE_DeinitSemihosting() { return Call0(Api().pfDeinitSemihosting); }

int CORE_HandleSemihosting(U32 PC, U32* pOpCode, U64* pOperandAddr) {
  if (!Api().pfHandleSemihosting) return 0;
  const int r = Api().pfHandleSemihosting(PC, pOpCode, pOperandAddr);
  if (r >= 0 && r <= 2) return r;
  CoreReportError(QStringLiteral("Target core support plugin API function 'HandleSemihosting' returned an invalid result code"));
  return -1;
}

int CORE_CompleteSemihosting(U64 Result) { return Api().pfCompleteSemihosting ? Api().pfCompleteSemihosting(Result) : -1; }

const char* CORE_GetDefaultScriptBody(U32 FuncId) {
  auto pf = Api().pfGetDefaultScriptBody;
  if (!pf || FuncId >= 16) return nullptr;
  return Text(Buffers().acBody, [&](char* ac, U32 n) { return pf(FuncId, ac, n); });
}
